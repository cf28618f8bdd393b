#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "mpegcore/vq_mpegts_sync.h"
#include "support/test_data.h"

using mpegcore::vq_mpegts_accum;
using mpegcore::vq_mpegts_sync;

namespace {

struct Delivered {
    uint64_t time;
    std::vector<uint8_t> bytes;
    const uint8_t* where;
};

// Collects what a synchroniser delivers.
struct Sink {
    std::vector<Delivered> packets;
    vq_mpegts_sync sync{[this](unsigned long t, unsigned char* p, unsigned long n) {
        packets.push_back({t, std::vector<uint8_t>(p, p + n), p});
    }};
};

// count packets of `size` bytes: sync byte, index in bytes 1..2, filler that never holds 0x47.
std::vector<uint8_t> makePackets(size_t count, size_t size = 188, uint8_t filler = 0x11) {
    std::vector<uint8_t> data(count * size, filler);
    for (size_t i = 0; i < count; ++i) {
        data[i * size] = 0x47;
        data[i * size + 1] = static_cast<uint8_t>(i >> 8);
        data[i * size + 2] = static_cast<uint8_t>(i);
    }
    return data;
}

// Pushes data cut into frames of frameSize bytes; the frame's span is 1000 ns per byte.
void pushInFrames(vq_mpegts_sync& sync, std::vector<uint8_t>& data, size_t frameSize) {
    for (size_t pos = 0; pos < data.size(); pos += frameSize) {
        const size_t n = std::min(frameSize, data.size() - pos);
        sync.push_data(pos * 1000, (pos + n) * 1000, data.data() + pos, n);
    }
}

// A synchroniser that checks it delivers the 188-byte packets of `expected` in order.
struct InOrder {
    explicit InOrder(const std::vector<uint8_t>& packets) : expected(packets) {}
    bool allDelivered() const { return same && index == expected.size() / 188; }

    const std::vector<uint8_t>& expected;
    size_t index = 0;
    bool same = true;
    vq_mpegts_sync sync{[this](unsigned long, unsigned char* p, unsigned long n) {
        same = same && n == 188 && (index + 1) * 188 <= expected.size() &&
               std::memcmp(p, expected.data() + index * 188, 188) == 0;
        ++index;
    }};
};

}  // namespace

TEST(MpegTsSync, GarbageInFrontIsCountedAndEveryPacketDelivered) {
    Sink sink;
    std::vector<uint8_t> data(10, 0xFF);
    const auto packets = makePackets(40);
    data.insert(data.end(), packets.begin(), packets.end());
    sink.sync.push_data(0, 0, data.data(), data.size());
    EXPECT_EQ(sink.sync.get_bad_bytes(), 10u);
    ASSERT_EQ(sink.packets.size(), 40u);
    for (size_t i = 0; i < 40; ++i) {
        EXPECT_EQ(sink.packets[i].bytes.size(), 188u);
        EXPECT_EQ(sink.packets[i].where, data.data() + 10 + i * 188) << "delivered in place";
    }
}

TEST(MpegTsSync, Packets204LockAfterThe188AttemptFails) {
    Sink sink;
    auto data = makePackets(30, 204);
    sink.sync.push_data(0, 0, data.data(), data.size());
    EXPECT_EQ(sink.sync.get_bad_bytes(), 0u);
    ASSERT_EQ(sink.packets.size(), 30u);
    for (size_t i = 0; i < 30; ++i) {
        ASSERT_EQ(sink.packets[i].bytes.size(), 204u);
        EXPECT_EQ(0, std::memcmp(sink.packets[i].bytes.data(), data.data() + i * 204, 204));
    }
}

TEST(MpegTsSync, FewerThanFifteenPacketsDoNotLockUntilTheNextFrame) {
    Sink sink;
    auto data = makePackets(30);
    sink.sync.push_data(0, 0, data.data(), 14 * 188);
    EXPECT_TRUE(sink.packets.empty());
    EXPECT_EQ(sink.sync.get_bad_bytes(), 0u);
    sink.sync.push_data(0, 0, data.data() + 14 * 188, 16 * 188);
    ASSERT_EQ(sink.packets.size(), 30u);
    for (size_t i = 0; i < 30; ++i)
        EXPECT_EQ(sink.packets[i].bytes, std::vector<uint8_t>(data.begin() + i * 188, data.begin() + (i + 1) * 188));
    EXPECT_EQ(sink.sync.get_bad_bytes(), 0u);
}

