// The board simulator as a V4L2 capture driver, driven with plain V4L2 calls:
// the bytes it serves, its pacing, its buffer rules and every fault it injects,
// checked against the summary it writes.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/test_data.h"
#include "vqasisim_testing.h"

namespace {

using vqasisim_testing::fields;
using vqasisim_testing::read_summary;
using vqasisim_testing::scoped_env;
using vqasisim_testing::summary;

const char* const kDevice = "/dev/vqasi-sim0";
const char* const kInput = "live-012.ts";
constexpr size_t kPacket = 188;

std::string summary_file() { return vqasisim_testing::test_summary_file(); }

std::map<std::string, std::string> settings(const std::map<std::string, std::string>& extra = {}) {
    return vqasisim_testing::node_settings(kDevice, vq_test::dataPath(kInput), extra);
}

uint64_t monotonic_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

struct frame_record {
    uint32_t sequence = 0;
    uint32_t bytesused = 0;
    uint64_t timestamp_ns = 0;
    std::vector<uint8_t> data;
};

// A minimal V4L2 streaming client (single-planar).
class client {
public:
    explicit client(const char* path = kDevice, int flags = O_RDWR | O_NONBLOCK) { m_fd = open(path, flags); }
    ~client() {
        if (m_fd < 0)
            return;
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ioctl(m_fd, VIDIOC_STREAMOFF, &type);
        for (auto& m : m_maps)
            munmap(m.first, m.second);
        close(m_fd);
    }
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    int fd() const { return m_fd; }
    uint8_t* mapping(uint32_t index) const { return m_maps.at(index).first; }

    // Requests, maps and queues the buffers, then starts streaming.
    bool start(uint32_t count = 32) {
        v4l2_requestbuffers req{};
        req.count = count;
        req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        req.memory = V4L2_MEMORY_MMAP;
        if (ioctl(m_fd, VIDIOC_REQBUFS, &req) != 0)
            return false;
        for (uint32_t i = 0; i < req.count; ++i) {
            v4l2_buffer buf = buffer(i);
            if (ioctl(m_fd, VIDIOC_QUERYBUF, &buf) != 0)
                return false;
            void* p = mmap(nullptr, buf.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, buf.m.offset);
            if (p == MAP_FAILED)
                return false;
            m_maps.emplace_back(static_cast<uint8_t*>(p), buf.length);
            if (ioctl(m_fd, VIDIOC_QBUF, &buf) != 0)
                return false;
        }
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        return ioctl(m_fd, VIDIOC_STREAMON, &type) == 0;
    }

    // One frame, copied out, its buffer given back; false when none is ready.
    bool next(frame_record& f) {
        v4l2_buffer buf = buffer(0);
        if (ioctl(m_fd, VIDIOC_DQBUF, &buf) != 0)
            return false;
        EXPECT_LT(buf.index, m_maps.size());
        EXPECT_LE(buf.bytesused, buf.length);
        f.sequence = buf.sequence;
        f.bytesused = buf.bytesused;
        f.timestamp_ns = uint64_t(buf.timestamp.tv_sec) * 1000000000u + uint64_t(buf.timestamp.tv_usec) * 1000u;
        f.data.assign(m_maps[buf.index].first, m_maps[buf.index].first + buf.bytesused);
        EXPECT_EQ(ioctl(m_fd, VIDIOC_QBUF, &buf), 0);
        return true;
    }

    std::vector<frame_record> take(size_t count) {
        std::vector<frame_record> frames(count);
        for (size_t i = 0; i < count; ++i)
            EXPECT_TRUE(next(frames[i])) << "frame " << i;
        return frames;
    }

