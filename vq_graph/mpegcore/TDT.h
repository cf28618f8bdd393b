#pragma once
// Time and date table (EN 300 468, table_id 0x70): one UTC time, no CRC.

#include <cstdint>

#include "mpegcore/BaseMpegTable.h"

namespace mpegcore {

class CTDT : public CBaseMpegTable {
public:
    CTDT(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}
    // A table ready to render: table_id 0x70, syntax indicator 0, reserved 3,
    // section_length 5. The bit after the syntax indicator is 0 here, not
    // the reserved 1 of EN 300 468.
    CTDT(uint64_t utc_time, unsigned char* buffer, unsigned long size);

    // Needs the 5 time bytes after the header; there is no CRC to check.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    uint16_t calc_section_length() const override { return 5; }

    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    // Copies the header bits and the time; the target's section_length becomes 5.
    void copyTo(CTDT* target) const;

    // 16-bit MJD and six BCD digits hhmmss, as transmitted.
    uint64_t UTC_time = 0;
};

}  // namespace mpegcore