TEST(MpegTsSync, PacketSplitAcrossFramesIsDeliveredWholeAtTheStartOfTheSecondRun) {
    Sink sink;
    auto data = makePackets(40);
    const size_t cut = 20 * 188 + 77;
    sink.sync.push_data(0, 0, data.data(), cut);
    ASSERT_EQ(sink.packets.size(), 20u);
    sink.sync.push_data(0, 0, data.data() + cut, data.size() - cut);
    ASSERT_EQ(sink.packets.size(), 40u);
    EXPECT_EQ(sink.packets[20].bytes, std::vector<uint8_t>(data.begin() + 20 * 188, data.begin() + 21 * 188));
    EXPECT_NE(sink.packets[20].where, data.data() + 20 * 188) << "the joined packet comes from the work buffer";
}

TEST(MpegTsSync, RunShorterThanOnePacketBecomesTheTail) {
    Sink sink;
    auto data = makePackets(20);
    sink.sync.reset(4096);
    sink.sync.push_data(0, 0, data.data(), 100);
    EXPECT_TRUE(sink.packets.empty());
    EXPECT_EQ(sink.sync.get_bad_bytes(), 0u);
    sink.sync.push_data(0, 0, data.data() + 100, data.size() - 100);
    EXPECT_EQ(sink.packets.size(), 20u);
    EXPECT_EQ(sink.sync.get_bad_bytes(), 0u);
}

TEST(MpegTsSync, LockedAt204NeverReadsPastTheRun) {
    Sink sink;
    auto data = makePackets(40, 204);
    // 20 packets and 195 bytes of the 21st: between 188 and 203 bytes are left.
    const size_t first = 20 * 204 + 195;
    std::vector<uint8_t> frame(data.begin(), data.begin() + first);  // exact-size heap block
    sink.sync.push_data(0, 0, frame.data(), frame.size());
    ASSERT_EQ(sink.packets.size(), 20u);
    std::vector<uint8_t> rest(data.begin() + first, data.end());
    sink.sync.push_data(0, 0, rest.data(), rest.size());
    ASSERT_EQ(sink.packets.size(), 40u);
    EXPECT_EQ(sink.packets[20].bytes, std::vector<uint8_t>(data.begin() + 20 * 204, data.begin() + 21 * 204));
    EXPECT_EQ(sink.sync.get_bad_bytes(), 0u);
}

TEST(MpegTsSync, LockedAt204AFrameOf188To203BytesIsKeptWhole) {
    Sink sink;
    auto data = makePackets(40, 204);
    std::vector<uint8_t> whole(data.begin(), data.begin() + 20 * 204);
    sink.sync.push_data(0, 0, whole.data(), whole.size());
    ASSERT_EQ(sink.packets.size(), 20u);
    std::vector<uint8_t> shortFrame(data.begin() + 20 * 204, data.begin() + 20 * 204 + 195);
    sink.sync.push_data(0, 0, shortFrame.data(), shortFrame.size());
    EXPECT_EQ(sink.packets.size(), 20u) << "195 bytes of a 204-byte packet are not delivered";
    std::vector<uint8_t> rest(data.begin() + 20 * 204 + 195, data.end());
    sink.sync.push_data(0, 0, rest.data(), rest.size());
    ASSERT_EQ(sink.packets.size(), 40u);
    EXPECT_EQ(sink.packets[20].bytes, std::vector<uint8_t>(data.begin() + 20 * 204, data.begin() + 21 * 204));
}

TEST(MpegTsSync, OneMissingSyncByteDropsTheLockAtOnce) {
    Sink sink;
    auto data = makePackets(60);
    data[20 * 188] = 0x00;  // packet 20 loses its sync byte
    sink.sync.push_data(0, 0, data.data(), data.size());
    // Packet 20 is skipped byte by byte; from packet 21 on, 15 packets lock again.
    ASSERT_EQ(sink.packets.size(), 59u);
    EXPECT_EQ(sink.packets[19].bytes[2], 19);
    EXPECT_EQ(sink.packets[20].bytes[2], 21);
    EXPECT_EQ(sink.sync.get_bad_bytes(), 188u);
}