    static v4l2_buffer buffer(uint32_t index) {
        v4l2_buffer buf{};
        buf.index = index;
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        return buf;
    }

private:
    int m_fd = -1;
    std::vector<std::pair<uint8_t*, size_t>> m_maps;
};

std::vector<uint8_t> concat(const std::vector<frame_record>& frames) {
    std::vector<uint8_t> out;
    for (const frame_record& f : frames)
        out.insert(out.end(), f.data.begin(), f.data.end());
    return out;
}

// The input played in a loop, `size` bytes of it.
std::vector<uint8_t> looped(const std::vector<uint8_t>& input, size_t size) {
    std::vector<uint8_t> out;
    out.reserve(size);
    while (out.size() < size)
        out.insert(out.end(), input.begin(), input.begin() + std::min(input.size(), size - out.size()));
    return out;
}

// Offset in the concatenated stream of an event placed at frame/pos (frames of `frameSize`, from sequence 0).
size_t stream_offset(const fields& e, size_t frameSize) {
    return std::stoull(e.at("frame")) * frameSize + std::stoull(e.at("pos"));
}

unsigned pid_of(const uint8_t* p) { return unsigned(p[1] & 0x1F) << 8 | p[2]; }

TEST(Simulator, ServesTheInputByteForByteAcrossLoops) {
    constexpr size_t kFrame = 50000;  // not a whole number of packets
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    std::vector<frame_record> frames;
    {
        scoped_env env(settings({{"VQASISIM_FRAME_SIZE", std::to_string(kFrame)}}));
        client c;
        ASSERT_TRUE(c.start());
        frames = c.take(20);
    }
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].sequence, i);
        EXPECT_EQ(frames[i].bytesused, kFrame);
    }
    std::vector<uint8_t> served = concat(frames);
    ASSERT_EQ(served.size(), 20 * kFrame);
    EXPECT_TRUE(served == looped(input, served.size()));

    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.number("frames"), 20u);
    EXPECT_EQ(s.number("frames_dequeued"), 20u);
    EXPECT_EQ(s.number("bytes"), served.size());
    EXPECT_EQ(s.number("file_bytes"), served.size());
    EXPECT_EQ(s.number("loops"), served.size() / input.size());
    auto loops = s.events_of("loop");
    ASSERT_EQ(loops.size(), 2u);
    EXPECT_EQ(stream_offset(loops[0], kFrame), input.size());
    EXPECT_EQ(stream_offset(loops[1], kFrame), 2 * input.size());
}

TEST(Simulator, PrefilledBuffersRepeatAWholePacketSpanInTurn) {
    constexpr size_t kFrame = 50000;  // not a whole number of packets
    constexpr uint32_t kBuffers = 4;
    constexpr size_t kRounds = 3;
    constexpr size_t kCut = kBuffers * kFrame % kPacket;  // the span ends on a whole packet
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    std::vector<frame_record> frames;
    {
        scoped_env env(settings({{"VQASISIM_FRAME_SIZE", std::to_string(kFrame)}, {"VQASISIM_PREFILLED", "1"}}));
        client c;
        ASSERT_TRUE(c.start(kBuffers));
        frames = c.take(kBuffers * kRounds);
    }
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].sequence, i);
        EXPECT_EQ(frames[i].bytesused, i % kBuffers == kBuffers - 1 ? kFrame - kCut : kFrame) << "frame " << i;
    }
    const std::vector<uint8_t> span = looped(input, kBuffers * kFrame - kCut);
    std::vector<uint8_t> served = concat(frames);
    ASSERT_EQ(served.size(), kRounds * span.size());
    for (size_t r = 0; r < kRounds; ++r)
        EXPECT_TRUE(std::equal(span.begin(), span.end(), served.begin() + r * span.size())) << "round " << r;
    // The seam joins the span's last whole packet to its first one.
    for (size_t at = 0; at < served.size(); at += kPacket)
        ASSERT_EQ(served[at], 0x47) << "offset " << at;

    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.values["filling"], "prefilled");
    EXPECT_EQ(s.number("frames"), frames.size());
    EXPECT_EQ(s.number("bytes"), served.size());
    EXPECT_EQ(s.number("file_bytes"), kBuffers * kFrame);  // read once, at stream-on
}

TEST(Simulator, PrefilledBuffersAreServedWithoutCopying) {
    constexpr size_t kFrame = 1880;
    scoped_env env(settings({{"VQASISIM_FRAME_SIZE", std::to_string(kFrame)}, {"VQASISIM_PREFILLED", "1"}}));
    client c;
    ASSERT_TRUE(c.start(2));
    v4l2_buffer buf = client::buffer(0);
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_DQBUF, &buf), 0);
    ASSERT_EQ(buf.sequence, 0u);
    // What the reader leaves in a buffer is what the board serves from it next time.
    std::memset(c.mapping(buf.index), 0xA5, kFrame);
    const uint32_t index = buf.index;
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_QBUF, &buf), 0);
    frame_record f;
    ASSERT_TRUE(c.next(f));
    EXPECT_EQ(f.sequence, 1u);
    EXPECT_EQ(f.data[0], 0x47);
    ASSERT_TRUE(c.next(f));
    EXPECT_EQ(f.sequence, 2u);
    EXPECT_EQ(f.data, std::vector<uint8_t>(kFrame, 0xA5)) << "buffer " << index;
}

