#include "support/t2mi_encapsulator.h"

#include <algorithm>

#include "mpegcore/MpegCRC32.h"
#include "mpegcore/MpegConstants.h"

namespace vq_test {

namespace {

using mpegcore::kSyncByte;
using mpegcore::kTsPacketSize;
using mpegcore::kTsPacketSizeAfterSync;

constexpr size_t kHeader = 6;
constexpr size_t kBBHeader = 10;
constexpr size_t kFramePrefix = 3;  // frame_idx, plp_id, intl_frame_start + rfu

void putBE16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

void putCrc32(std::vector<uint8_t>& out) {
    const uint32_t crc = mpegcore::crc32_mpeg2(out.data(), out.size());
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(crc >> shift));
}

// Recomputes the trailing CRC-32 of a T2-MI packet or section.
void fixCrc32(std::vector<uint8_t>& bytes) {
    bytes.resize(bytes.size() - 4);
    putCrc32(bytes);
}

}  // namespace

uint8_t crc8DvbT2(const uint8_t* data, size_t size) {
    uint8_t crc = 0;
    for (size_t i = 0; i < size; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool in = ((data[i] >> bit) & 1) != 0;
            const bool top = (crc & 0x80) != 0;
            crc = static_cast<uint8_t>(crc << 1);
            if (in != top)
                crc ^= 0xD5;
        }
    }
    return crc;
}

std::vector<uint8_t> userPacketsOf(const std::vector<uint8_t>& ts) {
    std::vector<uint8_t> out;
    out.reserve(ts.size() / kTsPacketSize * kTsPacketSizeAfterSync);
    for (size_t pos = 0; pos + kTsPacketSize <= ts.size(); pos += kTsPacketSize)
        out.insert(out.end(), ts.begin() + pos + 1, ts.begin() + pos + kTsPacketSize);
    return out;
}

std::vector<BBFrameData> cutIntoBBFrames(uint8_t plpId, const std::vector<uint8_t>& ts, size_t dflBytes) {
    const std::vector<uint8_t> ups = userPacketsOf(ts);
    std::vector<BBFrameData> frames;
    for (size_t pos = 0; pos < ups.size(); pos += dflBytes) {
        BBFrameData frame;
        frame.plpId = plpId;
        const size_t n = std::min(dflBytes, ups.size() - pos);
        frame.dataField.assign(ups.begin() + pos, ups.begin() + pos + n);
        const size_t intoPacket = pos % kTsPacketSizeAfterSync;
        const size_t toStart = intoPacket ? kTsPacketSizeAfterSync - intoPacket : 0;
        frame.syncdBits = toStart < n ? static_cast<uint16_t>(toStart * 8) : 0xFFFF;
        frames.push_back(std::move(frame));
    }
    return frames;
}

std::vector<uint8_t> makeT2miPacket(uint8_t packetType, uint8_t packetCount, uint8_t superframeIdx,
                                    const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> out;
    out.reserve(kHeader + payload.size() + 4);
    out.push_back(packetType);
    out.push_back(packetCount);
    out.push_back(static_cast<uint8_t>(superframeIdx << 4));
    out.push_back(0);  // rfu, t2mi_stream_id 0
    putBE16(out, static_cast<uint16_t>(payload.size() * 8));
    out.insert(out.end(), payload.begin(), payload.end());
    putCrc32(out);
    return out;
}

std::vector<uint8_t> makeBBFramePacket(const BBFrameData& frame, uint8_t packetCount, const BBFrameOptions& options) {
    std::vector<uint8_t> payload;
    payload.reserve(kFramePrefix + kBBHeader + frame.dataField.size());
    payload.push_back(options.frameIdx);
    payload.push_back(frame.plpId);
    payload.push_back(0x80);  // intl_frame_start 1, rfu 0
    // MATYPE: TS/GS, multiple input streams, CCM, no ISSY, no NPD; ISI = PLP id.
    payload.push_back(static_cast<uint8_t>(options.tsGs << 6 | 1 << 4));
    payload.push_back(frame.plpId);
    putBE16(payload, static_cast<uint16_t>(kTsPacketSize * 8));  // UPL
    putBE16(payload, static_cast<uint16_t>(frame.dataField.size() * 8));
    payload.push_back(kSyncByte);  // SYNC
    putBE16(payload, frame.syncdBits);
    payload.push_back(static_cast<uint8_t>(crc8DvbT2(payload.data() + kFramePrefix, 9) ^ options.crc8Xor));
    payload.insert(payload.end(), frame.dataField.begin(), frame.dataField.end());
    return makeT2miPacket(0x00, packetCount, 0, payload);
}