TEST(MpegTsSync, NullOrEmptyInputDoesNothing) {
    Sink sink;
    uint8_t byte = 0x47;
    sink.sync.push_data(0, 0, nullptr, 100);
    sink.sync.push_data(0, 0, &byte, 0);
    EXPECT_TRUE(sink.packets.empty());
    EXPECT_EQ(sink.sync.get_bad_bytes(), 0u);
}

TEST(MpegTsSync, TimestampsPlacePacketsLinearlyInTheFrameSpanTailIncluded) {
    Sink sink;
    auto data = makePackets(40);
    const size_t cut = 20 * 188 + 50;
    sink.sync.push_data(1000, 2000, data.data(), cut);
    ASSERT_EQ(sink.packets.size(), 20u);
    for (size_t i = 0; i < 20; ++i)
        EXPECT_EQ(sink.packets[i].time, 1000 + uint64_t(1000) * (i * 188) / cut);
    const size_t run = data.size() - cut + 50;  // tail of 50 bytes, then the new frame
    sink.sync.push_data(5000, 9000, data.data() + cut, data.size() - cut);
    ASSERT_EQ(sink.packets.size(), 40u);
    for (size_t i = 20; i < 40; ++i)
        EXPECT_EQ(sink.packets[i].time, 5000 + uint64_t(4000) * ((i - 20) * 188) / run);
}

TEST(MpegTsSync, FrameLargerThanTheWorkBufferResetsAndDropsTheTail) {
    Sink sink;
    auto data = makePackets(100);
    const size_t first = 20 * 188 + 10;  // the first frame sizes the buffer: 2 * first
    sink.sync.push_data(0, 0, data.data(), first);
    ASSERT_EQ(sink.packets.size(), 20u);
    // 10 tail bytes + (2 * first - 9) > capacity: the tail is dropped and the search starts over.
    sink.sync.push_data(0, 0, data.data() + first, 2 * first - 9);
    const size_t badBytes = 178;  // the rest of packet 20, now without its head
    EXPECT_EQ(sink.sync.get_bad_bytes(), badBytes);
    EXPECT_EQ(sink.packets[20].bytes[2], 21);
}

namespace {

class CaptureInFrames : public ::testing::TestWithParam<std::pair<size_t, size_t>> {};

// The whole capture cut into frames of every size in the range.
TEST_P(CaptureInFrames, EveryFrameSizeGivesTheSamePacketSequence) {
    auto data = vq_test::readDataFile("live-025.ts");
    ASSERT_EQ(data.size() % 188, 0u);
    for (size_t frameSize = GetParam().first; frameSize <= GetParam().second; ++frameSize) {
        InOrder check(data);
        pushInFrames(check.sync, data, frameSize);
        ASSERT_TRUE(check.allDelivered()) << "frame size " << frameSize << ": " << check.index << " packets";
        ASSERT_EQ(check.sync.get_bad_bytes(), 0u) << "frame size " << frameSize;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, CaptureInFrames,
                         ::testing::Values(std::make_pair(1, 512), std::make_pair(513, 1024),
                                           std::make_pair(1025, 2048), std::make_pair(2049, 3072),
                                           std::make_pair(3073, 4096)));

}  // namespace

TEST(MpegTsSync, WholeCaptureAtSeveralFrameSizes) {
    auto data = vq_test::readDataFile("live-025.ts");
    for (size_t frameSize : {size_t(1), size_t(187), size_t(1316), size_t(4096), size_t(65536), data.size()}) {
        InOrder check(data);
        pushInFrames(check.sync, data, frameSize);
        EXPECT_TRUE(check.allDelivered()) << "frame size " << frameSize;
        EXPECT_EQ(check.sync.get_bad_bytes(), 0u);
    }
}

TEST(MpegTsSync, ParityBytesAppendedToEachPacketLockAt204) {
    auto file = vq_test::readDataFile("live-025.ts");
    const size_t count = file.size() / 188;
    std::vector<uint8_t> data;
    data.reserve(count * 204);
    std::mt19937 rng(7);
    for (size_t i = 0; i < count; ++i) {
        data.insert(data.end(), file.begin() + i * 188, file.begin() + (i + 1) * 188);
        for (int j = 0; j < 16; ++j)
            data.push_back(static_cast<uint8_t>(rng()));
    }
    Sink sink;
    pushInFrames(sink.sync, data, 10000);
    ASSERT_EQ(sink.packets.size(), count);
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(sink.packets[i].bytes.size(), 204u);
        ASSERT_EQ(0, std::memcmp(sink.packets[i].bytes.data(), data.data() + i * 204, 204)) << "packet " << i;
    }
    EXPECT_EQ(sink.sync.get_bad_bytes(), 0u);
}

