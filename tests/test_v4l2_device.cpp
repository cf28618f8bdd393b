// vq_v4l2_asi_input_device against the simulated capture board compiled into
// this program: every call the device makes is a real open/ioctl/mmap that the
// simulator answers as a V4L2 driver would.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <glib.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/print_capture.h"
#include "support/test_data.h"
#include "vq_asi_capture/vq_v4l2_asi_input_device.h"
#include "vqasisim_testing.h"

namespace {

using vq_test::print_capture;
using vqasisim_testing::read_summary;
using vqasisim_testing::scoped_env;
using vqasisim_testing::summary;

const char* const kDevice = "/dev/vqasi-dev0";
const char* const kInput = "live-012.ts";
constexpr uint32_t kFrameSize = 18800;

std::string summary_file() { return vqasisim_testing::test_summary_file(); }

// The test device, fed from the test stream in frames of kFrameSize.
std::map<std::string, std::string> settings(std::map<std::string, std::string> extra = {}) {
    extra.emplace("VQASISIM_FRAME_SIZE", std::to_string(kFrameSize));
    return vqasisim_testing::node_settings(kDevice, vq_test::dataPath(kInput), extra);
}

struct frame {
    bool ok = false;
    uint64_t tStart = 0, tStop = 0, number = 0;
    uint8_t* data = nullptr;
    size_t size = 0;
};

frame next_frame(vq_v4l2_asi_input_device& dev) {
    frame f;
    f.ok = dev.map_data(f.tStart, f.tStop, f.number, &f.data, f.size);
    return f;
}

std::string device_messages(const std::map<std::string, std::string>& extra, bool expect_open) {
    scoped_env env(settings(extra));
    print_capture capture;
    vq_v4l2_asi_input_device dev;
    EXPECT_EQ(dev.open_device(kDevice), expect_open);
    EXPECT_EQ(dev.is_open(), expect_open);
    return capture.str();
}

const std::string kOpened = std::string("vqasicapture: Open asi device: ") + kDevice + "\n";

TEST(V4l2AsiDevice, ConstructedClosed) {
    vq_v4l2_asi_input_device dev;
    EXPECT_FALSE(dev.is_open());
    EXPECT_EQ(dev.get_buffer_size(), 0u);
    EXPECT_EQ(dev.device_type(), V4L2_BUF_TYPE_VIDEO_CAPTURE);
    frame f = next_frame(dev);
    EXPECT_FALSE(f.ok);
}

TEST(V4l2AsiDevice, SignalStateOfClosedDeviceIsUnknown) {
    vq_v4l2_asi_input_device dev;
    EXPECT_EQ(dev.get_signal_state(), vq_unknown);
}

TEST(V4l2AsiDevice, MissingPathIsReported) {
    scoped_env env(settings());
    print_capture capture;
    vq_v4l2_asi_input_device dev;
    EXPECT_FALSE(dev.open_device("/dev/vqasi-missing"));
    EXPECT_FALSE(dev.is_open());
    EXPECT_EQ(capture.str(), "vqasicapture: Can't open asi device: /dev/vqasi-missing\n");
}

TEST(V4l2AsiDevice, OpenSetsMpegFormatAndMapsThirtyTwoBuffers) {
    std::string file = summary_file();
    {
        scoped_env env(settings());
        print_capture capture;
        vq_v4l2_asi_input_device dev;
        ASSERT_TRUE(dev.open_device(kDevice));
        EXPECT_EQ(capture.str(), kOpened);
        EXPECT_EQ(dev.device_type(), V4L2_BUF_TYPE_VIDEO_CAPTURE);
        EXPECT_EQ(dev.video_format().pixelformat, uint32_t(V4L2_PIX_FMT_MPEG));
        EXPECT_EQ(dev.video_format().sizeimage, kFrameSize);
        ASSERT_EQ(dev.buffers().size(), 32u);
        EXPECT_EQ(dev.get_buffer_size(), kFrameSize);
        for (const vq_v4l2_buffers& b : dev.buffers()) {
            EXPECT_NE(b.pData, nullptr);
            EXPECT_EQ(b.nSize, kFrameSize);
        }
        dev.close_device();
        EXPECT_FALSE(dev.is_open());
    }
    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.ioctl_calls("S_FMT", V4L2_BUF_TYPE_VIDEO_CAPTURE).first, 1u);
    EXPECT_EQ(s.ioctl_calls("REQBUFS", V4L2_BUF_TYPE_VIDEO_CAPTURE).first, 1u);
    EXPECT_EQ(s.ioctl_calls("QUERYBUF", V4L2_BUF_TYPE_VIDEO_CAPTURE).first, 32u);
    // Closing unmapped every buffer.
    EXPECT_EQ(s.number("mappings_left"), 0u);
}

