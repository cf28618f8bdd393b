// vqasicapture ahead of GStreamer's own transport stream elements, as users write
// their pipelines: every buffer must be accepted (caps with systemstream and
// packetsize), failures must reach the bus as element errors, and the README's
// gst-launch-1.0 lines must run.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "element/element_test_util.h"
#include "support/test_data.h"

namespace {

using vq_element_test::bus_problems;
using vq_element_test::count_handoff;
using vq_element_test::items_of;
using vq_element_test::pipeline;
using vq_element_test::run_gst_launch;
using vq_element_test::sim_settings;
using vq_element_test::wait_until;

// Plays `description` (its sink named "sink") for two seconds on the paced board and
// returns the buffers the sink received; no error or warning may reach the bus and
// the element must record no push failure.
size_t buffers_through(const std::string& description, const std::string& input = "live-025.ts") {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath(input)}, {"VQASISIM_BITRATE", "5000000"}});
    pipeline p(description);
    EXPECT_NE(p.capture, nullptr) << description;
    if (!p.capture)
        return 0;
    GstElement* sink = p.by_name("sink");
    std::atomic<size_t> buffers{0};
    g_object_set(sink, "signal-handoffs", TRUE, nullptr);
    g_signal_connect(sink, "handoff", G_CALLBACK(count_handoff), &buffers);
    bus_problems problems(p.bin);
    EXPECT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(items_of(p.capture)["Asi last error"], "") << description;
    gst_element_set_state(p.bin, GST_STATE_NULL);
    for (const std::string& line : problems.take())
        ADD_FAILURE() << description << ": " << line;
    gst_object_unref(sink);
    return buffers;
}

TEST(ElementInterop, TsparseAcceptsTheCaps) {
    EXPECT_GT(buffers_through("vqasicapture name=cap v4l2=/dev/video0 ! tsparse ! fakesink name=sink sync=false"), 50u);
}

TEST(ElementInterop, TsdemuxGivesVideoFrames) {
    // live-025 carries MPEG-2 video at 25 frames a second.
    EXPECT_GT(buffers_through("vqasicapture name=cap v4l2=/dev/video0 ! queue ! tsdemux ! mpegvideoparse ! "
                              "fakesink name=sink sync=false"),
              10u);
}

TEST(ElementInterop, RtpPayloaderAndDepayloader) {
    EXPECT_GT(buffers_through("vqasicapture name=cap v4l2=/dev/video0 ! rtpmp2tpay ! rtpmp2tdepay ! "
                              "fakesink name=sink sync=false"),
              50u);
}

TEST(ElementInterop, TsparseThenTsdemux) {
    EXPECT_GT(buffers_through("vqasicapture name=cap v4l2=/dev/video0 ! tsparse ! tsdemux ! "
                              "fakesink name=sink sync=false"),
              10u);
}

TEST(ElementInterop, T2miPlpThroughTsdemux) {
    EXPECT_GT(buffers_through("vqasicapture name=cap v4l2=/dev/video0 input_type=1 plp=102 ! tsdemux ! "
                              "fakesink name=sink sync=false",
                              "t2mi-plp102.ts"),
              10u);
}

