#include "mpegcore/DescriptorLoopTable.h"

#include "mpegcore/MpegMisc.h"

namespace mpegcore {

void CDescriptorLoopTable::Clear() {
    CBaseMpegTable::Clear();
    descriptors.clear();
}

bool CDescriptorLoopTable::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || !isCompleteWithValidCRC(start, reader))
        return false;
    // After the first field that runs out of data every later read fails too
    // and zeroes its field.
    bool complete = CMpegMisc::get_or_zero<18>(reader, reserved1);
    complete = CMpegMisc::get_or_zero<5>(reader, version_number) && complete;
    complete = CMpegMisc::get_or_zero<1>(reader, current_next_indicator) && complete;
    complete = CMpegMisc::get_or_zero<8>(reader, section_number) && complete;
    complete = CMpegMisc::get_or_zero<8>(reader, last_section_number) && complete;
    const int loopLength = int(section_length) - 9;
    if (complete && loopLength >= 1 &&
        CMpegMisc::read_descriptor_loop(reader, static_cast<uint16_t>(loopLength), descriptors) ==
            CMpegMisc::loop_result::too_long)
        return false;
    CMpegMisc::get_or_zero<32>(reader, CRC);
    return true;
}

uint16_t CDescriptorLoopTable::calc_section_length() const { return static_cast<uint16_t>(9 + descriptors.getSize()); }

bool CDescriptorLoopTable::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    CMpegMisc::put_bits<18>(writer, reserved1);
    CMpegMisc::put_bits<5>(writer, version_number);
    CMpegMisc::put_bits<1>(writer, current_next_indicator);
    CMpegMisc::put_bits<8>(writer, section_number);
    CMpegMisc::put_bits<8>(writer, last_section_number);
    descriptors.write(writer);
    return finishRender(writer, CRC);
}

void CDescriptorLoopTable::copyTo(CDescriptorLoopTable* target) const {
    CMpegMisc::copy_section_header(*this, *target);
    target->reserved1 = reserved1;
    target->version_number = version_number;
    target->current_next_indicator = current_next_indicator;
    target->section_number = section_number;
    target->last_section_number = last_section_number;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
    target->CRC = CRC;
}

}  // namespace mpegcore