TEST(Simulator, RealTimePacingFollowsTheBitRate) {
    constexpr uint64_t kRate = 3000000;
    std::string file = summary_file();
    std::vector<frame_record> frames;
    uint64_t bytes = 0;
    double seconds = 0;
    {
        scoped_env env(settings({{"VQASISIM_PACING", "realtime"}, {"VQASISIM_BITRATE", std::to_string(kRate)}}));
        client c;
        ASSERT_TRUE(c.start());
        uint64_t start = monotonic_ns();
        while (monotonic_ns() - start < 5000000000u) {
            pollfd p{c.fd(), POLLIN, 0};
            poll(&p, 1, 100);
            frame_record f;
            while (c.next(f)) {
                bytes += f.bytesused;
                frames.push_back(f);
            }
        }
        seconds = double(monotonic_ns() - start) / 1e9;
    }
    double rate = double(bytes) * 8 / seconds;
    EXPECT_NEAR(rate, double(kRate), 0.02 * kRate) << bytes << " bytes in " << seconds << " s";
    // The bit rate alone sets 20 ms frames, stamped 20 ms apart.
    ASSERT_GT(frames.size(), 2u);
    EXPECT_EQ(frames[0].bytesused, kRate / 8 / 50);
    for (size_t i = 1; i < frames.size(); ++i)
        EXPECT_EQ(frames[i].timestamp_ns - frames[i - 1].timestamp_ns, 20000000u) << "frame " << i;
    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.number("frame_interval_ns"), 20000000u);
    EXPECT_EQ(s.number("overruns"), 0u);
}

TEST(Simulator, GarbageBytesSitWhereTheSummarySays) {
    constexpr size_t kFrame = 18800;
    constexpr size_t kEvery = 10, kBytes = 7;
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    std::vector<uint8_t> served;
    {
        scoped_env env(settings({{"VQASISIM_FRAME_SIZE", std::to_string(kFrame)},
                                 {"VQASISIM_GARBAGE", std::to_string(kEvery) + ":" + std::to_string(kBytes)}}));
        client c;
        ASSERT_TRUE(c.start());
        served = concat(c.take(30));
    }
    summary s = read_summary(file, kDevice);
    auto garbage = s.events_of("garbage");
    ASSERT_FALSE(garbage.empty());
    EXPECT_EQ(garbage.size(), s.number("garbage_insertions"));
    EXPECT_EQ(s.number("garbage_bytes"), garbage.size() * kBytes);
    std::vector<uint8_t> clean;
    size_t from = 0;
    for (size_t k = 0; k < garbage.size(); ++k) {
        size_t at = stream_offset(garbage[k], kFrame);
        // After every ten packets, seven bytes that are never a sync byte.
        EXPECT_EQ(at, k * (kEvery * kPacket + kBytes) + kEvery * kPacket);
        EXPECT_EQ(std::stoull(garbage[k].at("bytes")), kBytes);
        ASSERT_LE(at, served.size());
        clean.insert(clean.end(), served.begin() + from, served.begin() + at);
        size_t end = std::min(served.size(), at + kBytes);
        for (size_t i = at; i < end; ++i)
            EXPECT_NE(served[i], 0x47) << "offset " << i;
        from = end;
    }
    clean.insert(clean.end(), served.begin() + from, served.end());
    EXPECT_TRUE(clean == looped(input, clean.size()));
    EXPECT_GT(clean.size(), input.size());  // across a loop of the input
}

TEST(Simulator, PacketsOf204BytesCarrySixteenExtraBytes) {
    constexpr size_t kFrame = 20400;
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    std::vector<uint8_t> served;
    {
        scoped_env env(settings({{"VQASISIM_FRAME_SIZE", std::to_string(kFrame)}, {"VQASISIM_PACKET_SIZE", "204"}}));
        client c;
        ASSERT_TRUE(c.start());
        served = concat(c.take(25));
    }
    size_t packets = served.size() / 204;
    size_t filePackets = input.size() / kPacket;
    for (size_t i = 0; i < packets; ++i) {
        const uint8_t* unit = served.data() + i * 204;
        ASSERT_EQ(0, std::memcmp(unit, input.data() + (i % filePackets) * kPacket, kPacket)) << "packet " << i;
        for (size_t j = kPacket; j < 204; ++j)
            ASSERT_EQ(unit[j], 0) << "packet " << i;
    }
    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.number("packets"), packets);
    EXPECT_EQ(s.number("parity_bytes"), packets * 16);
    EXPECT_EQ(s.number("packet_size"), 204u);
}