TEST(V4l2AsiDevice, FirstThreeFramesOfEveryRunAreEmpty) {
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    ASSERT_GE(input.size(), 4u * kFrameSize);
    scoped_env env(settings());
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    for (int run = 0; run < 2; ++run) {
        ASSERT_TRUE(dev.start_capture());
        for (uint64_t seq = 0; seq < 3; ++seq) {
            frame f = next_frame(dev);
            ASSERT_TRUE(f.ok);
            EXPECT_EQ(f.number, seq);
            EXPECT_EQ(f.size, 0u);
            EXPECT_EQ(f.tStart, seq * 20000000u);
            EXPECT_EQ(f.tStop, (seq + 1) * 20000000u);
        }
        frame f = next_frame(dev);
        ASSERT_TRUE(f.ok);
        EXPECT_EQ(f.number, 3u);
        EXPECT_EQ(f.tStart, 60000000u);
        EXPECT_EQ(f.tStop, 80000000u);
        ASSERT_EQ(f.size, kFrameSize);
        // Each run starts the input again: frame 3 holds its fourth frame's bytes.
        EXPECT_EQ(0, std::memcmp(f.data, input.data() + 3 * kFrameSize, kFrameSize));
        dev.stop_capture();
    }
}

TEST(V4l2AsiDevice, NoFilledBufferMeansFalse) {
    // One frame every ten seconds: nothing is due right after streaming starts.
    scoped_env env(settings({{"VQASISIM_PACING", "realtime"}, {"VQASISIM_BITRATE", "15040"}}));
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    ASSERT_TRUE(dev.start_capture());
    frame f = next_frame(dev);
    EXPECT_FALSE(f.ok);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(V4l2AsiDevice, FewerBuffersThanRequestedAreAccepted) {
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    scoped_env env(settings({{"VQASISIM_BUFFERS", "4"}}));
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    ASSERT_EQ(dev.buffers().size(), 4u);
    ASSERT_TRUE(dev.start_capture());
    // Many more frames than buffers: each one comes back to the driver in turn.
    for (uint64_t seq = 0; seq < 12; ++seq) {
        frame f = next_frame(dev);
        ASSERT_TRUE(f.ok) << "frame " << seq;
        EXPECT_EQ(f.number, seq);
        if (seq >= 3) {
            ASSERT_EQ(f.size, kFrameSize);
            size_t offset = (seq * kFrameSize) % input.size();
            ASSERT_LE(offset + kFrameSize, input.size());
            EXPECT_EQ(0, std::memcmp(f.data, input.data() + offset, kFrameSize)) << "frame " << seq;
        }
    }
}

TEST(V4l2AsiDevice, MultiPlanarOnlyDriverIsDrivenMultiPlanarThroughout) {
    std::vector<uint8_t> input = vq_test::readDataFile(kInput);
    std::string file = summary_file();
    {
        scoped_env env(settings({{"VQASISIM_MPLANE", "1"}}));
        print_capture capture;
        vq_v4l2_asi_input_device dev;
        ASSERT_TRUE(dev.open_device(kDevice));
        EXPECT_EQ(capture.str(), kOpened);
        EXPECT_EQ(dev.device_type(), V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE);
        EXPECT_EQ(dev.video_format().pixelformat, uint32_t(V4L2_PIX_FMT_MPEG));
        ASSERT_EQ(dev.buffers().size(), 32u);
        EXPECT_EQ(dev.get_buffer_size(), kFrameSize);
        for (const vq_v4l2_buffers& b : dev.buffers()) {
            EXPECT_EQ(b.buf.m.planes, b.planes);
            EXPECT_EQ(b.buf.length, 1u);
        }
        ASSERT_TRUE(dev.start_capture());
        for (uint64_t seq = 0; seq < 5; ++seq) {
            frame f = next_frame(dev);
            ASSERT_TRUE(f.ok);
            EXPECT_EQ(f.number, seq);
            if (seq >= 3) {
                ASSERT_EQ(f.size, kFrameSize);
                EXPECT_EQ(0, std::memcmp(f.data, input.data() + seq * kFrameSize, kFrameSize));
            }
        }
        dev.close_device();
    }
    summary s = read_summary(file, kDevice);
    const int mp = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE, sp = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    // The single-planar question is asked once and refused.
    EXPECT_EQ(s.ioctl_calls("G_FMT", sp), std::make_pair(uint64_t(1), uint64_t(1)));
    EXPECT_GE(s.ioctl_calls("G_FMT", mp).first, 2u);
    for (const char* name : {"S_FMT", "REQBUFS", "QUERYBUF", "QBUF", "DQBUF", "STREAMON", "STREAMOFF"}) {
        EXPECT_GE(s.ioctl_calls(name, mp).first, 1u) << name;
        EXPECT_EQ(s.ioctl_calls(name, mp).second, 0u) << name;
        EXPECT_EQ(s.ioctl_calls(name, sp).first, 0u) << name;
    }
    EXPECT_EQ(s.ioctl_calls("QUERYBUF", mp).first, 32u);
    EXPECT_EQ(s.ioctl_calls("DQBUF", mp).first, 5u);
    // 32 queued at start, then the previous buffer on each later frame.
    EXPECT_EQ(s.ioctl_calls("QBUF", mp).first, 32u + 4u);
}

TEST(V4l2AsiDevice, HandedOutBufferStaysWithTheApplicationUntilTheNextFrame) {
    scoped_env env(settings());
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    ASSERT_TRUE(dev.start_capture());
    // A second descriptor may look at the buffers without owning them.
    int fd = open(kDevice, O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    auto flags_of = [fd](uint32_t index) {
        v4l2_buffer buf{};
        buf.index = index;
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        EXPECT_EQ(ioctl(fd, VIDIOC_QUERYBUF, &buf), 0);
        return buf.flags;
    };
    frame first = next_frame(dev);
    ASSERT_TRUE(first.ok);
    ASSERT_EQ(first.data, dev.buffers()[0].pData);
    EXPECT_EQ(flags_of(0) & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE), 0u);
    frame second = next_frame(dev);
    ASSERT_TRUE(second.ok);
    EXPECT_NE(flags_of(0) & V4L2_BUF_FLAG_QUEUED, 0u);
    EXPECT_EQ(flags_of(1) & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE), 0u);
    // Only the owner may take buffers.
    v4l2_buffer buf{};
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    EXPECT_EQ(ioctl(fd, VIDIOC_DQBUF, &buf), -1);
    EXPECT_EQ(errno, EBUSY);
    close(fd);
}

