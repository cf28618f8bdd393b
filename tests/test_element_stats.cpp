// What any GStreamer application (Python, Rust, gst-launch-1.0 -m) can read of
// vqasicapture's statistics without a C++ pointer: the "stats" structure.

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>

#include "element/element_test_util.h"
#include "mpegcore/VQStringUtils.h"
#include "support/test_data.h"

namespace {

using vq_element_test::items_of;
using vq_element_test::pipeline;
using vq_element_test::sim_settings;
using vq_element_test::wait_until;

// A copy of the element's "stats" structure.
struct stats_ptr {
    GstStructure* s = nullptr;
    explicit stats_ptr(GstElement* capture) { g_object_get(capture, "stats", &s, nullptr); }
    ~stats_ptr() {
        if (s)
            gst_structure_free(s);
    }
    stats_ptr(const stats_ptr&) = delete;
    stats_ptr& operator=(const stats_ptr&) = delete;
    guint64 u64(const char* field) const {
        guint64 v = 0;
        EXPECT_TRUE(gst_structure_get_uint64(s, field, &v)) << field;
        return v;
    }
    guint u32(const char* field) const {
        guint v = 0;
        EXPECT_TRUE(gst_structure_get_uint(s, field, &v)) << field;
        return v;
    }
    std::string str(const char* field) const {
        const gchar* v = gst_structure_get_string(s, field);
        EXPECT_NE(v, nullptr) << field;
        return v ? v : "";
    }
    std::string min_avg_max(const std::string& prefix) const {
        return std::to_string(u64((prefix + "-min").c_str())) + "/" + std::to_string(u64((prefix + "-avg").c_str())) +
               "/" + std::to_string(u64((prefix + "-max").c_str()));
    }
};

TEST(ElementStats, FieldsEqualTheItemsAndTrackTheSimulator) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")},
                      {"VQASISIM_BITRATE", "8000000"},
                      {"VQASISIM_SEQ_GAP", "20:1"},
                      {"VQASISIM_SIGNAL", "ok:0.5,nolink:0.3,ok"}});
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink");
    ASSERT_NE(p.capture, nullptr);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(wait_until([&] { return stats_ptr(p.capture).u64("frames") > 100; }));
    // Capture stopped: both views are read from the same counters.
    gst_element_set_state(p.bin, GST_STATE_READY);
    const auto items = items_of(p.capture);
    const stats_ptr stats(p.capture);
    ASSERT_NE(stats.s, nullptr);
    EXPECT_STREQ(gst_structure_get_name(stats.s), "application/x-vqasi-stats");
    EXPECT_EQ(gst_structure_n_fields(stats.s), 25);
    EXPECT_EQ(items.at("System time"),
              VQSDK::toString("hhh:mm:ss.ccc", static_cast<int64_t>(stats.u64("system-time"))));
    EXPECT_EQ(items.at("Signal state"), stats.str("signal-state"));
    EXPECT_EQ(items.at("No data/link/lock/range/unknown"),
              std::to_string(stats.u32("no-data-count")) + "/" + std::to_string(stats.u32("no-link-count")) + "/" +
                  std::to_string(stats.u32("no-lock-count")) + "/" + std::to_string(stats.u32("range-count")) + "/" +
                  std::to_string(stats.u32("unknown-count")));
    EXPECT_EQ(items.at("Bit rate [bit/sec]"), std::to_string(stats.u64("bitrate")));
    EXPECT_EQ(items.at("Data counter"), std::to_string(stats.u64("bytes")));
    EXPECT_EQ(items.at("Raw bit rate [bit/sec]"), std::to_string(stats.u64("raw-bitrate")));
    EXPECT_EQ(items.at("Raw data counter"), std::to_string(stats.u64("raw-bytes")));
    EXPECT_EQ(items.at("Bad bytes"), std::to_string(stats.u64("bad-bytes")));
    EXPECT_EQ(items.at("Asi capture frames"), std::to_string(stats.u64("frames")));
    EXPECT_EQ(items.at("Asi dropped frames"), std::to_string(stats.u64("dropped-frames")));
    EXPECT_EQ(items.at("Asi fake frames"), std::to_string(stats.u64("fake-frames")));
    EXPECT_EQ(items.at("Asi map delay [ms]"), stats.min_avg_max("map-delay"));
    EXPECT_EQ(items.at("Asi push delay [ms]"), stats.min_avg_max("push-delay"));
    EXPECT_EQ(items.at("Asi delay between frames [ms]"), stats.min_avg_max("frame-interval"));
    EXPECT_EQ(items.at("Asi last error"), stats.str("last-error"));
    EXPECT_EQ(stats.u32("no-link-count"), 1u);
    EXPECT_GT(stats.u64("bitrate"), 0u);

    gst_element_set_state(p.bin, GST_STATE_NULL);
    auto served = sim.summary();
    // The device reports the first three frames of a run empty.
    EXPECT_EQ(stats.u64("raw-bytes"), served["bytes"] - 3 * served["frame_size"]);
    EXPECT_EQ(stats.u64("frames"), served["frames_dequeued"] - 3);
    EXPECT_GT(served["seq_gap_frames"], 0u);
    EXPECT_EQ(stats.u64("dropped-frames"), served["seq_gap_frames"]);
}

// Read from a second thread while the capture thread writes (run under ThreadSanitizer
// too). The buffers end on the capture thread, in the chain function of the harness's
// sink pad, so no GStreamer queue stands between the two threads.
GstFlowReturn drop_buffer(GstPad*, GstObject*, GstBuffer* buffer) {
    gst_buffer_unref(buffer);
    return GST_FLOW_OK;
}

TEST(ElementStats, ReadWhilePlayingFromAnotherThread) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "8000000"}});
    vq_element_test::init_gstreamer();
    GstHarness* h = gst_harness_new_with_padnames("vqasicapture", nullptr, "src_asi");
    ASSERT_NE(h, nullptr);
    gst_pad_set_chain_function(h->sinkpad, drop_buffer);
    GstElement* capture = h->element;
    g_object_set(capture, "v4l2", "/dev/video0", nullptr);
    ASSERT_NE(gst_element_set_state(capture, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    ASSERT_TRUE(wait_until([&] { return stats_ptr(capture).u64("bytes") > 0; }));
    guint64 lastBytes = 0;
    bool monotonic = true;
    std::thread reader([&] {
        for (int i = 0; i < 10000; ++i) {
            const stats_ptr stats(capture);
            const guint64 bytes = stats.u64("bytes");
            monotonic = monotonic && bytes >= lastBytes;
            lastBytes = bytes;
        }
    });
    reader.join();
    EXPECT_TRUE(monotonic);
    EXPECT_GT(lastBytes, 0u);
    gst_element_set_state(capture, GST_STATE_NULL);
    gst_harness_teardown(h);
}

}  // namespace
