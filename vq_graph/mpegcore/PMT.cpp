#include "mpegcore/PMT.h"

#include "mpegcore/MpegConstants.h"
#include "mpegcore/MpegMisc.h"

namespace mpegcore {

void CBaseStreamTypeMap::copyTo(CBaseStreamTypeMap* target) const {
    target->stream_type = stream_type;
    target->reserved1 = reserved1;
    target->elementary_PID = elementary_PID;
    target->reserved2 = reserved2;
    target->ES_info_length = ES_info_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
}

uint16_t CBaseStreamTypeMap::getSize() const { return static_cast<uint16_t>(5 + descriptors.getSize()); }

void CPMT::Clear() {
    CBaseMpegTable::Clear();
    descriptors.clear();
    stream_map.clear();
}

bool CPMT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || table_id != kTableIdPMT || zero != 0 ||
        !isCompleteWithValidCRC(start, reader))
        return false;
    if (!(readLongHeader(reader, program_number, *this) && reader.getBits<3>(reserved2) &&
          reader.getBits<13>(PCR_PID) && reader.getBits<4>(reserved3) && reader.getBits<12>(program_info_length)))
        return false;
    if (program_info_length != 0 &&
        CMpegMisc::read_descriptor_loop(reader, program_info_length, descriptors) == CMpegMisc::loop_result::too_long)
        return false;

    // Section bytes after the program descriptors; the last 4 are the CRC.
    int left = int(section_length) - 13 - int(program_info_length);
    while (left > 4) {
        auto stream = std::make_shared<CBaseStreamTypeMap>();
        if (!(reader.getBits<8>(stream->stream_type) && reader.getBits<3>(stream->reserved1) &&
              reader.getBits<13>(stream->elementary_PID) && reader.getBits<4>(stream->reserved2) &&
              reader.getBits<12>(stream->ES_info_length)))
            return false;
        if (CMpegMisc::read_descriptor_loop(reader, stream->ES_info_length, stream->descriptors) ==
            CMpegMisc::loop_result::too_long)
            return false;
        left -= 5 + stream->ES_info_length;
        stream_map[stream->elementary_PID] = stream;
    }
    return reader.getBits<32>(CRC);
}

uint16_t CPMT::calc_section_length() const {
    unsigned length = 13 + descriptors.getSize();
    for (const auto& [pid, stream] : stream_map)
        length += stream->getSize();
    return static_cast<uint16_t>(length);
}

bool CPMT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    writeLongHeader(writer, program_number, *this);
    CMpegMisc::put_bits<3>(writer, reserved2);
    CMpegMisc::put_bits<13>(writer, PCR_PID);
    CMpegMisc::put_bits<4>(writer, reserved3);
    program_info_length = descriptors.getSize();
    CMpegMisc::put_bits<12>(writer, program_info_length);
    descriptors.write(writer);
    for (const auto& [pid, stream] : stream_map) {
        CMpegMisc::put_bits<8>(writer, stream->stream_type);
        CMpegMisc::put_bits<3>(writer, stream->reserved1);
        CMpegMisc::put_bits<13>(writer, stream->elementary_PID);
        CMpegMisc::put_bits<4>(writer, stream->reserved2);
        stream->ES_info_length = stream->descriptors.getSize();
        CMpegMisc::put_bits<12>(writer, stream->ES_info_length);
        stream->descriptors.write(writer);
    }
    return finishRender(writer, CRC);
}

void CPMT::copyTo(CPMT* target) const {
    copyLongHeader(*this, *target);
    target->program_number = program_number;
    target->reserved2 = reserved2;
    target->PCR_PID = PCR_PID;
    target->reserved3 = reserved3;
    target->program_info_length = program_info_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
    target->stream_map.clear();
    for (const auto& [pid, stream] : stream_map) {
        auto copy = std::make_shared<CBaseStreamTypeMap>();
        stream->copyTo(copy.get());
        target->stream_map[pid] = copy;
    }
    target->CRC = CRC;
}

int CPMT::operator!=(const CPMT& other) const {
    return !sameSectionHeader(other) || program_number != other.program_number || reserved1 != other.reserved1 ||
           !sameVersion(*this, other) || reserved2 != other.reserved2 || PCR_PID != other.PCR_PID ||
           reserved3 != other.reserved3 || program_info_length != other.program_info_length ||
           stream_map.size() != other.stream_map.size();
}

}  // namespace mpegcore
