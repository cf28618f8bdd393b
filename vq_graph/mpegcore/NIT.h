#pragma once
// Network information table (EN 300 468, table_id 0x40 actual, 0x41 other).

#include <cstdint>
#include <list>
#include <memory>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

// One transport stream of the network's loop.
class CBaseTransportStream {
public:
    virtual ~CBaseTransportStream() = default;

    // Deep copy; the target's descriptors are replaced.
    void copyTo(CBaseTransportStream* target) const;
    // Bytes of the entry in a section: 6 + its descriptors.
    uint16_t getSize() const;

    uint16_t transport_stream_id = 0;
    uint16_t original_network_id = 0;
    uint8_t reserved_future_use = 0;
    // The entry's transport_descriptors_length.
    uint16_t network_descriptors_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
};

class CNIT : public CBaseMpegTable {
public:
    CNIT(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}

    void Clear() override;
    // table_id is not checked. Fails only on the section length, the CRC and
    // a loop longer than the data (the descriptor lists' own results and
    // fields that run out of data are not examined).
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    uint16_t calc_section_length() const override;

    // Writes the section with every loop length taken from the lists.
    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    void copyTo(CNIT* target) const;
    // Bytes of the transport stream loop: 6 + descriptors per entry.
    uint16_t calc_transport_stream_loop_length() const;

    uint16_t network_id = 0;
    uint8_t reserved1 = 0;
    uint8_t version_number = 0;
    uint8_t current_next_indicator = 0;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    uint8_t reserved_future_use = 0;
    uint16_t network_descriptors_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
    uint8_t reserved_future_use1 = 0;
    uint16_t transport_stream_loop_length = 0;
    std::list<std::shared_ptr<CBaseTransportStream>> transport_stream;
    uint32_t CRC = 0;
};

}  // namespace mpegcore