TEST(Simulator, LeftOutPacketsAreTheOnesTheSummaryNames) {
    constexpr size_t kFrame = 18800;
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    std::vector<uint8_t> served;
    {
        scoped_env env(settings({{"VQASISIM_FRAME_SIZE", std::to_string(kFrame)}, {"VQASISIM_CC_ERRORS", "25"}}));
        client c;
        ASSERT_TRUE(c.start());
        served = concat(c.take(30));
    }
    summary s = read_summary(file, kDevice);
    auto cc = s.events_of("cc");
    ASSERT_FALSE(cc.empty());
    EXPECT_EQ(cc.size(), s.number("cc_errors"));

    // Walk the served packets along the input's: every mismatch is a left-out packet.
    size_t filePackets = input.size() / kPacket;
    size_t j = 0, next = 0, dropped = 0;
    for (size_t i = 0; i + kPacket <= served.size(); i += kPacket) {
        const uint8_t* expected = input.data() + (j % filePackets) * kPacket;
        if (std::memcmp(served.data() + i, expected, kPacket) != 0) {
            ASSERT_LT(next, cc.size()) << "unexplained difference at " << i;
            EXPECT_EQ(stream_offset(cc[next], kFrame), i);
            EXPECT_EQ(std::stoul(cc[next].at("pid")), pid_of(expected));
            EXPECT_NE(expected[3] & 0x10, 0) << "a packet without payload was left out";
            ++next;
            ++dropped;
            ++j;
            expected = input.data() + (j % filePackets) * kPacket;
            ASSERT_EQ(0, std::memcmp(served.data() + i, expected, kPacket)) << "offset " << i;
        }
        ++j;
    }
    EXPECT_EQ(dropped, cc.size());
}

TEST(Simulator, SequenceGapsAndEmptyFramesWhereTheSummarySays) {
    constexpr size_t kFrame = 18800;
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    std::vector<frame_record> frames;
    {
        scoped_env env(settings(
            {{"VQASISIM_FRAME_SIZE", std::to_string(kFrame)}, {"VQASISIM_SEQ_GAP", "5:2"}, {"VQASISIM_EMPTY", "4:1"}}));
        client c;
        ASSERT_TRUE(c.start());
        frames = c.take(20);
    }
    summary s = read_summary(file, kDevice);
    std::map<uint64_t, uint64_t> gapAt;  // sequence after the gap -> skipped
    for (const fields& e : s.events_of("gap"))
        gapAt[std::stoull(e.at("frame"))] = std::stoull(e.at("skipped"));
    std::map<uint64_t, bool> emptyAt;
    for (const fields& e : s.events_of("empty"))
        emptyAt[std::stoull(e.at("frame"))] = true;
    ASSERT_FALSE(gapAt.empty());
    ASSERT_FALSE(emptyAt.empty());

    uint64_t expected = 0;
    std::vector<frame_record> withData;
    for (const frame_record& f : frames) {
        if (gapAt.count(f.sequence))
            expected += gapAt[f.sequence];
        EXPECT_EQ(f.sequence, expected);
        EXPECT_EQ(f.bytesused == 0, emptyAt.count(f.sequence) == 1) << "frame " << f.sequence;
        if (f.bytesused)
            withData.push_back(f);
        expected = f.sequence + 1;
    }
    EXPECT_EQ(s.number("seq_gaps"), gapAt.size());
    EXPECT_EQ(s.number("seq_gap_frames"), 2 * gapAt.size());
    EXPECT_EQ(s.number("empty_frames"), emptyAt.size());
    EXPECT_EQ(s.number("data_frames"), withData.size());
    // Neither fault loses stream bytes.
    std::vector<uint8_t> served = concat(withData);
    EXPECT_TRUE(served == looped(input, served.size()));
}

