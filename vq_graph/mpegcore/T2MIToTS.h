#pragma once
// T2-MI decapsulation (ETSI TS 102 773): finds the T2-MI PID through the PAT
// and PMT, collects T2-MI packets between payload unit starts, checks them,
// and rebuilds the transport packets of one PLP from its DVB-T2 baseband
// frames (ETSI EN 302 755), each reported to OnTS without its sync byte.

#include <cstdint>
#include <memory>

#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/MpegConstants.h"

namespace mpegcore {

struct T2MIHeader {
    uint8_t packet_type = 0;
    uint8_t packet_count = 0;
    uint8_t superframe_idx = 0;
    uint16_t rfu = 0;
    uint8_t t2mi_stream_id = 0;
    uint16_t payload_len = 0;  // bits
};

struct T2MIPacket {
    T2MIHeader header;
    uint32_t crc32 = 0;
};

struct T2MIMATYPE {
    uint8_t TS_TG = 0;  // TS/GS
    uint8_t SIS_MIS = 0;
    uint8_t CCM_ACM = 0;
    uint8_t ISSYI = 0;
    uint8_t NPD = 0;
    uint8_t EXT = 0;
    uint8_t ISI = 0;
};

struct T2MIBBHeader {
    T2MIMATYPE MATYPE;
    uint16_t UPL = 0;  // bits
    uint16_t DFL = 0;  // bits
    uint8_t SYNC = 0;
    uint16_t SYNCD = 0;  // bits
    uint8_t CRC8 = 0;
};

struct T2MIBBFrame {
    uint8_t frame_idx = 0;
    uint8_t plp_id = 0;
    uint8_t intl_frame_start = 0;
    uint8_t rfu = 0;
    T2MIBBHeader BBHeader;
    unsigned char* pBBFrameData = nullptr;  // the data field
    int64_t lBBFrameSize = 0;
};

struct T2MITimeStamp {
    struct timestamp {
        uint64_t seconds_since_2000 = 0;  // 40 bits
        uint64_t subseconds = 0;          // 27 bits
    };
    uint8_t rfu = 0;
    uint8_t bw = 0;
    timestamp T2_timestamp;
    uint16_t utco = 0;
};

struct T2MIAuxiliaryStream {
    uint8_t frame_idx = 0;
    uint8_t aux_id = 0;
    uint16_t rfu = 0;
    unsigned char* pStartAuxSreamData = nullptr;  // the whole payload
    int64_t lStartAuxSreamDataSize = 0;
    unsigned char* pAuxSreamData = nullptr;  // after frame_idx, aux_id and rfu
    int64_t lAuxSreamDataSize = 0;
};

// CRC-8 of DVB-T2 baseband headers: x^8+x^7+x^6+x^4+x^2+1, register 0, MSB first.
uint8_t crc8_dvb_t2(const unsigned char* data, size_t size);

class CT2MIToTS : private CBaseMpegParser {
public:
    static constexpr size_t user_packet_size = kTsPacketSizeAfterSync;  // a TS packet without its sync byte
    static constexpr size_t max_t2mi_packet = 65535;
    static constexpr size_t plp_count = 256;

    // One PLP's user packet that began in an earlier baseband frame.
    struct TSPaket {
        std::unique_ptr<unsigned char[]> pData{new unsigned char[user_packet_size]};
        uint8_t Offset = 0;
    };

    explicit CT2MIToTS(bool useTail);
    ~CT2MIToTS() override = default;

    using CBaseMpegParser::Process;
    // Takes effect with the next baseband frame; a plain byte store.
    void SetPLPID(unsigned char plp) { m_plp_id = plp; }
    // Forgets the packet being collected and every PLP's partial packet.
    void Clear() override;

    virtual void OnTS(unsigned char /*plp_id*/, unsigned char* /*data*/, unsigned long /*size*/) {}
    virtual void OnBBFrame(T2MIBBFrame*) {}
    virtual void OnTimeStamp(T2MITimeStamp*) {}
    virtual void OnAuxiliaryStream(T2MIAuxiliaryStream*) {}

    volatile BOOL m_bIsValid = 0;
    uint16_t m_wT2MIPID = 0;
    volatile uint8_t m_plp_id = 0;
    std::unique_ptr<unsigned char[]> m_pT2MIData;
    size_t m_T2MIDataLen = 0;
    bool m_bT2MIDataValid = false;
    std::unique_ptr<TSPaket[]> arrayTSPacket;

protected:
    using CBaseMpegParser::OnPES;
    void OnPAT(CPAT*) override {}
    // A PMT of exactly one stream: type 0x06 makes its PID the T2-MI PID,
    // any other type clears validity.
    void OnPMT(CBaseMpegProgram* program, CPMT* pmt) override;
    // Collects the payload of the T2-MI PID between payload unit starts.
    void OnPES(unsigned short pmtPid, const CBaseStreamTypeMap* stream, transport_packet* packet) override;

    // Checks and dispatches the collected T2-MI packet.
    void ParcerT2MI();
    // Rebuilds the user packets of one baseband frame payload.
    void ParserBBFrame(unsigned char* payload, size_t size);

private:
    void resetCollection() {
        m_T2MIDataLen = 0;
        m_bT2MIDataValid = false;
    }
    // Appends when the total stays below max_t2mi_packet; resets the collection otherwise.
    void collect(const unsigned char* data, size_t size);
    void parseTimeStamp(unsigned char* payload, size_t size);
    void parseAuxiliaryStream(unsigned char* payload, size_t size);
};

}  // namespace mpegcore
