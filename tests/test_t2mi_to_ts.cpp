#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "mpegcore/T2MIToTS.h"
#include "support/t2mi_encapsulator.h"
#include "support/test_data.h"

using mpegcore::CT2MIToTS;
using mpegcore::T2MIAuxiliaryStream;
using mpegcore::T2MIBBFrame;
using mpegcore::T2MITimeStamp;
using namespace vq_test;

namespace {

using Bytes = std::vector<uint8_t>;
constexpr size_t kUP = 187;

class Decapsulator : public CT2MIToTS {
public:
    explicit Decapsulator(uint8_t plp) : CT2MIToTS(true) { SetPLPID(plp); }

    void OnTS(unsigned char plp, unsigned char* data, unsigned long size) override {
        ASSERT_EQ(size, kUP);
        plps.push_back(plp);
        out.insert(out.end(), data, data + size);
    }
    void OnBBFrame(T2MIBBFrame* frame) override {
        frames.push_back(*frame);
        if (afterFrame)
            afterFrame(*this);
    }
    void OnTimeStamp(T2MITimeStamp* stamp) override { stamps.push_back(*stamp); }
    void OnAuxiliaryStream(T2MIAuxiliaryStream* aux) override {
        auxiliary.push_back(*aux);
        auxData.emplace_back(aux->pAuxSreamData, aux->pAuxSreamData + aux->lAuxSreamDataSize);
    }

    // Feeds the carrier in calls of `chunk` bytes.
    void feed(const Bytes& ts, size_t chunk = 188) {
        Bytes copy = ts;
        for (size_t pos = 0; pos < copy.size(); pos += chunk)
            Process(copy.data() + pos, static_cast<unsigned long>(std::min(chunk, copy.size() - pos)));
    }
    size_t packets() const { return out.size() / kUP; }

    Bytes out;
    std::vector<unsigned char> plps;
    std::vector<T2MIBBFrame> frames;
    std::vector<T2MITimeStamp> stamps;
    std::vector<T2MIAuxiliaryStream> auxiliary;
    std::vector<Bytes> auxData;
    std::function<void(Decapsulator&)> afterFrame;
};

// 188-byte packets of a capture, count of them from the start.
Bytes capturePackets(const std::string& name, size_t count) {
    Bytes file = readDataFile(name);
    file.resize(std::min(file.size(), count * 188));
    return file;
}

// User packets [first, last) of ts.
Bytes userPacketRange(const Bytes& ts, size_t first, size_t last) {
    const Bytes ups = userPacketsOf(ts);
    return Bytes(ups.begin() + first * kUP, ups.begin() + last * kUP);
}

Bytes carrierOf(const std::vector<Bytes>& t2mi, CarrierTsOptions options = {}) {
    return wrapIntoTransportStream(t2mi, options);
}

BBFrameData frameOf(uint8_t plp, const Bytes& field, uint16_t syncdBits) {
    BBFrameData f;
    f.plpId = plp;
    f.dataField = field;
    f.syncdBits = syncdBits;
    return f;
}

Bytes sequence(size_t n, uint8_t start) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(start + i);
    return b;
}

}  // namespace

TEST(Crc8DvbT2, TableMatchesBitwiseReference) {
    const char* check = "123456789";
    EXPECT_EQ(mpegcore::crc8_dvb_t2(reinterpret_cast<const unsigned char*>(check), 9), 0xBC);
    Bytes data = sequence(300, 7);
    for (size_t n = 0; n <= data.size(); n += 13)
        EXPECT_EQ(mpegcore::crc8_dvb_t2(data.data(), n), crc8DvbT2(data.data(), n));
}

