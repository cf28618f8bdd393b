#include "mpegcore/BAT.h"

#include <memory>

#include "mpegcore/MpegMisc.h"

namespace mpegcore {

void CBouquetAssociationStream::copyTo(CBouquetAssociationStream* target) const {
    target->clear();
    VQDescriptorList::copyTo(*target);
    target->transport_stream_id = transport_stream_id;
    target->original_network_id = original_network_id;
    target->reserved_future_use = reserved_future_use;
    target->transport_descriptors_length = transport_descriptors_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
}

uint16_t CBouquetAssociationStream::getSize() const {
    return static_cast<uint16_t>(6 + descriptors.getSize());
}

CBAT::~CBAT() {
    deleteStreams();
}

void CBAT::deleteStreams() {
    for (CBouquetAssociationStream* stream : BouquetAssociationStreamList)
        delete stream;
    BouquetAssociationStreamList.clear();
}

void CBAT::Clear() {
    deleteStreams();
    descriptors.clear();
    CBaseMpegTable::Clear();
}

bool CBAT::read(VQSDK::VQBSReaderT<unsigned char*>& reader) {
    const unsigned char* start = reader.getData();
    if (!CMpegMisc::read_section_header(*this, reader) || !isCompleteWithValidCRC(start, reader))
        return false;
    if (!(reader.getBits<16>(bouquet_id) && reader.getBits<2>(reserved1) && reader.getBits<5>(version_number) &&
          reader.getBits<1>(current_next_indicator) && reader.getBits<8>(section_number) &&
          reader.getBits<8>(last_section_number) && reader.getBits<4>(reserved_future_use2) &&
          reader.getBits<12>(bouquet_descriptors_length)))
        return false;
    if (bouquet_descriptors_length != 0 &&
        CMpegMisc::read_descriptor_loop(reader, bouquet_descriptors_length, descriptors) !=
            CMpegMisc::loop_result::ok)
        return false;
    if (!(reader.getBits<4>(reserved_future_use3) && reader.getBits<12>(transport_stream_loop_length)))
        return false;
    int left = transport_stream_loop_length;
    while (left >= 6) {
        auto stream = std::make_unique<CBouquetAssociationStream>();
        if (!(reader.getBits<16>(stream->transport_stream_id) && reader.getBits<16>(stream->original_network_id) &&
              reader.getBits<4>(stream->reserved_future_use) &&
              reader.getBits<12>(stream->transport_descriptors_length)))
            return false;
        if (stream->transport_descriptors_length != 0 &&
            CMpegMisc::read_descriptor_loop(reader, stream->transport_descriptors_length, descriptors) !=
                CMpegMisc::loop_result::ok)
            return false;
        left -= stream->transport_descriptors_length + 6;
        BouquetAssociationStreamList.push_back(stream.release());
    }
    return reader.getBits<32>(CRC);
}

uint16_t CBAT::calc_transport_stream_loop_length() const {
    unsigned length = 0;
    for (const CBouquetAssociationStream* stream : BouquetAssociationStreamList)
        length += stream->getSize();
    return static_cast<uint16_t>(length);
}

uint16_t CBAT::calc_section_length() const {
    return static_cast<uint16_t>(13 + descriptors.getSize() + calc_transport_stream_loop_length());
}

void CBAT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    CMpegMisc::put_bits<16>(writer, bouquet_id);
    CMpegMisc::put_bits<2>(writer, reserved1);
    CMpegMisc::put_bits<5>(writer, version_number);
    CMpegMisc::put_bits<1>(writer, current_next_indicator);
    CMpegMisc::put_bits<8>(writer, section_number);
    CMpegMisc::put_bits<8>(writer, last_section_number);
    CMpegMisc::put_bits<4>(writer, reserved_future_use2);
    bouquet_descriptors_length = descriptors.getSize();
    CMpegMisc::put_bits<12>(writer, bouquet_descriptors_length);
    descriptors.write(writer);
    CMpegMisc::put_bits<4>(writer, reserved_future_use3);
    transport_stream_loop_length = calc_transport_stream_loop_length();
    CMpegMisc::put_bits<12>(writer, transport_stream_loop_length);
    for (CBouquetAssociationStream* stream : BouquetAssociationStreamList) {
        CMpegMisc::put_bits<16>(writer, stream->transport_stream_id);
        CMpegMisc::put_bits<16>(writer, stream->original_network_id);
        CMpegMisc::put_bits<4>(writer, stream->reserved_future_use);
        stream->transport_descriptors_length = stream->descriptors.getSize();
        CMpegMisc::put_bits<12>(writer, stream->transport_descriptors_length);
        stream->descriptors.write(writer);
    }
    CRC = finishRender(writer);
}

void CBAT::copyTo(CBAT* target) const {
    CMpegMisc::copy_section_header(*this, *target);
    target->bouquet_id = bouquet_id;
    target->reserved1 = reserved1;
    target->version_number = version_number;
    target->current_next_indicator = current_next_indicator;
    target->section_number = section_number;
    target->last_section_number = last_section_number;
    target->reserved_future_use2 = reserved_future_use2;
    target->bouquet_descriptors_length = bouquet_descriptors_length;
    target->descriptors.clear();
    descriptors.copyTo(target->descriptors);
    target->reserved_future_use3 = reserved_future_use3;
    target->transport_stream_loop_length = transport_stream_loop_length;
    target->deleteStreams();
    for (const CBouquetAssociationStream* stream : BouquetAssociationStreamList) {
        auto copy = std::make_unique<CBouquetAssociationStream>();
        stream->copyTo(copy.get());
        target->BouquetAssociationStreamList.push_back(copy.release());
    }
    target->CRC = CRC;
}

}  // namespace mpegcore