TEST(Simulator, SignalScriptDrivesTimingQueryAndFrames) {
    std::string file = summary_file();
    struct sample {
        double from, to;  // seconds since just before the open
        int error;
    };
    std::vector<sample> samples;
    std::vector<frame_record> frames;
    uint64_t beforeOpen = 0, afterOpen = 0;
    {
        scoped_env env(settings({{"VQASISIM_PACING", "realtime"},
                                 {"VQASISIM_FRAME_SIZE", "1880"},
                                 {"VQASISIM_SIGNAL", "ok:0.5,nolink:0.5,ok"}}));
        beforeOpen = monotonic_ns();
        client c;
        afterOpen = monotonic_ns();
        ASSERT_TRUE(c.start());
        while (monotonic_ns() - beforeOpen < 1500000000u) {
            sample smp{};
            smp.from = double(monotonic_ns() - beforeOpen) / 1e9;
            v4l2_dv_timings t{};
            smp.error = ioctl(c.fd(), VIDIOC_QUERY_DV_TIMINGS, &t) == 0 ? 0 : errno;
            smp.to = double(monotonic_ns() - beforeOpen) / 1e9;
            samples.push_back(smp);
            frame_record f;
            while (c.next(f))
                frames.push_back(f);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    // The node's clock started between beforeOpen and afterOpen.
    double slack = double(afterOpen - beforeOpen) / 1e9;
    size_t checked = 0;
    for (const sample& smp : samples) {
        double lo = smp.from - slack, hi = smp.to;
        if (hi < 0.5) {
            EXPECT_EQ(smp.error, 0) << smp.from;
        } else if (lo > 0.5 && hi < 1.0) {
            EXPECT_EQ(smp.error, ENOLINK) << smp.from;
        } else if (lo > 1.0) {
            EXPECT_EQ(smp.error, 0) << smp.from;
        } else {
            continue;  // too close to a change to tell
        }
        ++checked;
    }
    EXPECT_GT(checked, samples.size() / 2);
    // No frame while the link was down; frames before and after.
    size_t before = 0, after = 0;
    for (const frame_record& f : frames) {
        EXPECT_FALSE(f.timestamp_ns >= afterOpen + 500000000u && f.timestamp_ns < beforeOpen + 1000000000u)
            << "frame " << f.sequence << " while the link was down";
        if (f.timestamp_ns < afterOpen + 500000000u)
            ++before;
        if (f.timestamp_ns >= beforeOpen + 1000000000u)
            ++after;
    }
    EXPECT_GT(before, 0u);
    EXPECT_GT(after, 0u);
    summary s = read_summary(file, kDevice);
    auto changes = s.events_of("signal");
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].at("state"), "nolink");
    EXPECT_EQ(changes[1].at("state"), "ok");
    EXPECT_GT(s.number("idle_slots"), 0u);
    EXPECT_GT(s.number("signal_nolink"), 0u);
}

TEST(Simulator, LateReaderLosesFramesAsOverruns) {
    std::string file = summary_file();
    frame_record late;
    {
        scoped_env env(settings({{"VQASISIM_PACING", "realtime"}, {"VQASISIM_FRAME_SIZE", "1880"}}));
        client c;
        ASSERT_TRUE(c.start(2));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        frame_record f;
        ASSERT_TRUE(c.next(f));
        EXPECT_EQ(f.sequence, 0u);
        ASSERT_TRUE(c.next(f));
        EXPECT_EQ(f.sequence, 1u);
        pollfd p{c.fd(), POLLIN, 0};
        while (!c.next(late))
            poll(&p, 1, 100);
    }
    summary s = read_summary(file, kDevice);
    EXPECT_GT(s.number("overruns"), 0u);
    EXPECT_EQ(late.sequence, 2 + s.number("overruns"));
    EXPECT_EQ(s.events_of("overrun").size(), s.number("overruns"));
}

