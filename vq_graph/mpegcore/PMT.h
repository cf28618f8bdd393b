#pragma once
// Program map table (ISO/IEC 13818-1, table_id 0x02).

#include <cstdint>
#include <map>
#include <memory>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

// One elementary stream of a program.
class CBaseStreamTypeMap {
public:
    virtual ~CBaseStreamTypeMap() = default;

    // Deep copy, descriptors included; the target's descriptors are replaced.
    void copyTo(CBaseStreamTypeMap* target) const;
    // Bytes of the entry in a section: 5 + its descriptors.
    uint16_t getSize() const;

    uint8_t stream_type = 0;
    uint8_t reserved1 = 0;
    uint16_t elementary_PID = 0;
    uint8_t reserved2 = 0;
    uint16_t ES_info_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
};

class CPMT : public CBaseMpegTable {
public:
    CPMT(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}

    void Clear() override;
    // Fails unless table_id is 0x02 and the bit after the syntax indicator is 0.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    uint16_t calc_section_length() const override;

    // Writes the section with program_info_length and every ES_info_length
    // taken from the descriptor lists.
    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    void copyTo(CPMT* target) const;
    // Whether the program changed: header and program fields and the number
    // of streams. section_number, the descriptors and the streams' contents
    // are not compared.
    int operator!=(const CPMT& other) const;

    uint16_t program_number = 0;
    uint8_t reserved1 = 0;
    uint8_t version_number = 0;
    uint8_t current_next_indicator = 0;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    uint8_t reserved2 = 0;
    uint16_t PCR_PID = 0;
    uint8_t reserved3 = 0;
    uint16_t program_info_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
    std::map<uint16_t, std::shared_ptr<CBaseStreamTypeMap>> stream_map;
    uint32_t CRC = 0;
};

}  // namespace mpegcore
