#include "mpegcore/PAT.h"

#include "mpegcore/MpegMisc.h"

namespace mpegcore {

void CPAT::Clear() {
    CBaseMpegTable::Clear();
    program_map.clear();
}

bool CPAT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || !isCompleteWithValidCRC(start, reader))
        return false;
    if (!readLongHeader(reader, transport_stream_id, *this))
        return false;
    if (section_length > 12) {
        const int entries = (section_length - 9) / 4;
        for (int i = 0; i < entries; ++i) {
            CBaseMpegProgram program;
            uint16_t pid = 0;
            if (!(reader.getBits<16>(program.program_number) && reader.getBits<3>(program.reserved) &&
                  reader.getBits<13>(pid)))
                return false;
            program.map_PID.program_map_PID = pid;
            program_map[pid] = program;  // the last entry for a PID wins
        }
    }
    return reader.getBits<32>(CRC);
}

uint16_t CPAT::calc_section_length() const { return static_cast<uint16_t>(9 + 4 * program_map.size()); }

bool CPAT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    writeLongHeader(writer, transport_stream_id, *this);
    for (const auto& [pid, program] : program_map) {
        CMpegMisc::put_bits<16>(writer, program.program_number);
        CMpegMisc::put_bits<3>(writer, program.reserved);
        CMpegMisc::put_bits<13>(writer, pid);
    }
    return finishRender(writer, CRC);
}

void CPAT::copyTo(CPAT* target) const {
    copyLongHeader(*this, *target);
    target->transport_stream_id = transport_stream_id;
    target->program_map = program_map;
    target->CRC = CRC;
}

int CPAT::operator!=(const CPAT& other) const {
    return !sameSectionHeader(other) || transport_stream_id != other.transport_stream_id ||
           !sameVersion(*this, other) || section_number != other.section_number ||
           program_map.size() != other.program_map.size();
}

}  // namespace mpegcore
