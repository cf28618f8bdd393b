// vqasicapture as a live source in front of a synchronising sink: its latency
// answer, real-time playback of the demultiplexed video, a board that disappears,
// and gst-launch-1.0 -e ending such a pipeline cleanly.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cerrno>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "element/element_test_util.h"
#include "support/test_data.h"

namespace {

using vq_element_test::bus_problems;
using vq_element_test::count_handoff;
using vq_element_test::pipeline;
using vq_element_test::run_gst_launch;
using vq_element_test::sim_settings;
using vq_element_test::wait_until;

// live-025's own rate, so the paced board plays it in real time.
const char kLive025Rate[] = "4963330";

GstPadProbeReturn count_buffer(GstPad*, GstPadProbeInfo*, gpointer counter) {
    ++*static_cast<std::atomic<size_t>*>(counter);
    return GST_PAD_PROBE_OK;
}

TEST(ElementLive, LatencyIsOneFrameUpToEveryDeviceBuffer) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BUFFERS", "16"}});
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink");
    ASSERT_NE(p.capture, nullptr);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    GstPad* pad = gst_element_get_static_pad(p.capture, "src_asi");
    GstQuery* query = gst_query_new_latency();
    ASSERT_TRUE(gst_pad_query(pad, query));
    gboolean live = FALSE;
    GstClockTime min = 0, max = 0;
    gst_query_parse_latency(query, &live, &min, &max);
    EXPECT_TRUE(live);
    EXPECT_EQ(min, 20 * GST_MSECOND);
    EXPECT_EQ(max, 16 * 20 * GST_MSECOND);
    gst_query_unref(query);
    gst_object_unref(pad);

    // The pipeline configured a latency of its own from it.
    EXPECT_GE(gst_pipeline_get_latency(GST_PIPELINE(p.bin)), 20 * GST_MSECOND);
}

// Thirty seconds of the paced board through tsdemux and mpegvideoparse into a
// synchronising sink that drops buffers later than 20 ms: every video frame that
// leaves the parser is rendered in time. The stream ends with an end of stream, so
// no frame is still on its way when the two counts are compared.
TEST(ElementLive, VideoPlaysInRealTimeThroughASynchronisingSink) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", kLive025Rate}});
    pipeline p(
        "vqasicapture name=cap v4l2=/dev/video0 ! tsdemux ! mpegvideoparse name=parse ! "
        "fakesink name=sink sync=true qos=true max-lateness=20000000 signal-handoffs=true");
    ASSERT_NE(p.capture, nullptr);
    GstElement* sink = p.by_name("sink");
    GstElement* parse = p.by_name("parse");
    std::atomic<size_t> delivered{0}, rendered{0};
    g_signal_connect(sink, "handoff", G_CALLBACK(count_handoff), &rendered);
    GstPad* parsed = gst_element_get_static_pad(parse, "src");
    gst_pad_add_probe(parsed, GST_PAD_PROBE_TYPE_BUFFER, count_buffer, &delivered, nullptr);
    gst_object_unref(parsed);

    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    std::this_thread::sleep_for(std::chrono::seconds(30));
    EXPECT_TRUE(gst_element_send_event(p.bin, gst_event_new_eos()));

    GstBus* bus = gst_element_get_bus(p.bin);
    size_t droppedLate = 0;
    bool ended = false;
    while (
        GstMessage* msg = gst_bus_timed_pop_filtered(
            bus, 10 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_QOS))) {
        const GstMessageType type = GST_MESSAGE_TYPE(msg);
        if (type == GST_MESSAGE_QOS) {
            guint64 processed = 0, dropped = 0;
            gst_message_parse_qos_stats(msg, nullptr, &processed, &dropped);
            droppedLate = static_cast<size_t>(dropped);
        }
        if (type == GST_MESSAGE_ERROR)
            ADD_FAILURE() << "error on the bus";
        gst_message_unref(msg);
        if (type != GST_MESSAGE_QOS) {
            ended = type == GST_MESSAGE_EOS;
            break;
        }
    }
    gst_object_unref(bus);
    EXPECT_TRUE(ended) << "no end of stream";

    const double share = delivered ? 100.0 * static_cast<double>(rendered) / static_cast<double>(delivered) : 0.0;
    std::printf("video frames: %zu delivered by mpegvideoparse, %zu rendered (%.2f %%), %zu dropped as late\n",
                delivered.load(), rendered.load(), share, droppedLate);
    // 25 frames a second for 30 s, less the start.
    EXPECT_GT(delivered, 600u);
    EXPECT_GE(share, 99.0);
    EXPECT_EQ(droppedLate, 0u);
    gst_object_unref(parse);
    gst_object_unref(sink);
}

