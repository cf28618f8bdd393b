#include "mpegcore/EIT.h"

#include "mpegcore/MpegCRC32.h"
#include "mpegcore/MpegMisc.h"

namespace mpegcore {

bool CEventInfo::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    if (!(reader.getBits<16>(event_id) && reader.getBits<40>(start_time) && reader.getBits<24>(duration) &&
          reader.getBits<3>(running_status) && reader.getBits<1>(free_CA_mode) &&
          reader.getBits<12>(descriptors_loop_length)))
        return false;
    if (descriptors_loop_length == 0)
        return true;
    return CMpegMisc::read_descriptor_loop(reader, descriptors_loop_length, descriptors) !=
           CMpegMisc::loop_result::too_long;
}

bool CEventInfo::write(VQSDK::VQBSWriterT<unsigned char*>& writer) {
    descriptors_loop_length = descriptors.getSize();
    const bool ok = CMpegMisc::put_bits<16>(writer, event_id) && CMpegMisc::put_bits<40>(writer, start_time) &&
                    CMpegMisc::put_bits<24>(writer, duration) && CMpegMisc::put_bits<3>(writer, running_status) &&
                    CMpegMisc::put_bits<1>(writer, free_CA_mode) &&
                    CMpegMisc::put_bits<12>(writer, descriptors_loop_length);
    if (ok)
        descriptors.write(writer);
    return ok;
}

void CEventInfo::copyTo(CEventInfo* target) const {
    target->event_id = event_id;
    target->start_time = start_time;
    target->duration = duration;
    target->running_status = running_status;
    target->free_CA_mode = free_CA_mode;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
    target->descriptors_loop_length = target->descriptors.getSize();
}

uint16_t CEventInfo::getSize() const { return static_cast<uint16_t>(12 + descriptors.getSize()); }

uint32_t CEventInfo::time_to_duration(uint64_t hours, uint64_t minutes, uint64_t seconds) {
    return CMpegMisc::time_to_bcd(hours, minutes, seconds);
}

uint32_t CEventInfo::sec_to_duration(uint64_t seconds) {
    return time_to_duration(seconds / 3600, (seconds % 3600) / 60, seconds % 60);
}

uint64_t CEventInfo::time_t_to_start_time(time_t time) { return CMpegMisc::time_t_to_utc_time(time); }

time_t CEventInfo::start_time_to_time_t(uint64_t start_time) {
    std::tm tm = CMpegMisc::utc_time_to_tm(start_time);
    tm.tm_mon += 2;
    tm.tm_year += 1900;
    return timegm(&tm);
}

void CEIT::Clear() {
    eventInfo.clear();
    CBaseMpegTable::Clear();
}

bool CEIT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || !isCompleteWithValidCRC(start, reader))
        return false;
    if (!(readLongHeader(reader, service_id, *this) && reader.getBits<16>(transport_stream_id) &&
          reader.getBits<16>(original_network_id) && reader.getBits<8>(segment_last_section_number) &&
          reader.getBits<8>(last_table_id)))
        return false;
    // 11 bytes of fields after section_length and the 4-byte CRC are not events.
    int remaining = int(section_length) - 15;
    while (remaining >= 12) {
        auto event = std::make_shared<CEventInfo>();
        if (!event->read(reader))
            return false;
        eventInfo.push_back(event);
        remaining -= event->descriptors_loop_length + 12;
    }
    return reader.getBits<32>(CRC);
}

bool CEIT::write(VQSDK::VQBSWriterT<unsigned char*>& writer) {
    writer.flush();
    unsigned char* sectionStart = writer.getData();
    CBaseMpegTable::write(writer);
    if (writeLongHeader(writer, service_id, *this) && CMpegMisc::put_bits<16>(writer, transport_stream_id) &&
        CMpegMisc::put_bits<16>(writer, original_network_id) &&
        CMpegMisc::put_bits<8>(writer, segment_last_section_number) && CMpegMisc::put_bits<8>(writer, last_table_id))
        for (const auto& event : eventInfo)
            event->write(writer);
    writer.flush();
    CRC = crc32_mpeg2(sectionStart, static_cast<size_t>(writer.getData() - sectionStart));
    CMpegMisc::put_bits<32>(writer, CRC);
    writer.flush();
    return true;
}

uint16_t CEIT::calc_section_length() const {
    unsigned length = 15;
    for (const auto& event : eventInfo)
        length += event->getSize();
    return static_cast<uint16_t>(length);
}

bool CEIT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    return setRenderedSize();
}

void CEIT::copyTo(CEIT* target) const {
    copyLongHeader(*this, *target);
    target->service_id = service_id;
    target->transport_stream_id = transport_stream_id;
    target->original_network_id = original_network_id;
    target->segment_last_section_number = segment_last_section_number;
    target->last_table_id = last_table_id;
    target->eventInfo.clear();
    for (const auto& event : eventInfo) {
        auto copy = std::make_shared<CEventInfo>();
        event->copyTo(copy.get());
        target->eventInfo.push_back(copy);
    }
    target->CRC = CRC;
}

}  // namespace mpegcore
