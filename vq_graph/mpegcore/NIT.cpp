#include "mpegcore/NIT.h"

#include "mpegcore/MpegMisc.h"

namespace mpegcore {

void CBaseTransportStream::copyTo(CBaseTransportStream* target) const {
    target->transport_stream_id = transport_stream_id;
    target->original_network_id = original_network_id;
    target->reserved_future_use = reserved_future_use;
    target->network_descriptors_length = network_descriptors_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
}

uint16_t CBaseTransportStream::getSize() const {
    return static_cast<uint16_t>(6 + descriptors.getSize());
}

void CNIT::Clear() {
    descriptors.clear();
    transport_stream.clear();
    CBaseMpegTable::Clear();
}

bool CNIT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || !isCompleteWithValidCRC(start, reader))
        return false;
    if (!(reader.getBits<16>(network_id) && reader.getBits<2>(reserved1) && reader.getBits<5>(version_number) &&
          reader.getBits<1>(current_next_indicator) && reader.getBits<8>(section_number) &&
          reader.getBits<8>(last_section_number) && reader.getBits<4>(reserved_future_use) &&
          reader.getBits<12>(network_descriptors_length)))
        return false;
    if (network_descriptors_length != 0 &&
        CMpegMisc::read_descriptor_loop(reader, network_descriptors_length, descriptors) ==
            CMpegMisc::loop_result::too_long)
        return false;
    if (!(reader.getBits<4>(reserved_future_use1) && reader.getBits<12>(transport_stream_loop_length)))
        return false;
    // Five bytes or fewer cannot hold another entry; they end the loop.
    int left = transport_stream_loop_length;
    while (left > 5) {
        auto stream = std::make_shared<CBaseTransportStream>();
        if (!(reader.getBits<16>(stream->transport_stream_id) && reader.getBits<16>(stream->original_network_id) &&
              reader.getBits<4>(stream->reserved_future_use) &&
              reader.getBits<12>(stream->network_descriptors_length)))
            return false;
        if (stream->network_descriptors_length != 0 &&
            CMpegMisc::read_descriptor_loop(reader, stream->network_descriptors_length, stream->descriptors) ==
                CMpegMisc::loop_result::too_long)
            return false;
        left -= stream->network_descriptors_length + 6;
        transport_stream.push_back(stream);
    }
    return reader.getBits<32>(CRC);
}

uint16_t CNIT::calc_transport_stream_loop_length() const {
    unsigned length = 0;
    for (const auto& stream : transport_stream)
        length += stream->getSize();
    return static_cast<uint16_t>(length);
}

uint16_t CNIT::calc_section_length() const {
    return static_cast<uint16_t>(13 + descriptors.getSize() + calc_transport_stream_loop_length());
}

void CNIT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    CMpegMisc::put_bits<16>(writer, network_id);
    CMpegMisc::put_bits<2>(writer, reserved1);
    CMpegMisc::put_bits<5>(writer, version_number);
    CMpegMisc::put_bits<1>(writer, current_next_indicator);
    CMpegMisc::put_bits<8>(writer, section_number);
    CMpegMisc::put_bits<8>(writer, last_section_number);
    CMpegMisc::put_bits<4>(writer, reserved_future_use);
    network_descriptors_length = descriptors.getSize();
    CMpegMisc::put_bits<12>(writer, network_descriptors_length);
    descriptors.write(writer);
    CMpegMisc::put_bits<4>(writer, reserved_future_use1);
    transport_stream_loop_length = calc_transport_stream_loop_length();
    CMpegMisc::put_bits<12>(writer, transport_stream_loop_length);
    for (const auto& stream : transport_stream) {
        CMpegMisc::put_bits<16>(writer, stream->transport_stream_id);
        CMpegMisc::put_bits<16>(writer, stream->original_network_id);
        CMpegMisc::put_bits<4>(writer, stream->reserved_future_use);
        stream->network_descriptors_length = stream->descriptors.getSize();
        CMpegMisc::put_bits<12>(writer, stream->network_descriptors_length);
        stream->descriptors.write(writer);
    }
    CRC = finishRender(writer);
}

void CNIT::copyTo(CNIT* target) const {
    CMpegMisc::copy_section_header(*this, *target);
    target->network_id = network_id;
    target->reserved1 = reserved1;
    target->version_number = version_number;
    target->current_next_indicator = current_next_indicator;
    target->section_number = section_number;
    target->last_section_number = last_section_number;
    target->reserved_future_use = reserved_future_use;
    target->network_descriptors_length = network_descriptors_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
    target->reserved_future_use1 = reserved_future_use1;
    target->transport_stream_loop_length = transport_stream_loop_length;
    target->transport_stream.clear();
    for (const auto& stream : transport_stream) {
        auto copy = std::make_shared<CBaseTransportStream>();
        stream->copyTo(copy.get());
        target->transport_stream.push_back(copy);
    }
    target->CRC = CRC;
}

}  // namespace mpegcore
