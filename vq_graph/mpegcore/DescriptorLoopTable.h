#pragma once
// The section layout that the CAT and the TSDT share (ISO/IEC 13818-1): the
// long header, 18 reserved bits, version and section numbers, then one
// descriptor loop filling the section up to the CRC.

#include <cstdint>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

class CDescriptorLoopTable : public CBaseMpegTable {
public:
    CDescriptorLoopTable(unsigned char* buffer, unsigned long size) : CBaseMpegTable(buffer, size) {}

    void Clear() override;
    // When the data ends inside the fields after the header (a header whose
    // length lies), the fields not reached become 0 and the read succeeds.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader) override;
    uint16_t calc_section_length() const override;

    // False when the section does not fit the buffer; m_lSizeTable stays within it.
    bool RenderTable();
    void copyTo(CDescriptorLoopTable* target) const;

    uint32_t reserved1 = 0;
    uint8_t version_number = 0;
    uint8_t current_next_indicator = 0;
    uint8_t section_number = 0;
    uint8_t last_section_number = 0;
    VQDescriptorList descriptors{e_ts_desc_type};
    uint32_t CRC = 0;
};

}  // namespace mpegcore