TEST(V4l2AsiDevice, SignalStateFollowsTheReceiverErrors) {
    const std::pair<const char*, vq_signal_state> cases[] = {{"ok", vq_ok},          {"nodata", vq_no_data},
                                                             {"nolink", vq_no_link}, {"nolock", vq_no_lock},
                                                             {"range", vq_range},    {"unknown", vq_unknown}};
    for (const auto& c : cases) {
        scoped_env env(settings({{"VQASISIM_SIGNAL", c.first}}));
        vq_v4l2_asi_input_device dev;
        ASSERT_TRUE(dev.open_device(kDevice));
        EXPECT_EQ(dev.get_signal_state(), c.second) << c.first;
    }
    // Any other error is unknown too.
    scoped_env env(settings({{"VQASISIM_FAIL", "QUERY_DV_TIMINGS=EBUSY"}}));
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    EXPECT_EQ(dev.get_signal_state(), vq_unknown);
}

TEST(V4l2AsiDevice, SequenceGapsReachTheFrameNumbers) {
    std::string file = summary_file();
    std::vector<uint64_t> numbers;
    {
        scoped_env env(settings({{"VQASISIM_SEQ_GAP", "4:3"}}));
        vq_v4l2_asi_input_device dev;
        ASSERT_TRUE(dev.open_device(kDevice));
        ASSERT_TRUE(dev.start_capture());
        for (int i = 0; i < 10; ++i) {
            frame f = next_frame(dev);
            ASSERT_TRUE(f.ok);
            numbers.push_back(f.number);
        }
    }
    EXPECT_EQ(numbers, (std::vector<uint64_t>{0, 1, 2, 3, 7, 8, 9, 10, 14, 15}));
    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.number("seq_gaps"), 2u);
    auto gaps = s.events_of("gap");
    ASSERT_EQ(gaps.size(), 2u);
    EXPECT_EQ(gaps[0].at("frame"), "7");
    EXPECT_EQ(gaps[1].at("frame"), "14");
    EXPECT_EQ(gaps[1].at("skipped"), "3");
}

