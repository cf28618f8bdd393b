#include "mpegcore/TDT.h"

#include "mpegcore/MpegConstants.h"
#include "mpegcore/MpegMisc.h"

namespace mpegcore {

CTDT::CTDT(uint64_t utc_time, unsigned char* buffer, unsigned long size)
    : CBaseMpegTable(buffer, size), UTC_time(utc_time) {
    table_id = kTableIdTDT;
    section_syntax_indicator = 0;
    zero = 0;
    reserved = 3;
    section_length = 5;
}

bool CTDT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    if (!CMpegMisc::read_section_header(*this, reader) || reader.getLength() < 5)
        return false;
    return reader.getBits<40>(UTC_time);
}

bool CTDT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    CMpegMisc::put_bits<40>(writer, UTC_time);
    writer.flush();
    return setRenderedSize();
}

void CTDT::copyTo(CTDT* target) const {
    target->table_id = table_id;
    target->section_syntax_indicator = section_syntax_indicator;
    target->zero = zero;
    target->reserved = reserved;
    target->UTC_time = UTC_time;
    target->section_length = 5;
}

}  // namespace mpegcore