TEST(Simulator, BufferOwnershipAndStreamingRules) {
    scoped_env env(settings({{"VQASISIM_BUFFERS", "3"}}));
    client c;
    ASSERT_GE(c.fd(), 0);
    v4l2_requestbuffers req{};
    req.count = 8;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(ioctl(c.fd(), VIDIOC_REQBUFS, &req), -1);
    EXPECT_EQ(errno, EINVAL);
    req.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_REQBUFS, &req), 0);
    EXPECT_EQ(req.count, 3u);

    // Another descriptor cannot take the buffers over.
    client other;
    v4l2_requestbuffers req2 = req;
    EXPECT_EQ(ioctl(other.fd(), VIDIOC_REQBUFS, &req2), -1);
    EXPECT_EQ(errno, EBUSY);

    v4l2_buffer buf = client::buffer(0);
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_QUERYBUF, &buf), 0);
    EXPECT_EQ(mmap(nullptr, buf.length, PROT_READ, MAP_SHARED, c.fd(), off_t(buf.m.offset) + 4096), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mmap(nullptr, buf.length, PROT_READ, MAP_PRIVATE, c.fd(), buf.m.offset), MAP_FAILED);
    void* p = mmap(nullptr, buf.length, PROT_READ, MAP_SHARED, c.fd(), buf.m.offset);
    ASSERT_NE(p, MAP_FAILED);
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_QUERYBUF, &buf), 0);
    EXPECT_NE(buf.flags & V4L2_BUF_FLAG_MAPPED, 0u);

    EXPECT_EQ(ioctl(c.fd(), VIDIOC_DQBUF, &buf), -1);
    EXPECT_EQ(errno, EINVAL);  // not streaming
    buf = client::buffer(0);
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_QBUF, &buf), 0);
    EXPECT_EQ(ioctl(c.fd(), VIDIOC_QBUF, &buf), -1);  // already the driver's
    EXPECT_EQ(errno, EINVAL);

    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    pollfd pfd{c.fd(), POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 0);  // nothing before streaming
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_STREAMON, &type), 0);
    EXPECT_EQ(poll(&pfd, 1, 1000), 1);
    buf = client::buffer(0);
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_DQBUF, &buf), 0);
    EXPECT_EQ(buf.index, 0u);
    EXPECT_EQ(buf.sequence, 0u);
    EXPECT_EQ(buf.bytesused, buf.length);
    EXPECT_EQ(static_cast<const uint8_t*>(p)[0], 0x47);
    // Every buffer is the application's now: nothing more to dequeue.
    EXPECT_EQ(ioctl(c.fd(), VIDIOC_DQBUF, &buf), -1);
    EXPECT_EQ(errno, EAGAIN);

    buf = client::buffer(1);
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_QBUF, &buf), 0);
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_STREAMOFF, &type), 0);
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_QUERYBUF, &buf), 0);
    EXPECT_EQ(buf.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE), 0u);  // returned by stream-off
    EXPECT_EQ(ioctl(c.fd(), VIDIOC_QBUF, &buf), 0);

    EXPECT_EQ(ioctl(c.fd(), VIDIOC_LOG_STATUS), -1);
    EXPECT_EQ(errno, ENOTTY);
    munmap(p, buf.length);
}

TEST(Simulator, BlockingDescriptorWaitsForTheNextFrame) {
    scoped_env env(settings({{"VQASISIM_PACING", "realtime"}, {"VQASISIM_FRAME_SIZE", "1880"}}));
    client c(kDevice, O_RDWR);
    ASSERT_TRUE(c.start(4));
    frame_record f;
    ASSERT_TRUE(c.next(f));
    EXPECT_EQ(f.sequence, 0u);
    ASSERT_TRUE(c.next(f));
    EXPECT_EQ(f.sequence, 1u);
}

TEST(Simulator, RefusesAChosenIoctlFromItsNthCall) {
    scoped_env env(settings({{"VQASISIM_FAIL", "VIDIOC_QBUF@2=EBUSY,QUERYCAP=5"}}));
    client c;
    v4l2_requestbuffers req{};
    req.count = 4;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_REQBUFS, &req), 0);
    for (uint32_t i = 0; i < 4; ++i) {
        v4l2_buffer buf = client::buffer(i);
        int r = ioctl(c.fd(), VIDIOC_QBUF, &buf);
        if (i == 0) {
            EXPECT_EQ(r, 0);
        } else {
            EXPECT_EQ(r, -1);
            EXPECT_EQ(errno, EBUSY);
        }
    }
    v4l2_capability cap{};
    EXPECT_EQ(ioctl(c.fd(), VIDIOC_QUERYCAP, &cap), -1);
    EXPECT_EQ(errno, EIO);
}

