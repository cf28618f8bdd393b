#include "mpegcore/NIT.h"

#include "mpegcore/MpegMisc.h"
#include "mpegcore/TransportStreamLoop.h"

namespace mpegcore {

void CBaseTransportStream::copyTo(CBaseTransportStream* target) const {
    target->transport_stream_id = transport_stream_id;
    target->original_network_id = original_network_id;
    target->reserved_future_use = reserved_future_use;
    target->network_descriptors_length = network_descriptors_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
}

uint16_t CBaseTransportStream::getSize() const { return static_cast<uint16_t>(6 + descriptors.getSize()); }

void CNIT::Clear() {
    descriptors.clear();
    transport_stream.clear();
    CBaseMpegTable::Clear();
}

bool CNIT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || !isCompleteWithValidCRC(start, reader))
        return false;
    // Past the length and CRC tests only a loop longer than the data fails;
    // a field that runs out of data does not.
    readLongHeader(reader, network_id, *this);
    reader.getBits<4>(reserved_future_use);
    reader.getBits<12>(network_descriptors_length);
    if (network_descriptors_length != 0 &&
        CMpegMisc::read_descriptor_loop(reader, network_descriptors_length, descriptors) ==
            CMpegMisc::loop_result::too_long)
        return false;
    reader.getBits<4>(reserved_future_use1);
    reader.getBits<12>(transport_stream_loop_length);
    const bool loopRead = CTransportStreamLoop::read(transport_stream_loop_length, [&] {
        auto stream = std::make_shared<CBaseTransportStream>();
        if (!CTransportStreamLoop::readEntry(reader, *stream, stream->network_descriptors_length, stream->descriptors,
                                             false))
            return -1;
        transport_stream.push_back(stream);
        return int(stream->network_descriptors_length);
    });
    reader.getBits<32>(CRC);
    return loopRead;
}

uint16_t CNIT::calc_transport_stream_loop_length() const { return CTransportStreamLoop::length(transport_stream); }

uint16_t CNIT::calc_section_length() const {
    return static_cast<uint16_t>(13 + descriptors.getSize() + calc_transport_stream_loop_length());
}

bool CNIT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    writeLongHeader(writer, network_id, *this);
    CMpegMisc::put_bits<4>(writer, reserved_future_use);
    network_descriptors_length = descriptors.getSize();
    CMpegMisc::put_bits<12>(writer, network_descriptors_length);
    descriptors.write(writer);
    CMpegMisc::put_bits<4>(writer, reserved_future_use1);
    transport_stream_loop_length = calc_transport_stream_loop_length();
    CMpegMisc::put_bits<12>(writer, transport_stream_loop_length);
    for (const auto& stream : transport_stream)
        CTransportStreamLoop::writeEntry(writer, *stream, stream->network_descriptors_length);
    return finishRender(writer, CRC);
}

void CNIT::copyTo(CNIT* target) const {
    copyLongHeader(*this, *target);
    target->network_id = network_id;
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