TEST(MpegTsSync, GarbageBetweenPacketsIsCountedExactly) {
    auto file = vq_test::readDataFile("live-025.ts");
    const size_t count = file.size() / 188;
    std::vector<uint8_t> data;
    std::mt19937 rng(11);
    size_t garbage = 0;
    for (size_t i = 0; i < count; ++i) {
        // A gap every 40 packets leaves room to lock again on 15 packets.
        if (i % 40 == 0) {
            const size_t n = 1 + rng() % 300;
            for (size_t j = 0; j < n; ++j) {
                uint8_t b = static_cast<uint8_t>(rng());
                data.push_back(b == 0x47 ? 0x48 : b);
            }
            garbage += n;
        }
        data.insert(data.end(), file.begin() + i * 188, file.begin() + (i + 1) * 188);
    }
    for (size_t frameSize : {size_t(777), size_t(50000)}) {
        InOrder check(file);
        pushInFrames(check.sync, data, frameSize);
        EXPECT_TRUE(check.allDelivered()) << "frame size " << frameSize;
        EXPECT_EQ(check.sync.get_bad_bytes(), garbage) << "frame size " << frameSize;
    }
}

namespace {

struct Chunk {
    uint64_t time;
    std::vector<uint8_t> bytes;
};

}  // namespace

TEST(MpegTsAccum, RegroupsBytesIntoChunksWithInterpolatedTimes) {
    std::vector<Chunk> chunks;
    vq_mpegts_accum accum(
        [&](unsigned long t, unsigned char* p, unsigned long n) {
            chunks.push_back({t, std::vector<uint8_t>(p, p + n)});
        },
        100);
    std::vector<uint8_t> data(1000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i);
    accum.push_data(0, 250, data.data(), 250);            // 2 chunks, 50 held
    accum.push_data(1000, 1030, data.data() + 250, 30);   // still held: 80
    accum.push_data(2000, 2720, data.data() + 280, 720);  // completes 1, then 7 whole
    ASSERT_EQ(chunks.size(), 10u);
    for (size_t i = 0; i < chunks.size(); ++i)
        EXPECT_EQ(chunks[i].bytes, std::vector<uint8_t>(data.begin() + i * 100, data.begin() + (i + 1) * 100));
    EXPECT_EQ(chunks[0].time, 0u);
    EXPECT_EQ(chunks[1].time, 100u);   // 250 ns over 250 bytes: one chunk later
    EXPECT_EQ(chunks[2].time, 1030u);  // the held chunk keeps the time of its bytes' end
    EXPECT_EQ(chunks[3].time, 2020u);  // 20 bytes of the 720-byte frame used to complete it
    EXPECT_EQ(chunks[4].time, 2120u);
}

TEST(MpegTsAccum, SizeToTimeUsesAWideProduct) {
    EXPECT_EQ(vq_mpegts_accum::size_to_time(0, 1000, 10, 3), 300u);
    const uint64_t big = uint64_t(1) << 62;
    EXPECT_EQ(vq_mpegts_accum::size_to_time(0, big, 1000, 500), big / 2);
    EXPECT_EQ(vq_mpegts_accum::size_to_time(5, 5, 0, 3), 0u);
}

TEST(MpegTsAccum, ResetForgetsHeldBytes) {
    std::vector<Chunk> chunks;
    vq_mpegts_accum accum(
        [&](unsigned long t, unsigned char* p, unsigned long n) {
            chunks.push_back({t, std::vector<uint8_t>(p, p + n)});
        },
        4);
    uint8_t a[3] = {1, 2, 3}, b[4] = {5, 6, 7, 8};
    accum.push_data(0, 10, a, 3);
    accum.reset();
    accum.push_data(10, 20, b, 4);
    ASSERT_EQ(chunks.size(), 1u);
    EXPECT_EQ(chunks[0].bytes, std::vector<uint8_t>(b, b + 4));
    EXPECT_EQ(chunks[0].time, 10u);
}
