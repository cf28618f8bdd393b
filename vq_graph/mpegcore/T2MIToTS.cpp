#include "mpegcore/T2MIToTS.h"

#include <array>
#include <cstring>

#include "mpegcore/MpegCRC32.h"
#include "mpegcore/VQBSReader.h"

namespace mpegcore {

namespace {

constexpr uint8_t kStreamTypePrivatePES = 0x06;
constexpr uint8_t kTypeBasebandFrame = 0x00;
constexpr uint8_t kTypeAuxiliaryIQ = 0x01;
constexpr uint8_t kTypeTimestamp = 0x20;
constexpr uint8_t kTransportStreamMode = 3;  // TS/GS of a transport stream
constexpr size_t kHeaderBytes = 6;
constexpr size_t kCrcBytes = 4;
constexpr size_t kFramePrefixBytes = 3;  // frame_idx, plp_id, intl_frame_start + rfu
constexpr size_t kBBHeaderBytes = 10;
constexpr size_t kBBHeaderCrcSpan = 9;
constexpr size_t kAuxHeaderBytes = 3;

constexpr std::array<uint8_t, 256> makeCrc8Table() {
    std::array<uint8_t, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80) ? ((crc << 1) ^ 0xD5) : (crc << 1);
        table[i] = static_cast<uint8_t>(crc);
    }
    return table;
}

constexpr std::array<uint8_t, 256> g_crc8Table = makeCrc8Table();

}  // namespace

uint8_t crc8_dvb_t2(const unsigned char* data, size_t size) {
    uint8_t crc = 0;
    for (size_t i = 0; i < size; ++i)
        crc = g_crc8Table[crc ^ data[i]];
    return crc;
}

CT2MIToTS::CT2MIToTS(bool useTail)
    : CBaseMpegParser(useTail),
      m_pT2MIData(new unsigned char[max_t2mi_packet]),
      arrayTSPacket(new TSPaket[plp_count]) {}

void CT2MIToTS::Clear() {
    resetCollection();
    for (size_t plp = 0; plp < plp_count; ++plp)
        arrayTSPacket[plp].Offset = 0;
}

void CT2MIToTS::OnPMT(CBaseMpegProgram*, CPMT* pmt) {
    if (pmt->stream_map.size() != 1)
        return;
    const CBaseStreamTypeMap& stream = *pmt->stream_map.begin()->second;
    if (stream.stream_type == kStreamTypePrivatePES) {
        m_wT2MIPID = stream.elementary_PID;
        m_bIsValid = 1;
    } else {
        m_bIsValid = 0;
    }
}

void CT2MIToTS::collect(const unsigned char* data, size_t size) {
    if (m_T2MIDataLen + size >= max_t2mi_packet) {
        resetCollection();
        return;
    }
    std::memcpy(m_pT2MIData.get() + m_T2MIDataLen, data, size);
    m_T2MIDataLen += size;
}

void CT2MIToTS::OnPES(unsigned short, const CBaseStreamTypeMap*, transport_packet* packet) {
    if (!m_bIsValid || packet->PID != m_wT2MIPID || !packet->hasPayload() || packet->lCurrSizePkt <= 0)
        return;
    const unsigned char* payload = packet->pCurrDataPkt;
    size_t size = static_cast<size_t>(packet->lCurrSizePkt);
    if (!packet->payload_unit_start_indicator) {
        if (m_bT2MIDataValid)
            collect(payload, size);
        return;
    }
    const size_t pointer = payload[0];
    ++payload;
    --size;
    if (pointer > size) {
        resetCollection();
        return;
    }
    // The bytes before the pointed-at start finish the packet being collected.
    collect(payload, pointer);
    ParcerT2MI();
    m_T2MIDataLen = 0;
    collect(payload + pointer, size - pointer);
    m_bT2MIDataValid = true;
}

void CT2MIToTS::ParcerT2MI() {
    if (!m_bT2MIDataValid || m_T2MIDataLen < kHeaderBytes + kCrcBytes + 1)
        return;
    unsigned char* data = m_pT2MIData.get();
    VQSDK::VQBSReaderT<unsigned char*> reader(data, static_cast<unsigned long>(m_T2MIDataLen));
    T2MIPacket packet;
    T2MIHeader& h = packet.header;
    reader.getBits<8>(h.packet_type);
    reader.getBits<8>(h.packet_count);
    reader.getBits<4>(h.superframe_idx);
    reader.getBits<9>(h.rfu);
    reader.getBits<3>(h.t2mi_stream_id);
    reader.getBits<16>(h.payload_len);
    const size_t room = m_T2MIDataLen - kHeaderBytes - kCrcBytes;
    if (room < h.payload_len / 8u)
        return;
    // The CRC covers everything collected since the unit start, CRC field included.
    if (crc32_mpeg2(data, m_T2MIDataLen) != 0)
        return;
    const size_t payloadBytes = (h.payload_len + 7u) / 8u;
    const size_t size = payloadBytes < room ? payloadBytes : room;
    unsigned char* payload = data + kHeaderBytes;
    switch (h.packet_type) {
    case kTypeBasebandFrame: ParserBBFrame(payload, size); break;
    case kTypeTimestamp: parseTimeStamp(payload, size); break;
    case kTypeAuxiliaryIQ: parseAuxiliaryStream(payload, size); break;
    default: break;  // L1 signalling, FEF and the rest are not needed for the TS
    }
}