TEST(Simulator, OtherFilesPassThrough) {
    scoped_env env(settings());
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    int fd = open(vq_test::dataPath(kInput).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(size_t(st.st_size), input.size());
    void* p = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    EXPECT_EQ(0, std::memcmp(p, input.data(), 4096));
    EXPECT_EQ(munmap(p, 4096), 0);
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, nullptr), -1);  // a plain file is no V4L2 node
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(close(fd), 0);

    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    ASSERT_EQ(write(pipefd[1], "abc", 3), 3);
    int pending = 0;
    EXPECT_EQ(ioctl(pipefd[0], FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 3);
    close(pipefd[0]);
    close(pipefd[1]);

    // The node itself looks like a video4linux character device.
    ASSERT_EQ(stat(kDevice, &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(major(st.st_rdev), 81u);
    EXPECT_EQ(stat("/dev/vqasi-not-configured", &st), -1);
}

TEST(Simulator, EachDeviceServesItsOwnInput) {
    const char* const second = "/dev/vqasi-sim1";
    std::vector<uint8_t> first = vq_test::readDataFile(kInput);
    std::vector<uint8_t> other = vq_test::readDataFile("live-139.ts");
    scoped_env env(settings({{"VQASISIM_DEVICE", std::string(kDevice) + "," + second},
                             {"VQASISIM_INPUT", vq_test::dataPath(kInput) + "," + vq_test::dataPath("live-139.ts")},
                             {"VQASISIM_FRAME_SIZE", "18800"}}));
    client a;
    client b(second);
    ASSERT_TRUE(a.start(4));
    ASSERT_TRUE(b.start(4));
    std::vector<uint8_t> fromA = concat(a.take(3));
    std::vector<uint8_t> fromB = concat(b.take(3));
    EXPECT_TRUE(fromA == looped(first, fromA.size()));
    EXPECT_TRUE(fromB == looped(other, fromB.size()));
}

TEST(Simulator, ADeviceSuffixOverridesASettingForThatDeviceOnly) {
    const char* const second = "/dev/vqasi-sim1";
    std::string file = summary_file();
    {
        scoped_env env(settings({{"VQASISIM_DEVICE", std::string(kDevice) + "," + second},
                                 {"VQASISIM_FRAME_SIZE", "18800"},
                                 {"VQASISIM_FRAME_SIZE_1", "1880"},
                                 {"VQASISIM_CC_ERRORS_1", "25"}}));
        client a;
        client b(second);
        ASSERT_TRUE(a.start(4));
        ASSERT_TRUE(b.start(4));
        for (const frame_record& f : a.take(3))
            EXPECT_EQ(f.bytesused, 18800u);
        for (const frame_record& f : b.take(30))
            EXPECT_EQ(f.bytesused, 1880u);
    }
    EXPECT_EQ(read_summary(file, kDevice).number("cc_errors"), 0u);
    EXPECT_GT(read_summary(file, second).number("cc_errors"), 0u);
}

TEST(Simulator, WithoutInputFileServesNullPackets) {
    scoped_env env({{"VQASISIM_DEVICE", kDevice}, {"VQASISIM_PACING", "fast"}, {"VQASISIM_FRAME_SIZE", "1880"}});
    client c;
    ASSERT_TRUE(c.start(2));
    std::vector<uint8_t> served = concat(c.take(3));
    ASSERT_EQ(served.size(), 3 * 1880u);
    for (size_t i = 0; i < served.size(); i += kPacket) {
        EXPECT_EQ(served[i], 0x47);
        EXPECT_EQ(pid_of(&served[i]), 0x1FFFu);
    }
}

TEST(Simulator, PacketSizeScriptSwitchesBetween188And204) {
    constexpr size_t kFrame = 18803;  // frames end anywhere inside a packet
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    std::vector<uint8_t> served;
    {
        scoped_env env(
            settings({{"VQASISIM_FRAME_SIZE", std::to_string(kFrame)}, {"VQASISIM_PACKET_SIZE", "188:0.25,204:0.25"}}));
        client c;
        ASSERT_TRUE(c.start(4));
        // Fast pacing serves a frame per request: spread the requests over 1.2 s.
        std::vector<frame_record> frames;
        for (int i = 0; i < 60; ++i) {
            frames.push_back(frame_record{});
            ASSERT_TRUE(c.next(frames.back()));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        served = concat(frames);
    }
    summary s = read_summary(file, kDevice);
    auto switches = s.events_of("packet_size");
    ASSERT_GE(switches.size(), 3u);
    EXPECT_EQ(switches.size(), s.number("packet_size_switches"));
    EXPECT_EQ(s.number("packet_size"), 188u);

    // Walk the units: 188-byte packets until the first switch, then as each event says.
    size_t filePackets = input.size() / kPacket;
    size_t at = 0, next = 0, packet = 0, units204 = 0;
    unsigned size = 188;
    while (at + 204 <= served.size()) {
        if (next < switches.size() && stream_offset(switches[next], kFrame) == at) {
            unsigned newSize = unsigned(std::stoul(switches[next].at("size")));
            EXPECT_NE(newSize, size);
            size = newSize;
            ++next;
        }
        ASSERT_EQ(0, std::memcmp(&served[at], &input[(packet % filePackets) * kPacket], kPacket)) << "offset " << at;
        for (size_t j = kPacket; j < size; ++j)
            ASSERT_EQ(served[at + j], 0) << "offset " << at;
        units204 += size == 204;
        at += size;
        ++packet;
    }
    EXPECT_EQ(next, switches.size()) << "a switch fell between two units";
    EXPECT_GE(s.number("parity_bytes"), units204 * 16);
    EXPECT_GT(units204, 0u);
}

TEST(Simulator, DataGapsStopFramesUnderAGoodSignal) {
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    std::vector<frame_record> frames;
    uint64_t afterOpen = 0;
    size_t failedQueries = 0;
    {
        scoped_env env(settings(
            {{"VQASISIM_PACING", "realtime"}, {"VQASISIM_FRAME_SIZE", "1880"}, {"VQASISIM_DATA_GAP", "0.3:0.3"}}));
        client c;
        afterOpen = monotonic_ns();
        ASSERT_TRUE(c.start());
        while (monotonic_ns() - afterOpen < 1400000000u) {
            v4l2_dv_timings t{};
            failedQueries += ioctl(c.fd(), VIDIOC_QUERY_DV_TIMINGS, &t) != 0;
            frame_record f;
            while (c.next(f))
                frames.push_back(f);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    EXPECT_EQ(failedQueries, 0u);
    summary s = read_summary(file, kDevice);
    EXPECT_GE(s.number("data_gaps"), 2u);
    EXPECT_GT(s.number("gap_slots"), 20u);
    EXPECT_EQ(s.number("idle_slots"), 0u);
    auto changes = s.events_of("data");
    ASSERT_GE(changes.size(), 3u);
    for (size_t i = 0; i < changes.size(); ++i)
        EXPECT_EQ(changes[i].at("state"), i % 2 == 0 ? "off" : "on");
    // No frame is stamped inside a gap (0.3-0.6 s, 0.9-1.2 s after the open).
    size_t inGap = 0;
    for (const frame_record& f : frames) {
        double t = double(f.timestamp_ns - afterOpen) / 1e9;
        inGap += (t > 0.32 && t < 0.58) || (t > 0.92 && t < 1.18);
    }
    EXPECT_EQ(inGap, 0u);
    // A gap uses neither sequence numbers nor stream bytes.
    ASSERT_GT(frames.size(), 20u);
    for (size_t i = 0; i < frames.size(); ++i)
        EXPECT_EQ(frames[i].sequence, i);
    std::vector<uint8_t> bytes = concat(frames);
    EXPECT_TRUE(bytes == looped(input, bytes.size()));
}

TEST(Simulator, RemovedDeviceFailsWithNoDevice) {
    std::string file = summary_file();
    {
        scoped_env env(settings(
            {{"VQASISIM_PACING", "realtime"}, {"VQASISIM_FRAME_SIZE", "1880"}, {"VQASISIM_REMOVE_AFTER", "0.3"}}));
        client c;
        ASSERT_TRUE(c.start(4));
        const uint64_t start = monotonic_ns();
        size_t frames = 0;
        int error = 0;
        while (monotonic_ns() - start < 2000000000u) {
            v4l2_buffer buf = client::buffer(0);
            if (ioctl(c.fd(), VIDIOC_DQBUF, &buf) == 0) {
                ++frames;
                ASSERT_EQ(ioctl(c.fd(), VIDIOC_QBUF, &buf), 0);
            } else if (errno != EAGAIN) {
                error = errno;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_EQ(error, ENODEV);
        EXPECT_GT(frames, 5u);
        v4l2_dv_timings t{};
        EXPECT_EQ(ioctl(c.fd(), VIDIOC_QUERY_DV_TIMINGS, &t), -1);
        EXPECT_EQ(errno, ENODEV);
        v4l2_buffer buf = client::buffer(1);
        EXPECT_EQ(ioctl(c.fd(), VIDIOC_QBUF, &buf), -1);
        EXPECT_EQ(errno, ENODEV);
        EXPECT_EQ(open(kDevice, O_RDWR | O_NONBLOCK), -1);
        EXPECT_EQ(errno, ENODEV);
    }
    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.events_of("removed").size(), 1u);
    EXPECT_GE(s.number("removed_failures"), 3u);
    EXPECT_GE(s.ioctl_calls("DQBUF").second, 1u);
    // Every descriptor closed: the next session finds the board back.
    scoped_env env(settings({{"VQASISIM_FRAME_SIZE", "1880"}, {"VQASISIM_REMOVE_AFTER", "30"}}));
    client again;
    ASSERT_TRUE(again.start(2));
    frame_record f;
    EXPECT_TRUE(again.next(f));
}

TEST(Simulator, SummaryIsWrittenAtExitForNodesLeftOpen) {
    std::string file = summary_file();
    std::remove(file.c_str());
    scoped_env env(settings());
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int fd = open(kDevice, O_RDWR | O_NONBLOCK);
        v4l2_capability cap{};
        int ok = fd >= 0 && ioctl(fd, VIDIOC_QUERYCAP, &cap) == 0;
        std::exit(ok ? 0 : 3);  // leaves the node open
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.ioctl_calls("QUERYCAP").first, 1u);
}

}  // namespace