std::vector<uint8_t> makeTimestampPacket(uint8_t packetCount, uint8_t bw, uint64_t secondsSince2000,
                                         uint32_t subseconds, uint16_t utco) {
    std::vector<uint8_t> payload;
    payload.push_back(bw & 0x0F);  // rfu 0, bw
    for (int shift = 32; shift >= 0; shift -= 8)
        payload.push_back(static_cast<uint8_t>(secondsSince2000 >> shift));
    const uint64_t tail = (uint64_t(subseconds & 0x7FFFFFF) << 13) | (utco & 0x1FFF);  // 40 bits
    for (int shift = 32; shift >= 0; shift -= 8)
        payload.push_back(static_cast<uint8_t>(tail >> shift));
    return makeT2miPacket(0x20, packetCount, 0, payload);
}

std::vector<uint8_t> makeAuxiliaryPacket(uint8_t packetCount, uint8_t frameIdx, uint8_t auxId,
                                         const std::vector<uint8_t>& data) {
    std::vector<uint8_t> payload;
    payload.push_back(frameIdx);
    payload.push_back(static_cast<uint8_t>(auxId << 4));  // aux_id, rfu 0
    payload.push_back(0);
    payload.insert(payload.end(), data.begin(), data.end());
    return makeT2miPacket(0x01, packetCount, 0, payload);
}

void corruptCrc32(std::vector<uint8_t>& t2miPacket) { t2miPacket.back() ^= 0x01; }

void setPayloadLength(std::vector<uint8_t>& t2miPacket, uint16_t bits) {
    t2miPacket[4] = static_cast<uint8_t>(bits >> 8);
    t2miPacket[5] = static_cast<uint8_t>(bits);
    fixCrc32(t2miPacket);
}

void setSyncd(std::vector<uint8_t>& t2miPacket, uint16_t bits) {
    uint8_t* bb = t2miPacket.data() + kHeader + kFramePrefix;
    const uint8_t mode = static_cast<uint8_t>(bb[9] ^ crc8DvbT2(bb, 9));
    bb[7] = static_cast<uint8_t>(bits >> 8);
    bb[8] = static_cast<uint8_t>(bits);
    bb[9] = static_cast<uint8_t>(crc8DvbT2(bb, 9) ^ mode);
    fixCrc32(t2miPacket);
}

std::vector<std::vector<uint8_t>> encapsulate(const std::vector<PlpInput>& plps, const CarrierOptions& options,
                                              std::vector<T2miPacketInfo>* info) {
    std::vector<std::vector<BBFrameData>> frames;
    size_t rounds = 0;
    for (const auto& plp : plps) {
        frames.push_back(cutIntoBBFrames(plp.plpId, plp.ts, plp.dflBytes));
        rounds = std::max(rounds, frames.back().size());
    }
    std::vector<std::vector<uint8_t>> packets;
    uint8_t count = 0;
    size_t framesMade = 0;
    auto add = [&](std::vector<uint8_t> packet, const T2miPacketInfo& what) {
        packets.push_back(std::move(packet));
        if (info)
            info->push_back(what);
        ++count;
    };
    for (size_t round = 0; round < rounds; ++round) {
        for (size_t p = 0; p < frames.size(); ++p) {
            if (round >= frames[p].size())
                continue;
            BBFrameOptions frameOptions;
            frameOptions.frameIdx = static_cast<uint8_t>(round);
            add(makeBBFramePacket(frames[p][round], count, frameOptions), {0x00, frames[p][round].plpId, round});
            ++framesMade;
            if (options.timestampEvery && framesMade % options.timestampEvery == 0)
                add(makeTimestampPacket(count, 2, 600000000 + framesMade, static_cast<uint32_t>(framesMade * 1000), 37),
                    {0x20, 0, 0});
            if (options.auxiliaryEvery && framesMade % options.auxiliaryEvery == 0)
                add(makeAuxiliaryPacket(count, static_cast<uint8_t>(round), 1, std::vector<uint8_t>(40, 0x5A)),
                    {0x01, 0, 0});
            if (options.l1Every && framesMade % options.l1Every == 0)
                add(makeT2miPacket(0x10, count, 0, std::vector<uint8_t>(30, 0x47)), {0x10, 0, 0});
        }
    }
    return packets;
}

std::vector<uint8_t> makeLongSection(uint8_t tableId, uint16_t tableIdExtension, const std::vector<uint8_t>& body) {
    const uint16_t length = static_cast<uint16_t>(5 + body.size() + 4);
    std::vector<uint8_t> s = {tableId};
    putBE16(s, static_cast<uint16_t>(0xB000 | length));
    putBE16(s, tableIdExtension);
    s.insert(s.end(), {0xC1, 0x00, 0x00});  // version 0, current, section 0 of 0
    s.insert(s.end(), body.begin(), body.end());
    putCrc32(s);
    return s;
}

std::vector<uint8_t> makePatSection(uint16_t programNumber, uint16_t pmtPid) {
    std::vector<uint8_t> body;
    putBE16(body, programNumber);
    putBE16(body, static_cast<uint16_t>(0xE000 | pmtPid));
    return makeLongSection(0x00, 1, body);
}