void CT2MIToTS::ParserBBFrame(unsigned char* payload, size_t size) {
    if (size < kFramePrefixBytes + kBBHeaderBytes)
        return;
    VQSDK::VQBSReaderT<unsigned char*> reader(payload, static_cast<unsigned long>(size));
    T2MIBBFrame frame;
    reader.getBits<8>(frame.frame_idx);
    reader.getBits<8>(frame.plp_id);
    reader.getBits<1>(frame.intl_frame_start);
    reader.getBits<7>(frame.rfu);
    const uint8_t plp = m_plp_id;
    if (frame.plp_id != plp)
        return;
    T2MIBBHeader& bb = frame.BBHeader;
    reader.getBits<2>(bb.MATYPE.TS_TG);
    reader.getBits<1>(bb.MATYPE.SIS_MIS);
    reader.getBits<1>(bb.MATYPE.CCM_ACM);
    reader.getBits<1>(bb.MATYPE.ISSYI);
    reader.getBits<1>(bb.MATYPE.NPD);
    reader.getBits<2>(bb.MATYPE.EXT);
    reader.getBits<8>(bb.MATYPE.ISI);
    reader.getBits<16>(bb.UPL);
    reader.getBits<16>(bb.DFL);
    reader.getBits<8>(bb.SYNC);
    reader.getBits<16>(bb.SYNCD);
    reader.getBits<8>(bb.CRC8);
    // XOR 0 is normal mode, 1 high efficiency mode.
    const uint8_t mode = crc8_dvb_t2(payload + kFramePrefixBytes, kBBHeaderCrcSpan) ^ bb.CRC8;
    if (mode > 1 || bb.MATYPE.TS_TG != kTransportStreamMode)
        return;
    unsigned char* field = payload + kFramePrefixBytes + kBBHeaderBytes;
    const size_t fieldSize = bb.DFL / 8u;
    if (fieldSize > size - kFramePrefixBytes - kBBHeaderBytes)
        return;
    frame.pBBFrameData = field;
    frame.lBBFrameSize = static_cast<int64_t>(fieldSize);

    TSPaket& partial = arrayTSPacket[plp];
    size_t pos = 0;
    const size_t k = bb.SYNCD / 8u;
    if (k) {
        // k of 187 with an empty partial is a whole packet that starts the field.
        if (k <= fieldSize && k <= user_packet_size && partial.Offset == user_packet_size - k) {
            std::memcpy(partial.pData.get() + partial.Offset, field, k);
            OnTS(plp, partial.pData.get(), user_packet_size);
            partial.Offset = 0;
        }
        pos = k < fieldSize ? k : fieldSize;
    }
    for (; fieldSize - pos >= user_packet_size; pos += user_packet_size)
        OnTS(plp, field + pos, user_packet_size);
    if (fieldSize > pos) {
        std::memcpy(partial.pData.get(), field + pos, fieldSize - pos);
        partial.Offset = static_cast<uint8_t>(fieldSize - pos);
    }
    OnBBFrame(&frame);
}

void CT2MIToTS::parseTimeStamp(unsigned char* payload, size_t size) {
    VQSDK::VQBSReaderT<unsigned char*> reader(payload, static_cast<unsigned long>(size));
    T2MITimeStamp stamp;
    if (reader.getBits<4>(stamp.rfu) && reader.getBits<4>(stamp.bw) &&
        reader.getBits<40>(stamp.T2_timestamp.seconds_since_2000) &&
        reader.getBits<27>(stamp.T2_timestamp.subseconds) && reader.getBits<13>(stamp.utco))
        OnTimeStamp(&stamp);
}

void CT2MIToTS::parseAuxiliaryStream(unsigned char* payload, size_t size) {
    if (size < kAuxHeaderBytes)
        return;
    VQSDK::VQBSReaderT<unsigned char*> reader(payload, static_cast<unsigned long>(size));
    T2MIAuxiliaryStream aux;
    reader.getBits<8>(aux.frame_idx);
    reader.getBits<4>(aux.aux_id);
    reader.getBits<12>(aux.rfu);
    aux.pStartAuxSreamData = payload;
    aux.lStartAuxSreamDataSize = static_cast<int64_t>(size);
    aux.pAuxSreamData = payload + kAuxHeaderBytes;
    aux.lAuxSreamDataSize = static_cast<int64_t>(size - kAuxHeaderBytes);
    OnAuxiliaryStream(&aux);
}

}  // namespace mpegcore
