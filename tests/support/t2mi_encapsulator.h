#pragma once
// Builds T2-MI carriers for tests: transport streams of several PLPs cut into
// DVB-T2 baseband frames, wrapped into T2-MI packets (with timestamp,
// auxiliary and L1 packets in between), carried in TS packets on one PID that
// a PAT and PMT announce. Faults can be put in on purpose.

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "mpegcore/MpegConstants.h"

namespace vq_test {

// DVB-T2 baseband header CRC-8 (x^8+x^7+x^6+x^4+x^2+1, register 0, MSB first), bit by bit.
uint8_t crc8DvbT2(const uint8_t* data, size_t size);

// One baseband frame's data field of one PLP.
struct BBFrameData {
    uint8_t plpId = 0;
    uint16_t syncdBits = 0;  // bits before the first user packet starting in the field
    std::vector<uint8_t> dataField;
};

// Cuts the user packets of ts (188-byte packets whose sync bytes are dropped)
// into data fields of dflBytes; the last field holds what is left.
std::vector<BBFrameData> cutIntoBBFrames(uint8_t plpId, const std::vector<uint8_t>& ts, size_t dflBytes);

// T2-MI packet: 6-byte header, payload, CRC-32/MPEG-2 over both.
std::vector<uint8_t> makeT2miPacket(uint8_t packetType, uint8_t packetCount, uint8_t superframeIdx,
                                    const std::vector<uint8_t>& payload);

struct BBFrameOptions {
    uint8_t frameIdx = 0;
    uint8_t crc8Xor = 0;  // 0 normal mode, 1 high efficiency mode, others invalid
    uint8_t tsGs = 3;     // 3: transport stream
};

// T2-MI packet of type 0x00 carrying the frame (frame_idx, plp_id, BB header, data field).
std::vector<uint8_t> makeBBFramePacket(const BBFrameData& frame, uint8_t packetCount, const BBFrameOptions& options);
// T2-MI packet of type 0x20.
std::vector<uint8_t> makeTimestampPacket(uint8_t packetCount, uint8_t bw, uint64_t secondsSince2000,
                                         uint32_t subseconds, uint16_t utco);
// T2-MI packet of type 0x01.
std::vector<uint8_t> makeAuxiliaryPacket(uint8_t packetCount, uint8_t frameIdx, uint8_t auxId,
                                         const std::vector<uint8_t>& data);

// Faults on a finished T2-MI packet.
void corruptCrc32(std::vector<uint8_t>& t2miPacket);
// Rewrites payload_len (bits) and fixes the CRC-32 so that only the length is wrong.
void setPayloadLength(std::vector<uint8_t>& t2miPacket, uint16_t bits);
// Rewrites SYNCD of a baseband frame packet, fixing the CRC-8 (keeping its mode) and CRC-32.
void setSyncd(std::vector<uint8_t>& t2miPacket, uint16_t bits);

struct PlpInput {
    uint8_t plpId = 0;
    std::vector<uint8_t> ts;  // 188-byte packets
    size_t dflBytes = mpegcore::kTsPacketSizeAfterSync * 20;
};

struct CarrierOptions {
    size_t timestampEvery = 0;  // a timestamp packet after every N baseband frames (0: none)
    size_t auxiliaryEvery = 0;  // an auxiliary stream packet after every N frames
    size_t l1Every = 0;         // an L1-current packet (type 0x10) after every N frames
};

// Kind of each packet made by encapsulate, for tests that pick one to damage.
struct T2miPacketInfo {
    uint8_t packetType = 0;
    uint8_t plpId = 0;      // baseband frames only
    size_t frameOfPlp = 0;  // index of the frame within its PLP
};

// T2-MI packets for the PLPs, their frames interleaved round robin.
std::vector<std::vector<uint8_t>> encapsulate(const std::vector<PlpInput>& plps, const CarrierOptions& options,
                                              std::vector<T2miPacketInfo>* info = nullptr);

struct CarrierTsOptions {
    uint16_t pmtPid = 0x0020;
    uint16_t t2miPid = 0x0040;
    uint16_t programNumber = 1;
    // PMT streams as (stream_type, elementary_PID); empty: one stream of type 0x06 on t2miPid.
    std::vector<std::pair<uint8_t, uint16_t>> pmtStreams;
    bool packed = false;             // packets back to back, a pointer field marking each start
    size_t psiEvery = 0;             // PAT and PMT again every N carrier packets (0: only at the start)
    size_t badPointerAt = SIZE_MAX;  // T2-MI packet whose start gets a pointer field past the payload
    bool flushAtEnd = true;          // a last unit start so that the final T2-MI packet is complete
};

// A section with the long header (version 0, current, section 0 of 0), the
// body after last_section_number, and its CRC-32.
std::vector<uint8_t> makeLongSection(uint8_t tableId, uint16_t tableIdExtension, const std::vector<uint8_t>& body);
// PAT of one program, and a PMT with its streams as (stream_type, elementary_PID).
std::vector<uint8_t> makePatSection(uint16_t programNumber, uint16_t pmtPid);
std::vector<uint8_t> makePmtSection(uint16_t programNumber, const std::vector<std::pair<uint8_t, uint16_t>>& streams,
                                    uint16_t pcrPid = mpegcore::kPidNull,
                                    const std::vector<uint8_t>& programDescriptors = {});
// One TS packet; a payload shorter than 184 bytes is preceded by adaptation field stuffing.
std::vector<uint8_t> makeTsPacket(uint16_t pid, uint8_t cc, bool unitStart, const std::vector<uint8_t>& payload);
// One TS packet holding a whole section after a pointer field of 0.
std::vector<uint8_t> makeSectionPacket(uint16_t pid, uint8_t cc, const std::vector<uint8_t>& section);

// The carrier transport stream: PAT, PMT, then the T2-MI packets on t2miPid.
std::vector<uint8_t> wrapIntoTransportStream(const std::vector<std::vector<uint8_t>>& t2miPackets,
                                             const CarrierTsOptions& options);

// The 187-byte user packets (sync bytes dropped) of a transport stream, concatenated.
std::vector<uint8_t> userPacketsOf(const std::vector<uint8_t>& ts);

}  // namespace vq_test
