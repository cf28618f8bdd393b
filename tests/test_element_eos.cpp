// An end of stream sent to a pipeline (by the application, or by gst-launch-1.0 -e
// on an interrupt) leaves through vqasicapture's pad after the packets already
// pushed, and nothing follows it until the next start.

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "element/element_test_util.h"
#include "support/test_data.h"

namespace {

using vq_element_test::count_handoff;
using vq_element_test::pipeline;
using vq_element_test::sim_settings;
using vq_element_test::wait_until;

constexpr size_t kBufferBytes = 7 * 188;

// The next EOS or ERROR message of the pipeline's bus, or null after the timeout.
GstMessage* pop_end(GstElement* bin, GstClockTime timeout) {
    GstBus* bus = gst_element_get_bus(bin);
    GstMessage* msg =
        gst_bus_timed_pop_filtered(bus, timeout, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(bus);
    return msg;
}

TEST(ElementEos, EosSentToThePipelineEndsTheStreamUntilTheNextStart) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "8000000"}});
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink name=sink sync=false signal-handoffs=true");
    ASSERT_NE(p.capture, nullptr);
    GstElement* sink = p.by_name("sink");
    std::atomic<size_t> buffers{0};
    g_signal_connect(sink, "handoff", G_CALLBACK(count_handoff), &buffers);

    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(wait_until([&] { return buffers > 20; }));
    GstEvent* eos = gst_event_new_eos();
    const guint32 seqnum = gst_event_get_seqnum(eos);
    EXPECT_TRUE(gst_element_send_event(p.bin, eos));
    GstMessage* msg = pop_end(p.bin, 5 * GST_SECOND);
    ASSERT_NE(msg, nullptr) << "no end of stream reached the bus";
    EXPECT_EQ(GST_MESSAGE_TYPE(msg), GST_MESSAGE_EOS);
    EXPECT_EQ(gst_message_get_seqnum(msg), seqnum);
    gst_message_unref(msg);

    // The capture goes on for the statistics, but nothing more is pushed.
    const size_t atEos = buffers;
    const uint64_t raw = vq_element_test::item_number(p.capture, "Raw data counter");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(buffers, atEos);
    EXPECT_GT(vq_element_test::item_number(p.capture, "Raw data counter"), raw);

    // A new start streams again.
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(wait_until([&] { return buffers > atEos + 20; }));
    gst_object_unref(sink);
}

TEST(ElementEos, EosBeforeAnyDataStillComesAfterStreamStartAndSegment) {
    // No data yet: the receiver reports no signal for the first second.
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_SIGNAL", "nolink:1,ok"}});
    vq_element_test::log_capture gstreamerWarnings("GStreamer");
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink sync=false");
    ASSERT_NE(p.capture, nullptr);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(gst_element_send_event(p.bin, gst_event_new_eos()));
    GstMessage* msg = pop_end(p.bin, 5 * GST_SECOND);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(msg), GST_MESSAGE_EOS);
    gst_message_unref(msg);
    EXPECT_EQ(gstreamerWarnings.messages(), std::vector<std::string>());
}

TEST(ElementEos, GstLaunchWithEosOnInterruptEndsWithWholeBuffers) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "8000000"}});
    const std::string out = vq_element_test::scratch_file("vqasicapture-eos") + ".ts";
    const std::string log = out + ".log";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGINT, SIG_DFL);
        if (std::freopen(log.c_str(), "w", stdout) && dup2(fileno(stdout), STDERR_FILENO) >= 0) {
            const std::string location = "location=" + out;
            execlp("gst-launch-1.0", "gst-launch-1.0", "-e", "vqasicapture", "v4l2=/dev/video0", "!", "filesink",
                   location.c_str(), static_cast<char*>(nullptr));
        }
        _exit(127);
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
    kill(child, SIGINT);
    int status = 0;
    const bool ended = wait_until([&] { return waitpid(child, &status, WNOHANG) == child; });
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    std::ifstream printed(log);
    const std::string text((std::istreambuf_iterator<char>(printed)), std::istreambuf_iterator<char>());
    ASSERT_TRUE(ended) << "gst-launch-1.0 -e did not end after the interrupt:\n" << text;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    EXPECT_NE(text.find("Got EOS from element"), std::string::npos) << text;
    std::ifstream file(out, std::ios::binary | std::ios::ate);
    const auto size = static_cast<size_t>(file.tellg());
    EXPECT_GT(size, 0u);
    EXPECT_EQ(size % kBufferBytes, 0u);
    std::remove(out.c_str());
    std::remove(log.c_str());
}

}  // namespace