TEST(T2MIToTS, ReferenceCarrierYieldsTheIndependentlyExtractedPackets) {
    const Bytes carrier = readDataFile("t2mi-plp102.ts");
    const Bytes reference = readDataFile("t2mi-plp102.reference-extracted.ts");
    ASSERT_EQ(reference.size(), 8386u * 188);
    Decapsulator d(102);
    d.feed(carrier, 4096);
    EXPECT_EQ(d.m_wT2MIPID, 64);
    ASSERT_EQ(d.packets(), 8392u);
    for (size_t i = 0; i < 8386; ++i)
        ASSERT_EQ(0, std::memcmp(d.out.data() + i * kUP, reference.data() + i * 188 + 1, kUP)) << "packet " << i;
    for (unsigned char plp : d.plps)
        ASSERT_EQ(plp, 102);
}

TEST(T2MIToTS, OnlyTheChosenPlpComesOutInOrderAndComplete) {
    std::vector<PlpInput> plps(3);
    plps[0] = {0, capturePackets("live-025.ts", 600), 187 * 20 + 50};
    plps[1] = {1, capturePackets("live-072.ts", 500), 3001};
    plps[2] = {7, capturePackets("live-139.ts", 300), 187 * 3};
    CarrierOptions options;
    options.timestampEvery = 4;
    options.auxiliaryEvery = 5;
    options.l1Every = 3;
    const auto t2mi = encapsulate(plps, options);
    for (bool packed : {false, true}) {
        CarrierTsOptions ts;
        ts.packed = packed;
        ts.psiEvery = 50;
        const Bytes carrier = carrierOf(t2mi, ts);
        for (size_t p = 0; p < plps.size(); ++p) {
            Decapsulator d(plps[p].plpId);
            d.feed(carrier, 1000);
            EXPECT_EQ(d.out, userPacketsOf(plps[p].ts)) << "PLP " << int(plps[p].plpId) << " packed " << packed;
            for (unsigned char plp : d.plps)
                ASSERT_EQ(plp, plps[p].plpId);
            EXPECT_EQ(d.frames.size(), cutIntoBBFrames(plps[p].plpId, plps[p].ts, plps[p].dflBytes).size());
        }
    }
}

TEST(T2MIToTS, StraddlingUserPacketsAreJoined) {
    const Bytes ts = capturePackets("live-025.ts", 400);
    const auto frames = cutIntoBBFrames(3, ts, 1000);
    size_t straddling = 0;
    for (const auto& f : frames)
        straddling += f.syncdBits != 0;
    ASSERT_GT(straddling, 50u);
    std::vector<Bytes> t2mi;
    for (size_t i = 0; i < frames.size(); ++i)
        t2mi.push_back(makeBBFramePacket(frames[i], static_cast<uint8_t>(i), {}));
    Decapsulator d(3);
    d.feed(carrierOf(t2mi));
    EXPECT_EQ(d.out, userPacketsOf(ts));
}

TEST(T2MIToTS, TimestampAndAuxiliaryPacketsAreReported) {
    std::vector<Bytes> t2mi = {makeTimestampPacket(0, 3, 0x12345678AB, 0x5ABCDEF, 0x1ABC),
                               makeAuxiliaryPacket(1, 9, 2, sequence(40, 1)),
                               makeT2miPacket(0x10, 2, 0, sequence(20, 0))};
    Decapsulator d(0);
    d.feed(carrierOf(t2mi));
    ASSERT_EQ(d.stamps.size(), 1u);
    EXPECT_EQ(d.stamps[0].bw, 3);
    EXPECT_EQ(d.stamps[0].T2_timestamp.seconds_since_2000, 0x12345678ABull);
    EXPECT_EQ(d.stamps[0].T2_timestamp.subseconds, 0x5ABCDEFull);
    EXPECT_EQ(d.stamps[0].utco, 0x1ABC);
    ASSERT_EQ(d.auxiliary.size(), 1u);
    EXPECT_EQ(d.auxiliary[0].frame_idx, 9);
    EXPECT_EQ(d.auxiliary[0].aux_id, 2);
    EXPECT_EQ(d.auxiliary[0].lStartAuxSreamDataSize, 43);
    EXPECT_EQ(d.auxData[0], sequence(40, 1));
    EXPECT_TRUE(d.out.empty());
    EXPECT_TRUE(d.frames.empty());
}

