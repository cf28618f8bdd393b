#include "mpegcore/TOT.h"

#include "mpegcore/MpegMisc.h"

namespace mpegcore {

void CTOT::Clear() {
    CBaseMpegTable::Clear();
    descriptors.clear();
}

bool CTOT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || !isCompleteWithValidCRC(start, reader))
        return false;
    if (!reader.getBits<40>(UTC_time))
        return false;
    bool complete = CMpegMisc::get_or_zero<4>(reader, reserved1);
    complete = CMpegMisc::get_or_zero<12>(reader, descriptors_loop_length) && complete;
    if (complete && descriptors_loop_length != 0 &&
        CMpegMisc::read_descriptor_loop(reader, descriptors_loop_length, descriptors) ==
            CMpegMisc::loop_result::too_long)
        return false;
    CMpegMisc::get_or_zero<32>(reader, CRC);
    return true;
}

uint16_t CTOT::calc_section_length() const { return static_cast<uint16_t>(11 + descriptors.getSize()); }

bool CTOT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    CMpegMisc::put_bits<40>(writer, UTC_time);
    CMpegMisc::put_bits<4>(writer, reserved1);
    descriptors_loop_length = descriptors.getSize();
    CMpegMisc::put_bits<12>(writer, descriptors_loop_length);
    descriptors.write(writer);
    return finishRender(writer, CRC);
}

void CTOT::copyTo(CTOT* target) const {
    CMpegMisc::copy_section_header(*this, *target);
    target->UTC_time = UTC_time;
    target->reserved1 = reserved1;
    target->descriptors_loop_length = descriptors_loop_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
    target->CRC = CRC;
}

}  // namespace mpegcore
