#include "mpegcore/SDT.h"

#include "mpegcore/MpegMisc.h"

namespace mpegcore {

void CServiceDescriptionSection::copyTo(CServiceDescriptionSection* target) const {
    target->service_id = service_id;
    target->reserved_future_use = reserved_future_use;
    target->EIT_schedule_flag = EIT_schedule_flag;
    target->EIT_present_following_flag = EIT_present_following_flag;
    target->running_status = running_status;
    target->free_CA_mode = free_CA_mode;
    target->descriptors_loop_length = descriptors_loop_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
}

uint16_t CServiceDescriptionSection::getSize() const { return static_cast<uint16_t>(5 + descriptors.getSize()); }

void CSDT::Clear() {
    sds.clear();
    CBaseMpegTable::Clear();
}

bool CSDT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || !isCompleteWithValidCRC(start, reader))
        return false;
    // Past the length and CRC tests only a loop longer than the data fails;
    // a field that runs out of data does not.
    readLongHeader(reader, transport_stream_id, *this);
    reader.getBits<16>(original_network_id);
    reader.getBits<8>(reserved_future_use1);
    // The service loop ends 4 bytes before the section does (the CRC).
    int left = int(section_length) - 12;
    while (left > 4) {
        auto service = std::make_shared<CServiceDescriptionSection>();
        reader.getBits<16>(service->service_id);
        reader.getBits<6>(service->reserved_future_use);
        reader.getBits<1>(service->EIT_schedule_flag);
        reader.getBits<1>(service->EIT_present_following_flag);
        reader.getBits<3>(service->running_status);
        reader.getBits<1>(service->free_CA_mode);
        reader.getBits<12>(service->descriptors_loop_length);
        if (CMpegMisc::read_descriptor_loop(reader, service->descriptors_loop_length, service->descriptors) ==
            CMpegMisc::loop_result::too_long)
            return false;
        left -= service->descriptors_loop_length + 5;
        sds[service->service_id] = service;
    }
    reader.getBits<32>(CRC);
    return true;
}

uint16_t CSDT::calc_section_length() const {
    unsigned length = 12;
    for (const auto& [id, service] : sds)
        length += service->getSize();
    return static_cast<uint16_t>(length);
}

bool CSDT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    writeLongHeader(writer, transport_stream_id, *this);
    CMpegMisc::put_bits<16>(writer, original_network_id);
    CMpegMisc::put_bits<8>(writer, reserved_future_use1);
    for (const auto& [id, service] : sds) {
        CMpegMisc::put_bits<16>(writer, service->service_id);
        CMpegMisc::put_bits<6>(writer, service->reserved_future_use);
        CMpegMisc::put_bits<1>(writer, service->EIT_schedule_flag);
        CMpegMisc::put_bits<1>(writer, service->EIT_present_following_flag);
        CMpegMisc::put_bits<3>(writer, service->running_status);
        CMpegMisc::put_bits<1>(writer, service->free_CA_mode);
        service->descriptors_loop_length = service->descriptors.getSize();
        CMpegMisc::put_bits<12>(writer, service->descriptors_loop_length);
        service->descriptors.write(writer);
    }
    return finishRender(writer, CRC);
}

void CSDT::copyTo(CSDT* target) const {
    copyLongHeader(*this, *target);
    target->transport_stream_id = transport_stream_id;
    target->original_network_id = original_network_id;
    target->reserved_future_use1 = reserved_future_use1;
    target->sds.clear();
    for (const auto& [id, service] : sds) {
        auto copy = std::make_shared<CServiceDescriptionSection>();
        service->copyTo(copy.get());
        target->sds[id] = copy;
    }
    target->CRC = CRC;
}

}  // namespace mpegcore