TEST(T2MIToTS, ThreeWholePacketsWithSyncdZeroLeaveNoPartial) {
    const Bytes field = sequence(kUP * 3, 0);
    Decapsulator d(0);
    d.feed(carrierOf({makeBBFramePacket(frameOf(0, field, 0), 0, {})}));
    EXPECT_EQ(d.packets(), 3u);
    EXPECT_EQ(d.out, field);
    EXPECT_EQ(d.arrayTSPacket[0].Offset, 0);
    ASSERT_EQ(d.frames.size(), 1u);
    EXPECT_EQ(d.frames[0].BBHeader.DFL, kUP * 3 * 8);
    EXPECT_EQ(d.frames[0].BBHeader.MATYPE.TS_TG, 3);
    EXPECT_EQ(d.frames[0].lBBFrameSize, int64_t(kUP * 3));
}

TEST(T2MIToTS, PartialOf100JoinsASecondFrameWithSyncd87) {
    Bytes first = sequence(kUP + 100, 0);   // one packet, then 100 bytes of the next
    Bytes second = sequence(87 + kUP, 50);  // its last 87 bytes, then one more packet
    Decapsulator d(0);
    d.feed(carrierOf(
        {makeBBFramePacket(frameOf(0, first, 0), 0, {}), makeBBFramePacket(frameOf(0, second, 87 * 8), 1, {})}));
    ASSERT_EQ(d.packets(), 3u);
    Bytes joined(first.begin() + kUP, first.end());
    joined.insert(joined.end(), second.begin(), second.begin() + 87);
    EXPECT_EQ(Bytes(d.out.begin() + kUP, d.out.begin() + 2 * kUP), joined);
    EXPECT_EQ(Bytes(d.out.begin() + 2 * kUP, d.out.end()), Bytes(second.begin() + 87, second.end()));
}

TEST(T2MIToTS, PartialOf90DoesNotJoinSyncd87) {
    Bytes first = sequence(kUP + 90, 0);
    Bytes second = sequence(87 + kUP, 50);
    Decapsulator d(0);
    d.feed(carrierOf(
        {makeBBFramePacket(frameOf(0, first, 0), 0, {}), makeBBFramePacket(frameOf(0, second, 87 * 8), 1, {})}));
    ASSERT_EQ(d.packets(), 2u);
    EXPECT_EQ(Bytes(d.out.begin() + kUP, d.out.end()), Bytes(second.begin() + 87, second.end()));
}

TEST(T2MIToTS, Syncd187WithEmptyPartialEmitsTheFirstPacket) {
    const Bytes field = sequence(kUP * 2, 10);  // the first packet starts 187 bytes in
    Decapsulator d(0);
    d.feed(carrierOf({makeBBFramePacket(frameOf(0, field, kUP * 8), 0, {})}));
    ASSERT_EQ(d.packets(), 2u);
    EXPECT_EQ(d.out, field);
    EXPECT_EQ(d.arrayTSPacket[0].Offset, 0);
}

TEST(T2MIToTS, Syncd187WithAPartialHeldEmitsNoJoin) {
    Bytes first = sequence(kUP + 100, 0);
    const Bytes second = sequence(kUP * 2, 10);
    Decapsulator d(0);
    d.feed(carrierOf(
        {makeBBFramePacket(frameOf(0, first, 0), 0, {}), makeBBFramePacket(frameOf(0, second, kUP * 8), 1, {})}));
    ASSERT_EQ(d.packets(), 2u);  // 100 + 187 is not 187
    EXPECT_EQ(Bytes(d.out.begin() + kUP, d.out.end()), Bytes(second.begin() + kUP, second.end()));
}