TEST(ElementInterop, UdpSinkReadBackByUdpsrc) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "5000000"}});
    pipeline receiver("udpsrc name=src address=127.0.0.1 port=0 ! fakesink name=sink sync=false");
    ASSERT_NE(receiver.bin, nullptr);
    GstElement* sink = receiver.by_name("sink");
    std::atomic<size_t> datagrams{0};
    g_object_set(sink, "signal-handoffs", TRUE, nullptr);
    g_signal_connect(sink, "handoff", G_CALLBACK(count_handoff), &datagrams);
    ASSERT_NE(gst_element_set_state(receiver.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    GstElement* src = receiver.by_name("src");
    gint port = 0;
    g_object_get(src, "port", &port, nullptr);
    gst_object_unref(src);
    ASSERT_GT(port, 0);

    pipeline sender("vqasicapture name=cap v4l2=/dev/video0 ! udpsink host=127.0.0.1 port=" + std::to_string(port));
    ASSERT_NE(sender.capture, nullptr);
    bus_problems problems(sender.bin);
    ASSERT_NE(gst_element_set_state(sender.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(wait_until([&] { return datagrams > 100; }, std::chrono::seconds(10))) << datagrams;
    gst_element_set_state(sender.bin, GST_STATE_NULL);
    EXPECT_TRUE(problems.take().empty());
    gst_object_unref(sink);
}

// The first error message of the bus within the timeout, parsed.
struct bus_error {
    bool found = false;
    GQuark domain = 0;
    int code = 0;
    std::string message, debug;
};

bus_error first_error(GstElement* element, GstClockTime timeout) {
    bus_error out;
    GstBus* bus = gst_element_get_bus(element);
    if (!bus)
        return out;
    if (GstMessage* msg = gst_bus_timed_pop_filtered(bus, timeout, GST_MESSAGE_ERROR)) {
        GError* error = nullptr;
        gchar* debug = nullptr;
        gst_message_parse_error(msg, &error, &debug);
        out = {true, error->domain, error->code, error->message, debug ? debug : ""};
        g_error_free(error);
        g_free(debug);
        gst_message_unref(msg);
    }
    gst_object_unref(bus);
    return out;
}

TEST(ElementInteropErrors, AMissingDeviceIsAResourceNotFoundError) {
    vq_element_test::print_capture printed;
    pipeline p("vqasicapture name=cap v4l2=/dev/vq-no-such-node ! fakesink");
    ASSERT_NE(p.capture, nullptr);
    EXPECT_EQ(gst_element_set_state(p.bin, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    const bus_error error = first_error(p.bin, 0);
    ASSERT_TRUE(error.found);
    EXPECT_EQ(error.domain, GST_RESOURCE_ERROR);
    EXPECT_EQ(error.code, GST_RESOURCE_ERROR_NOT_FOUND);
    EXPECT_NE(error.debug.find("/dev/vq-no-such-node"), std::string::npos) << error.debug;
    EXPECT_NE(error.debug.find(g_strerror(ENOENT)), std::string::npos) << error.debug;
    EXPECT_NE(printed.str().find("vqasicapture: Can't open asi device: /dev/vq-no-such-node\n"), std::string::npos);
}

TEST(ElementInteropErrors, ADeviceRefusingTheFormatIsAnOpenReadWriteError) {
    sim_settings sim(std::map<std::string, std::string>{{"VQASISIM_FAIL", "VIDIOC_S_FMT=EINVAL"}});
    vq_element_test::print_capture printed;
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink");
    ASSERT_NE(p.capture, nullptr);
    EXPECT_EQ(gst_element_set_state(p.bin, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    const bus_error error = first_error(p.bin, 0);
    ASSERT_TRUE(error.found);
    EXPECT_EQ(error.domain, GST_RESOURCE_ERROR);
    EXPECT_EQ(error.code, GST_RESOURCE_ERROR_OPEN_READ_WRITE);
    EXPECT_NE(error.debug.find("/dev/video0"), std::string::npos) << error.debug;
    EXPECT_NE(error.debug.find(g_strerror(EINVAL)), std::string::npos) << error.debug;
    EXPECT_NE(printed.str().find("vqasicapture: Can't get VIDIOC_S_FMT\n"), std::string::npos) << printed.str();
}

TEST(ElementInteropErrors, ADownstreamRefusingTheCapsStopsTheStreamWithOneError) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "5000000"}});
    // Linked (the caps intersect) but our caps lack the field the sink asks for.
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! appsink name=sink caps=\"video/mpegts,clock=(int)1\"");
    ASSERT_NE(p.capture, nullptr);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    const bus_error error = first_error(p.bin, 10 * GST_SECOND);
    ASSERT_TRUE(error.found);
    EXPECT_EQ(error.domain, GST_STREAM_ERROR);
    EXPECT_EQ(error.code, GST_STREAM_ERROR_FAILED);
    EXPECT_EQ(error.message, "Internal data stream error.");
    EXPECT_NE(error.debug.find("not-negotiated"), std::string::npos) << error.debug;
    // Pushing stopped: the data keeps being counted, no second error comes.
    const uint64_t bytes = std::stoull(items_of(p.capture)["Data counter"]);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_FALSE(first_error(p.bin, 0).found);
    EXPECT_GE(std::stoull(items_of(p.capture)["Data counter"]), bytes);
    EXPECT_EQ(items_of(p.capture)["Asi last error"], "Can't push buffer, err = -4");
}

TEST(ElementInteropErrors, GstLaunchEndsWithAnErrorWhenDownstreamRefusesTheCaps) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "5000000"}});
    const auto run =
        run_gst_launch({"vqasicapture", "v4l2=/dev/video0", "!", "appsink", "caps=video/mpegts,clock=(int)1"});
    ASSERT_TRUE(run.ended) << run.output;
    EXPECT_FALSE(run.exited_with(0)) << run.output;
    EXPECT_NE(run.output.find("Internal data stream error"), std::string::npos) << run.output;
    // The first frames with data come 60 ms after streaming starts.
    EXPECT_LT(run.elapsed, std::chrono::seconds(1)) << run.output;
}

