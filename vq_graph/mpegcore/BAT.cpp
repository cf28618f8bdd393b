#include "mpegcore/BAT.h"

#include <memory>

#include "mpegcore/MpegMisc.h"
#include "mpegcore/TransportStreamLoop.h"

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

uint16_t CBouquetAssociationStream::getSize() const { return static_cast<uint16_t>(6 + descriptors.getSize()); }

CBAT::~CBAT() { deleteStreams(); }

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
    if (!(readLongHeader(reader, bouquet_id, *this) && reader.getBits<4>(reserved_future_use2) &&
          reader.getBits<12>(bouquet_descriptors_length)))
        return false;
    if (bouquet_descriptors_length != 0 &&
        CMpegMisc::read_descriptor_loop(reader, bouquet_descriptors_length, descriptors) != CMpegMisc::loop_result::ok)
        return false;
    if (!(reader.getBits<4>(reserved_future_use3) && reader.getBits<12>(transport_stream_loop_length)))
        return false;
    // Each entry's descriptors go to the table's own list, after the bouquet's.
    const bool loopRead = CTransportStreamLoop::read(transport_stream_loop_length, [&] {
        auto stream = std::make_unique<CBouquetAssociationStream>();
        if (!CTransportStreamLoop::readEntry(reader, *stream, stream->transport_descriptors_length, descriptors, true))
            return -1;
        const int descriptorsLength = stream->transport_descriptors_length;
        BouquetAssociationStreamList.push_back(stream.release());
        return descriptorsLength;
    });
    return loopRead && reader.getBits<32>(CRC);
}

uint16_t CBAT::calc_transport_stream_loop_length() const {
    return CTransportStreamLoop::length(BouquetAssociationStreamList);
}

uint16_t CBAT::calc_section_length() const {
    return static_cast<uint16_t>(13 + descriptors.getSize() + calc_transport_stream_loop_length());
}

bool CBAT::RenderTable() {
    VQSDK::VQBSWriterT<unsigned char*> writer(m_pDataTable, m_lMaxSize);
    write(writer);
    writeLongHeader(writer, bouquet_id, *this);
    CMpegMisc::put_bits<4>(writer, reserved_future_use2);
    bouquet_descriptors_length = descriptors.getSize();
    CMpegMisc::put_bits<12>(writer, bouquet_descriptors_length);
    descriptors.write(writer);
    CMpegMisc::put_bits<4>(writer, reserved_future_use3);
    transport_stream_loop_length = calc_transport_stream_loop_length();
    CMpegMisc::put_bits<12>(writer, transport_stream_loop_length);
    for (CBouquetAssociationStream* stream : BouquetAssociationStreamList)
        CTransportStreamLoop::writeEntry(writer, *stream, stream->transport_descriptors_length);
    return finishRender(writer, CRC);
}

void CBAT::copyTo(CBAT* target) const {
    copyLongHeader(*this, *target);
    target->bouquet_id = bouquet_id;
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