TEST(T2MIToTS, Syncd187BeyondAShortFieldEmitsNothing) {
    const Bytes field = sequence(100, 10);  // k is larger than the field
    Decapsulator d(0);
    d.feed(carrierOf({makeBBFramePacket(frameOf(0, field, kUP * 8), 0, {})}));
    EXPECT_EQ(d.packets(), 0u);
    EXPECT_EQ(d.frames.size(), 1u);
}

TEST(T2MIToTS, HeaderCrc8XorOneIsAcceptedAndTwoRejected) {
    const Bytes field = sequence(kUP, 0);
    for (uint8_t mode : {0, 1, 2, 0x80}) {
        BBFrameOptions o;
        o.crc8Xor = mode;
        Decapsulator d(0);
        d.feed(carrierOf({makeBBFramePacket(frameOf(0, field, 0), 0, o)}));
        EXPECT_EQ(d.packets(), mode <= 1 ? 1u : 0u) << "CRC-8 XOR " << int(mode);
    }
}

TEST(T2MIToTS, FrameThatIsNotTransportStreamIsDropped) {
    BBFrameOptions o;
    o.tsGs = 0;  // generic packetised
    Decapsulator d(0);
    d.feed(carrierOf({makeBBFramePacket(frameOf(0, sequence(kUP, 0), 0), 0, o)}));
    EXPECT_EQ(d.packets(), 0u);
    EXPECT_TRUE(d.frames.empty());
}

TEST(T2MIToTS, FrameOfAnotherPlpYieldsNothing) {
    Decapsulator d(0);
    d.feed(carrierOf({makeBBFramePacket(frameOf(1, sequence(kUP * 2, 0), 0), 0, {})}));
    EXPECT_EQ(d.packets(), 0u);
    EXPECT_TRUE(d.frames.empty());
}

TEST(T2MIToTS, Plp255IsHandled) {
    Decapsulator d(255);
    d.feed(carrierOf({makeBBFramePacket(frameOf(255, sequence(kUP + 10, 0), 0), 0, {})}));
    EXPECT_EQ(d.packets(), 1u);
    EXPECT_EQ(d.arrayTSPacket[255].Offset, 10);
}

namespace {

// A PLP whose frames hold whole user packets, so every frame stands alone.
struct AlignedPlp {
    Bytes ts = capturePackets("live-072.ts", 120);
    static constexpr size_t perFrame = 6;
    std::vector<Bytes> t2mi = encapsulate({{0, ts, kUP* perFrame}}, {});
    size_t frames() const { return t2mi.size(); }
    // Every user packet except those of the given frames.
    Bytes without(std::vector<size_t> lost) const {
        Bytes expected;
        for (size_t f = 0; f < frames(); ++f)
            if (std::find(lost.begin(), lost.end(), f) == lost.end()) {
                const Bytes part = userPacketRange(ts, f * perFrame, (f + 1) * perFrame);
                expected.insert(expected.end(), part.begin(), part.end());
            }
        return expected;
    }
};

}  // namespace

TEST(T2MIToTS, CorruptedCrc32DropsExactlyOneT2miPacket) {
    AlignedPlp plp;
    ASSERT_EQ(plp.frames(), 20u);
    auto t2mi = plp.t2mi;
    corruptCrc32(t2mi[7]);
    Decapsulator d(0);
    d.feed(carrierOf(t2mi));
    EXPECT_EQ(d.frames.size(), 19u);
    EXPECT_EQ(d.out, plp.without({7}));
}

TEST(T2MIToTS, PayloadLengthBeyondTheDataDropsThePacket) {
    AlignedPlp plp;
    auto t2mi = plp.t2mi;
    setPayloadLength(t2mi[4], static_cast<uint16_t>((t2mi[4].size() - 10 + 1) * 8));
    Decapsulator d(0);
    d.feed(carrierOf(t2mi));
    EXPECT_EQ(d.out, plp.without({4}));
}