TEST(ElementInteropErrors, GstLaunchReportsAMissingDevice) {
    const auto run = run_gst_launch({"vqasicapture", "v4l2=/dev/vq-no-such-node", "!", "fakesink"});
    ASSERT_TRUE(run.ended) << run.output;
    EXPECT_FALSE(run.exited_with(0)) << run.output;
    EXPECT_NE(run.output.find("/dev/vq-no-such-node"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("vqasicapture: Can't open asi device: /dev/vq-no-such-node"), std::string::npos);
}

// The README's gst-launch-1.0 lines, as written there but with 127.0.0.1 for the
// multicast group and files of this process; each runs two seconds and ends cleanly on
// the interrupt.
TEST(ElementInteropReadme, GstLaunchExamplesRun) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "5000000"}});
    const std::string file = vq_element_test::scratch_file("readme-capture") + ".ts";
    const std::vector<std::vector<std::string>> examples = {
        {"-e", "vqasicapture", "v4l2=/dev/video0", "!", "filesink", "location=" + file},
        {"-e", "vqasicapture", "v4l2=/dev/video0", "!", "udpsink", "host=127.0.0.1", "port=1234"},
        {"-e", "vqasicapture", "v4l2=/dev/video0", "!", "queue", "!", "tsdemux", "!", "fakesink"},
        {"-e", "vqasicapture", "v4l2=/dev/video0", "!", "tsparse", "!", "tsdemux", "!", "mpegvideoparse", "!",
         "fakesink", "sync=true"},
        {"-e", "-m", "vqasicapture", "v4l2=/dev/video0", "alarm-source-name=cam1", "!", "fakesink"},
    };
    for (const auto& args : examples) {
        const auto run = run_gst_launch(args, std::chrono::seconds(2));
        EXPECT_TRUE(run.exited_with(0)) << args[2] << " ... " << args.back() << "\n" << run.output;
        EXPECT_EQ(run.output.find("ERROR"), std::string::npos) << run.output;
        EXPECT_EQ(run.output.find("WARNING"), std::string::npos) << run.output;
    }
    std::remove(file.c_str());
}

TEST(ElementInteropReadme, T2miExampleRecordsThePlp) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("t2mi-plp102.ts")}, {"VQASISIM_BITRATE", "8000000"}});
    const std::string file = vq_element_test::scratch_file("readme-plp102") + ".ts";
    const auto run = run_gst_launch(
        {"-e", "vqasicapture", "v4l2=/dev/video0", "input_type=1", "plp=102", "!", "filesink", "location=" + file},
        std::chrono::seconds(2));
    EXPECT_TRUE(run.exited_with(0)) << run.output;
    std::ifstream out(file, std::ios::binary | std::ios::ate);
    EXPECT_GT(static_cast<long>(out.tellg()), 0L);
    std::remove(file.c_str());
}

}  // namespace