TEST(V4l2AsiDevice, TimeLineIsTwentyMillisecondsAFrame) {
    EXPECT_EQ(vq_v4l2_asi_input_device::frame_num_to_time(0), 0u);
    EXPECT_EQ(vq_v4l2_asi_input_device::frame_num_to_time(1), 20000000u);
    EXPECT_EQ(vq_v4l2_asi_input_device::frame_num_to_time(3), 60000000u);
    // n * 10^9 overflows 64 bits here; the result itself does not.
    EXPECT_EQ(vq_v4l2_asi_input_device::frame_num_to_time(922337203685ull), 18446744073700000000ull);
}

TEST(V4l2AsiDevice, TimeSinceLastFrameCountsFromStreamStart) {
    scoped_env env(settings());
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    ASSERT_TRUE(dev.start_capture());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_GE(dev.get_ms_from_last_frame(), 30u);
    auto before = std::chrono::steady_clock::now();
    ASSERT_TRUE(next_frame(dev).ok);
    // The frame moved the mark: it is no older than `before`.
    uint64_t sinceFrame = dev.get_ms_from_last_frame();
    auto sinceBefore = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - before);
    EXPECT_LE(sinceFrame, uint64_t(sinceBefore.count()));
}

TEST(V4l2AsiDevice, DeviceInfoQuery) {
    {
        scoped_env env(settings());
        int fd = open(kDevice, O_RDWR | O_NONBLOCK);
        ASSERT_GE(fd, 0);
        vq_v4l2_asi_input_device dev;
        EXPECT_TRUE(dev.get_device_info(fd));
        close(fd);
        EXPECT_FALSE(dev.get_device_info(-1));
    }
    scoped_env env(settings({{"VQASISIM_FAIL", "DEVICE_INFO"}}));
    int fd = open(kDevice, O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    vq_v4l2_asi_input_device dev;
    EXPECT_FALSE(dev.get_device_info(fd));
    close(fd);
}

// Every message of a driver that refuses one request.
TEST(V4l2AsiDeviceMessages, OpenRefused) {
    EXPECT_EQ(device_messages({{"VQASISIM_FAIL", "OPEN=EBUSY"}}, false),
              std::string("vqasicapture: Can't open asi device: ") + kDevice + "\n");
}

TEST(V4l2AsiDeviceMessages, FormatQueryRefusedForBothTypes) {
    EXPECT_EQ(device_messages({{"VQASISIM_FAIL", "G_FMT"}}, false), kOpened + "vqasicapture: Can't get VIDIOC_G_FMT\n");
}

TEST(V4l2AsiDeviceMessages, FormatQueryRefusedBeforeMapping) {
    EXPECT_EQ(device_messages({{"VQASISIM_FAIL", "G_FMT@2"}}, false),
              kOpened + "vqasicapture: Can't get VIDIOC_G_FMT\n");
}

TEST(V4l2AsiDeviceMessages, SetFormatRefused) {
    EXPECT_EQ(device_messages({{"VQASISIM_FAIL", "S_FMT"}}, false), kOpened + "vqasicapture: Can't get VIDIOC_S_FMT\n");
}

TEST(V4l2AsiDeviceMessages, BufferRequestRefused) {
    EXPECT_EQ(device_messages({{"VQASISIM_FAIL", "REQBUFS=ENOMEM"}}, false),
              kOpened + "vqasicapture: Can't map video buffers - VIDIOC_REQBUFS error\n" +
                  "vqasicapture: Can't map video buffers\n");
}

TEST(V4l2AsiDeviceMessages, SinglePlanarBufferQueryRefused) {
    EXPECT_EQ(device_messages({{"VQASISIM_FAIL", "QUERYBUF@3"}}, false),
              kOpened + "vqasicapture: Can't map splane buffer #3/32 - VIDIOC_QUERYBUF error\n" +
                  "vqasicapture: Can't map video buffers\n");
}

TEST(V4l2AsiDeviceMessages, MultiPlanarBufferQueryRefused) {
    EXPECT_EQ(
        device_messages({{"VQASISIM_FAIL", "QUERYBUF"}, {"VQASISIM_MPLANE", "1"}, {"VQASISIM_BUFFERS", "8"}}, false),
        kOpened + "vqasicapture: Can't map mplane buffer #1/8 - VIDIOC_QUERYBUF error\n" +
            "vqasicapture: Can't map video buffers\n");
}

TEST(V4l2AsiDeviceMessages, MultiPlanarMappingFailureIsNotFatal) {
    scoped_env env(settings({{"VQASISIM_FAIL", "MMAP@3"}, {"VQASISIM_MPLANE", "1"}, {"VQASISIM_BUFFERS", "4"}}));
    print_capture capture;
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    EXPECT_EQ(capture.str(), kOpened + "vqasicapture: Can't map field[0] for bufer #3/4\n" +
                                 "vqasicapture: Can't map field[0] for bufer #4/4\n");
    ASSERT_EQ(dev.buffers().size(), 4u);
    EXPECT_NE(dev.buffers()[0].pData, nullptr);
    EXPECT_EQ(dev.buffers()[2].pData, nullptr);
    EXPECT_EQ(dev.buffers()[2].nSize, 0u);
    EXPECT_EQ(dev.get_buffer_size(), kFrameSize);
    // A frame in an unmapped buffer is reported without bytes.
    ASSERT_TRUE(dev.start_capture());
    for (uint64_t seq = 0; seq < 8; ++seq) {
        frame f = next_frame(dev);
        ASSERT_TRUE(f.ok);
        if (seq >= 3) {
            EXPECT_EQ(f.size, f.data ? kFrameSize : 0u) << "frame " << seq;
        }
    }
}

TEST(V4l2AsiDeviceMessages, EveryMultiPlanarMappingFailing) {
    scoped_env env(settings({{"VQASISIM_FAIL", "MMAP"}, {"VQASISIM_MPLANE", "1"}}));
    print_capture capture;
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    std::string expected = kOpened;
    for (int i = 1; i <= 32; ++i)
        expected += "vqasicapture: Can't map field[0] for bufer #" + std::to_string(i) + "/32\n";
    EXPECT_EQ(capture.str(), expected);
    EXPECT_EQ(dev.get_buffer_size(), 0u);
}

TEST(V4l2AsiDeviceMessages, SinglePlanarMappingFailureIsSilent) {
    scoped_env env(settings({{"VQASISIM_FAIL", "MMAP"}, {"VQASISIM_BUFFERS", "2"}}));
    print_capture capture;
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    EXPECT_EQ(capture.str(), kOpened);
    ASSERT_EQ(dev.buffers().size(), 2u);
    EXPECT_EQ(dev.buffers()[0].pData, nullptr);
    ASSERT_TRUE(dev.start_capture());
    for (int i = 0; i < 5; ++i) {
        frame f = next_frame(dev);
        ASSERT_TRUE(f.ok);
        EXPECT_EQ(f.size, 0u);
    }
}

TEST(V4l2AsiDeviceMessages, StreamOnRefused) {
    scoped_env env(settings({{"VQASISIM_FAIL", "STREAMON"}}));
    vq_v4l2_asi_input_device dev;
    ASSERT_TRUE(dev.open_device(kDevice));
    EXPECT_FALSE(dev.start_capture());
    EXPECT_FALSE(next_frame(dev).ok);
}

TEST(V4l2AsiDeviceMessages, QueueRefusedStopsQueueing) {
    std::string file = summary_file();
    {
        scoped_env env(settings({{"VQASISIM_FAIL", "QBUF@3"}}));
        vq_v4l2_asi_input_device dev;
        ASSERT_TRUE(dev.open_device(kDevice));
        EXPECT_TRUE(dev.start_capture());
        // Two buffers reached the driver: two frames, then nothing.
        EXPECT_TRUE(next_frame(dev).ok);
        EXPECT_TRUE(next_frame(dev).ok);
        EXPECT_FALSE(next_frame(dev).ok);
    }
    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.ioctl_calls("QBUF").second, s.ioctl_calls("QBUF").first - 2);
    EXPECT_EQ(s.number("frames"), 2u);
}

TEST(V4l2AsiDeviceMessages, DequeueAndStreamOffRefused) {
    std::string file = summary_file();
    {
        scoped_env env(settings({{"VQASISIM_FAIL", "DQBUF,STREAMOFF"}}));
        print_capture capture;
        vq_v4l2_asi_input_device dev;
        ASSERT_TRUE(dev.open_device(kDevice));
        ASSERT_TRUE(dev.start_capture());
        EXPECT_FALSE(next_frame(dev).ok);
        dev.stop_capture();
        dev.close_device();
        EXPECT_FALSE(dev.is_open());
        EXPECT_EQ(capture.str(), kOpened);
    }
    summary s = read_summary(file, kDevice);
    EXPECT_EQ(s.ioctl_calls("STREAMOFF").second, s.ioctl_calls("STREAMOFF").first);
    EXPECT_GE(s.ioctl_calls("STREAMOFF").first, 2u);
    EXPECT_EQ(s.number("mappings_left"), 0u);
}

}  // namespace