TEST(T2MIToTS, PointerFieldPastThePayloadResetsTheCollection) {
    AlignedPlp plp;
    CarrierTsOptions options;
    options.badPointerAt = 10;
    Decapsulator d(0);
    d.feed(carrierOf(plp.t2mi, options));
    // The packet being collected and the one whose start was announced are both lost.
    EXPECT_EQ(d.out, plp.without({9, 10}));
}

TEST(T2MIToTS, TrailingBytesAfterATmiPacketFailItsCrc) {
    AlignedPlp plp;
    auto t2mi = plp.t2mi;
    t2mi[3].push_back(0xFF);  // stuffing the wrapper carries as if it belonged to the packet
    Decapsulator d(0);
    d.feed(carrierOf(t2mi));
    EXPECT_EQ(d.out, plp.without({3}));
}

TEST(T2MIToTS, LostFrameLeavesASyncdMismatchAndNoJoinedPacket) {
    const Bytes ts = capturePackets("live-025.ts", 200);
    const size_t dfl = 1000;
    auto t2mi = encapsulate({{0, ts, dfl}}, {});
    const size_t lost = 5;
    corruptCrc32(t2mi[lost]);
    Decapsulator d(0);
    d.feed(carrierOf(t2mi));
    // Every user packet that does not touch the lost frame's bytes comes out.
    Bytes expected;
    const Bytes ups = userPacketsOf(ts);
    for (size_t i = 0; i < ups.size() / kUP; ++i) {
        const size_t begin = i * kUP, end = begin + kUP;
        if (end <= lost * dfl || begin >= (lost + 1) * dfl)
            expected.insert(expected.end(), ups.begin() + begin, ups.begin() + end);
    }
    EXPECT_EQ(d.out, expected);
}

TEST(T2MIToTS, CorruptedSyncdBreaksTheJoinAndShiftsTheCut) {
    Bytes first = sequence(kUP + 100, 0);
    Bytes second = sequence(87 + kUP, 50);
    auto packet = makeBBFramePacket(frameOf(0, second, 87 * 8), 1, {});
    setSyncd(packet, 86 * 8);
    Decapsulator d(0);
    d.feed(carrierOf({makeBBFramePacket(frameOf(0, first, 0), 0, {}), packet}));
    // 100 + 86 is not 187: no join; the cut starts 86 bytes in.
    ASSERT_EQ(d.packets(), 2u);
    EXPECT_EQ(Bytes(d.out.begin() + kUP, d.out.end()), Bytes(second.begin() + 86, second.begin() + 86 + kUP));
    EXPECT_EQ(d.arrayTSPacket[0].Offset, 1);
}

TEST(T2MIToTS, PlpSwitchMidStreamTakesEffectAtTheNextFrame) {
    const Bytes a = capturePackets("live-025.ts", 300);
    const Bytes b = capturePackets("live-072.ts", 300);
    const size_t dflA = 1100, dflB = 900;
    const auto t2mi = encapsulate({{4, a, dflA}, {5, b, dflB}}, {});
    Decapsulator d(4);
    const size_t switchAfter = 10;  // after the 11th frame of PLP 4
    d.afterFrame = [&](Decapsulator& self) {
        if (self.frames.size() == switchAfter + 1)
            self.SetPLPID(5);
    };
    d.feed(carrierOf(t2mi));
    const size_t aPackets = (switchAfter + 1) * dflA / kUP;      // complete within the frames taken
    const size_t bFirst = (switchAfter * dflB + kUP - 1) / kUP;  // first packet starting in frame 10 of PLP 5
    Bytes expected = userPacketRange(a, 0, aPackets);
    const Bytes restOfB = userPacketRange(b, bFirst, b.size() / 188);
    expected.insert(expected.end(), restOfB.begin(), restOfB.end());
    EXPECT_EQ(d.out, expected);
    EXPECT_EQ(d.plps.front(), 4);
    EXPECT_EQ(d.plps.back(), 5);
}

