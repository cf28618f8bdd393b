#pragma once
// Service description table (EN 300 468, table_id 0x42 actual, 0x46 other).

#include <cstdint>
#include <map>
#include <memory>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

// One service of the table.
class CServiceDescriptionSection {
public:
    virtual ~CServiceDescriptionSection() = default;

    // Deep copy; the target's descriptors are replaced.
    void copyTo(CServiceDescriptionSection* target) const;
    // Bytes of the entry in a section: 5 + its descriptors.
    uint16_t getSize() const;

    uint16_t service_id = 0;
    uint8_t reserved_future_use = 0;
    uint8_t EIT_schedule_flag = 0;
    uint8_t EIT_present_following_flag = 0;
    uint8_t running_status = 0;
    uint8_t free_CA_mode = 0;
    uint16_t descriptors_loop_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
};

class CSDT : public CBaseMpegTable {
public:
    CSDT(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}

    void Clear() override;
    // table_id is not checked; a later service with the same id replaces the
    // earlier one. Fails only on the section length, the CRC and a loop longer
    // than the data.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    uint16_t calc_section_length() const override;

    // Writes the services in ascending service_id order with their loop
    // lengths taken from the lists.
    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    void copyTo(CSDT* target) const;

    uint16_t transport_stream_id = 0;
    uint8_t reserved1 = 0;
    uint8_t version_number = 0;
    uint8_t current_next_indicator = 0;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    uint16_t original_network_id = 0;
    uint8_t reserved_future_use1 = 0;
    std::map<uint16_t, std::shared_ptr<CServiceDescriptionSection>> sds;
    uint32_t CRC = 0;
};

}  // namespace mpegcore