// The transport stream buffers themselves play at the clock's pace: the segment maps
// the first packet to the running time of its capture. (Stamped from zero instead,
// nearly every buffer comes late.) A loaded machine may delay a few frames.
TEST(ElementLive, TransportStreamBuffersAreOnTimeInASynchronisingSink) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", kLive025Rate}});
    pipeline p(
        "vqasicapture name=cap v4l2=/dev/video0 ! "
        "fakesink name=sink sync=true qos=true max-lateness=20000000 signal-handoffs=true");
    ASSERT_NE(p.capture, nullptr);
    GstElement* sink = p.by_name("sink");
    std::atomic<size_t> rendered{0};
    g_signal_connect(sink, "handoff", G_CALLBACK(count_handoff), &rendered);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    std::this_thread::sleep_for(std::chrono::seconds(3));
    gst_element_set_state(p.bin, GST_STATE_NULL);
    GstBus* bus = gst_element_get_bus(p.bin);
    guint64 dropped = 0;
    while (GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_QOS)) {
        gst_message_parse_qos_stats(msg, nullptr, nullptr, &dropped);
        gst_message_unref(msg);
    }
    gst_object_unref(bus);
    // About 470 buffers a second at this rate.
    EXPECT_GT(rendered, 500u);
    EXPECT_LE(dropped * 100, rendered + dropped) << dropped << " buffers dropped as late, " << rendered << " rendered";
    gst_object_unref(sink);
}

TEST(ElementLive, GstLaunchWithEosEndsASynchronisedPipelineCleanly) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", kLive025Rate}});
    const auto run = run_gst_launch({"-e", "vqasicapture", "v4l2=/dev/video0", "!", "tsdemux", "!", "mpegvideoparse",
                                     "!", "fakesink", "sync=true", "qos=true", "max-lateness=20000000"},
                                    std::chrono::seconds(2));
    ASSERT_TRUE(run.ended) << run.output;
    EXPECT_TRUE(run.exited_with(0)) << run.output;
    EXPECT_NE(run.output.find("Got EOS from element"), std::string::npos) << run.output;
}

TEST(ElementLive, ABoardThatDisappearsIsWarnedOnce) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_REMOVE_AFTER", "1"}});
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 alarm-source-name=cam1 ! fakesink sync=false");
    ASSERT_NE(p.capture, nullptr);
    bus_problems problems(p.bin);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    // The no-raw-input alarm rises after the board is gone; by then the warning is out.
    std::vector<std::string> lines;
    EXPECT_TRUE(wait_until(
        [&] {
            for (const std::string& line : problems.take())
                lines.push_back(line);
            return !lines.empty();
        },
        std::chrono::seconds(10)));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    for (const std::string& line : problems.take())
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 1u);
    const std::string expected =
        std::string(g_quark_to_string(GST_RESOURCE_ERROR)) + " " + std::to_string(GST_RESOURCE_ERROR_READ) + ": ";
    EXPECT_EQ(lines[0].rfind(expected, 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(g_strerror(ENODEV)), std::string::npos) << lines[0];
    gst_element_set_state(p.bin, GST_STATE_NULL);
}

}  // namespace