std::vector<uint8_t> makePmtSection(uint16_t programNumber, const std::vector<std::pair<uint8_t, uint16_t>>& streams,
                                    uint16_t pcrPid, const std::vector<uint8_t>& programDescriptors) {
    std::vector<uint8_t> body;
    putBE16(body, static_cast<uint16_t>(0xE000 | pcrPid));
    putBE16(body, static_cast<uint16_t>(0xF000 | programDescriptors.size()));
    body.insert(body.end(), programDescriptors.begin(), programDescriptors.end());
    for (const auto& stream : streams) {
        body.push_back(stream.first);
        putBE16(body, static_cast<uint16_t>(0xE000 | stream.second));
        putBE16(body, 0xF000);
    }
    return makeLongSection(0x02, programNumber, body);
}

std::vector<uint8_t> makeTsPacket(uint16_t pid, uint8_t cc, bool unitStart, const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> p = {0x47, static_cast<uint8_t>((unitStart ? 0x40 : 0) | (pid >> 8)),
                              static_cast<uint8_t>(pid)};
    const size_t n = std::min<size_t>(payload.size(), 184);
    if (n == 184) {
        p.push_back(static_cast<uint8_t>(0x10 | (cc & 0x0F)));
    } else {
        p.push_back(static_cast<uint8_t>(0x30 | (cc & 0x0F)));
        const size_t afLength = 183 - n;
        p.push_back(static_cast<uint8_t>(afLength));
        if (afLength) {
            p.push_back(0x00);
            p.insert(p.end(), afLength - 1, 0xFF);
        }
    }
    p.insert(p.end(), payload.begin(), payload.begin() + n);
    return p;
}

std::vector<uint8_t> makeSectionPacket(uint16_t pid, uint8_t cc, const std::vector<uint8_t>& section) {
    std::vector<uint8_t> payload = {0x00};
    payload.insert(payload.end(), section.begin(), section.end());
    payload.resize(184, 0xFF);
    return makeTsPacket(pid, cc, true, payload);
}

std::vector<uint8_t> wrapIntoTransportStream(const std::vector<std::vector<uint8_t>>& t2miPackets,
                                             const CarrierTsOptions& options) {
    std::vector<uint8_t> stream;
    std::vector<size_t> starts;
    for (const auto& packet : t2miPackets) {
        starts.push_back(stream.size());
        stream.insert(stream.end(), packet.begin(), packet.end());
    }
    std::vector<std::pair<uint8_t, uint16_t>> streams = options.pmtStreams;
    if (streams.empty())
        streams.push_back({0x06, options.t2miPid});
    const std::vector<uint8_t> pat = makePatSection(options.programNumber, options.pmtPid);
    const std::vector<uint8_t> pmt = makePmtSection(options.programNumber, streams);

    std::vector<uint8_t> out;
    uint8_t patCc = 0, pmtCc = 0, cc = 0;
    auto append = [&out](const std::vector<uint8_t>& packet) { out.insert(out.end(), packet.begin(), packet.end()); };
    auto putPsi = [&] {
        append(makeSectionPacket(0x0000, patCc++, pat));
        append(makeSectionPacket(options.pmtPid, pmtCc++, pmt));
    };
    putPsi();

    size_t pos = 0, next = 0, carrierPackets = 0;
    auto limit = [&](size_t j) { return j < starts.size() ? starts[j] : stream.size(); };
    while (pos < stream.size()) {
        std::vector<uint8_t> payload;
        bool unitStart = false;
        const bool startHere = next < starts.size() && starts[next] == pos;
        const bool startInside = options.packed && next < starts.size() && starts[next] - pos < 183;
        if (startHere || startInside) {
            const size_t pointer = starts[next] - pos;
            payload.push_back(next == options.badPointerAt ? 184 : static_cast<uint8_t>(pointer));
            ++next;
            const size_t take = std::min<size_t>(183, limit(next) - pos);
            payload.insert(payload.end(), stream.begin() + pos, stream.begin() + pos + take);
            pos += take;
            unitStart = true;
        } else {
            const size_t take = std::min<size_t>(184, limit(next) - pos);
            payload.assign(stream.begin() + pos, stream.begin() + pos + take);
            pos += take;
        }
        append(makeTsPacket(options.t2miPid, cc++, unitStart, payload));
        ++carrierPackets;
        if (options.psiEvery && carrierPackets % options.psiEvery == 0)
            putPsi();
    }
    if (options.flushAtEnd) {
        std::vector<uint8_t> payload(184, 0xFF);
        payload[0] = 0;  // pointer field: a unit starts right here
        append(makeTsPacket(options.t2miPid, cc++, true, payload));
    }
    return out;
}

}  // namespace vq_test
