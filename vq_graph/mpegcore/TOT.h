#pragma once
// Time offset table (EN 300 468, table_id 0x73): a UTC time and a descriptor
// loop, usually local time offset descriptors.

#include <cstdint>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

class CTOT : public CBaseMpegTable {
public:
    CTOT(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}

    void Clear() override;
    // When the data ends inside the fields after the time, those not reached
    // become 0 and the read succeeds.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    uint16_t calc_section_length() const override;

    // Writes the section with descriptors_loop_length taken from the list.
    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    void copyTo(CTOT* target) const;

    // 16-bit MJD and six BCD digits hhmmss, as transmitted.
    uint64_t UTC_time = 0;
    uint8_t reserved1 = 0;
    uint16_t descriptors_loop_length = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
    uint32_t CRC = 0;
};

}  // namespace mpegcore
