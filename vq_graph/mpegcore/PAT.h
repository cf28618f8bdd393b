#pragma once
// Program association table (ISO/IEC 13818-1, table_id 0x00).

#include <cstdint>
#include <map>

#include "mpegcore/BaseMpegProgram.h"
#include "mpegcore/BaseMpegTable.h"

namespace mpegcore {

class CPAT : public CBaseMpegTable {
public:
    CPAT(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}

    void Clear() override;
    // Neither table_id nor the syntax indicator is checked: only PID 0 data
    // comes here. Entries are added to what the map holds.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    uint16_t calc_section_length() const override;

    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    void copyTo(CPAT* target) const;
    // Whether the table changed: header, version and section fields and the
    // number of entries; the entries themselves are not compared.
    int operator!=(const CPAT& other) const;

    uint16_t transport_stream_id = 0;
    uint8_t reserved1 = 0;
    uint8_t version_number = 0;
    uint8_t current_next_indicator = 0;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    // Keyed by the entry's PID, so that one lookup tells a PMT PID.
    std::map<uint16_t, CBaseMpegProgram> program_map;
    uint32_t CRC = 0;
};

}  // namespace mpegcore
