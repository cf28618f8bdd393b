#pragma once
// Bouquet association table (EN 300 468, table_id 0x4A).

#include <cstdint>
#include <list>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

// One transport stream of the bouquet's loop. It is itself a (TS-type)
// descriptor list and carries a second one, `descriptors`.
class CBouquetAssociationStream : public VQDescriptorList {
public:
    CBouquetAssociationStream() : VQDescriptorList(e_ts_desc_type) {}

    // Deep copy of the fields and both lists; the target's lists are replaced.
    void copyTo(CBouquetAssociationStream* target) const;
    // Bytes of the entry in a section: 6 + `descriptors`.
    uint16_t getSize() const;

    uint16_t transport_stream_id = 0;
    uint16_t original_network_id = 0;
    uint8_t reserved_future_use = 0;
    uint16_t transport_descriptors_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
};

class CBAT : public CBaseMpegTable {
public:
    CBAT(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}
    ~CBAT() override;

    void Clear() override;
    // Every field and descriptor list must read. The descriptors of each
    // stream entry go to the table's own `descriptors`, after the bouquet
    // descriptors; the entry keeps its transport_descriptors_length and an
    // empty list.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    uint16_t calc_section_length() const override;

    // Writes the section with every loop length taken from the lists.
    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    void copyTo(CBAT* target) const;
    // Bytes of the transport stream loop: 6 + descriptors per entry.
    uint16_t calc_transport_stream_loop_length() const;

    uint16_t bouquet_id = 0;
    uint8_t reserved1 = 0;
    uint8_t version_number = 0;
    uint8_t current_next_indicator = 0;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    uint8_t reserved_future_use2 = 0;
    uint16_t bouquet_descriptors_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
    uint8_t reserved_future_use3 = 0;
    uint16_t transport_stream_loop_length = 0;
    // Owned: deleted by Clear and the destructor.
    std::list<CBouquetAssociationStream*> BouquetAssociationStreamList;
    uint32_t CRC = 0;

private:
    void deleteStreams();
};

}  // namespace mpegcore