TEST(T2MIToTS, PmtDecidesTheT2miPid) {
    AlignedPlp plp;
    CarrierTsOptions options;
    options.t2miPid = 0x55;
    const Bytes carrier = carrierOf(plp.t2mi, options);
    Decapsulator d(0);
    EXPECT_FALSE(d.m_bIsValid);
    d.feed(carrier);
    EXPECT_TRUE(d.m_bIsValid);
    EXPECT_EQ(d.m_wT2MIPID, 0x55);
    const size_t before = d.packets();

    // Two streams: ignored, the PID stays.
    Bytes pmt = makeSectionPacket(options.pmtPid, 1, makePmtSection(1, {{0x06, 0x56}, {0x02, 0x57}}));
    d.feed(pmt);
    EXPECT_TRUE(d.m_bIsValid);
    EXPECT_EQ(d.m_wT2MIPID, 0x55);

    // One stream of another type: validity cleared, the carrier no longer decoded.
    pmt = makeSectionPacket(options.pmtPid, 2, makePmtSection(1, {{0x1B, 0x55}}));
    d.feed(pmt);
    EXPECT_FALSE(d.m_bIsValid);
    d.feed(Bytes(carrier.begin() + 2 * 188, carrier.end()));  // the carrier without its PAT and PMT
    EXPECT_EQ(d.packets(), before);
}

TEST(T2MIToTS, NothingIsDecodedWithoutAPmt) {
    AlignedPlp plp;
    CarrierTsOptions options;
    options.pmtStreams = {{0x06, 0x40}, {0x06, 0x41}};  // two streams: never taken
    Decapsulator d(0);
    d.feed(carrierOf(plp.t2mi, options));
    EXPECT_FALSE(d.m_bIsValid);
    EXPECT_EQ(d.packets(), 0u);
}

TEST(T2MIToTS, ClearForgetsCollectionAndPartials) {
    Bytes first = sequence(kUP + 100, 0);
    Bytes second = sequence(87 + kUP, 50);
    CarrierTsOptions noFlush;
    noFlush.flushAtEnd = false;
    Decapsulator d(0);
    d.feed(carrierOf({makeBBFramePacket(frameOf(0, first, 0), 0, {}), makeBBFramePacket(frameOf(0, first, 0), 1, {})},
                     noFlush));
    EXPECT_EQ(d.arrayTSPacket[0].Offset, 100);
    EXPECT_TRUE(d.m_bT2MIDataValid);
    d.Clear();
    EXPECT_EQ(d.arrayTSPacket[0].Offset, 0);
    EXPECT_FALSE(d.m_bT2MIDataValid);
    EXPECT_EQ(d.m_T2MIDataLen, 0u);
    EXPECT_TRUE(d.m_bIsValid) << "the parser's state is kept";
}

TEST(T2MIToTS, OverlongCollectionIsReset) {
    AlignedPlp plp;
    Bytes carrier = carrierOf(plp.t2mi);
    // After the first T2-MI packet starts, 400 packets without a unit start overflow the buffer.
    Bytes junk;
    for (uint8_t i = 0; i < 200; ++i) {
        Bytes p = makeTsPacket(0x40, 0, false, Bytes(184, i));
        junk.insert(junk.end(), p.begin(), p.end());
    }
    const size_t firstStart = 2 * 188;  // PAT, PMT, then the first carrier packet
    Bytes stream(carrier.begin(), carrier.begin() + firstStart + 188);
    stream.insert(stream.end(), junk.begin(), junk.end());
    stream.insert(stream.end(), junk.begin(), junk.end());
    stream.insert(stream.end(), carrier.begin() + firstStart + 188, carrier.end());
    Decapsulator d(0);
    d.feed(stream);
    EXPECT_EQ(d.out, plp.without({0}));
}
