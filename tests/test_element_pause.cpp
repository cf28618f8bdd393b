// PLAYING to PAUSED and back with a downstream that blocks the capture thread's
// push (an appsink whose queue is full, a synchronising sink waiting for preroll):
// the state changes return promptly and every buffer pushed arrives, in order.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "element/element_test_util.h"
#include "support/test_data.h"

namespace {

using vq_element_test::pipeline;
using vq_element_test::sim_settings;

constexpr size_t kBufferBytes = 7 * 188;

// What identifies a pushed buffer: its offset, its time stamp and a checksum of its bytes.
struct buffer_id {
    guint64 offset;
    GstClockTime pts;
    uint64_t sum;
    bool operator==(const buffer_id& o) const { return offset == o.offset && pts == o.pts && sum == o.sum; }
};

buffer_id id_of(GstBuffer* buffer) {
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_READ);
    uint64_t sum = map.size;
    for (gsize i = 0; i < map.size; ++i)
        sum = sum * 1099511628211ull + map.data[i];
    gst_buffer_unmap(buffer, &map);
    return {GST_BUFFER_OFFSET(buffer), GST_BUFFER_PTS(buffer), sum};
}

// Every buffer that leaves src_asi, in push order.
class push_log {
public:
    explicit push_log(GstElement* capture) {
        GstPad* pad = gst_element_get_static_pad(capture, "src_asi");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, &push_log::on_buffer, this, nullptr);
        gst_object_unref(pad);
    }
    std::vector<buffer_id> ids() const {
        std::lock_guard<std::mutex> lock(m_cs);
        return m_ids;
    }

private:
    static GstPadProbeReturn on_buffer(GstPad*, GstPadProbeInfo* info, gpointer self) {
        auto* log = static_cast<push_log*>(self);
        const buffer_id id = id_of(GST_PAD_PROBE_INFO_BUFFER(info));
        std::lock_guard<std::mutex> lock(log->m_cs);
        log->m_ids.push_back(id);
        return GST_PAD_PROBE_OK;
    }
    mutable std::mutex m_cs;
    std::vector<buffer_id> m_ids;
};

// Changes the state on another thread and waits for it at most 10 s: a state change
// that never returns is a deadlock, reported before the process is ended.
double timed_set_state(GstElement* element, GstState state) {
    const auto t0 = std::chrono::steady_clock::now();
    auto change = std::async(std::launch::async, [=] { return gst_element_set_state(element, state); });
    if (change.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        std::fprintf(stderr, "FATAL: the change to %s has not returned within 10 s\n",
                     gst_element_state_get_name(state));
        std::fflush(stderr);
        std::abort();
    }
    EXPECT_NE(change.get(), GST_STATE_CHANGE_FAILURE);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Offsets restart at 0 with each play and grow by one buffer at a time in between.
::testing::AssertionResult offsets_run_per_play(const std::vector<buffer_id>& ids, size_t plays) {
    size_t starts = 0;
    for (size_t i = 0; i < ids.size(); ++i) {
        if (ids[i].offset == 0) {
            ++starts;
            continue;
        }
        if (i == 0 || ids[i].offset != ids[i - 1].offset + kBufferBytes)
            return ::testing::AssertionFailure() << "buffer " << i << " has offset " << ids[i].offset;
    }
    if (starts != plays)
        return ::testing::AssertionFailure() << starts << " runs for " << plays << " plays";
    return ::testing::AssertionSuccess();
}

TEST(ElementPause, AFullAppsinkQueueBlocksNoStateChangeAndLosesNothing) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "8000000"}});
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! appsink name=sink max-buffers=1 drop=false sync=false");
    ASSERT_NE(p.capture, nullptr);
    GstElement* sink = p.by_name("sink");
    push_log pushed(p.capture);
    std::vector<buffer_id> received;
    auto pull = [&](int count, GstClockTime timeout) {
        int n = 0;
        for (; n < count; ++n) {
            GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), timeout);
            if (!sample)
                break;
            received.push_back(id_of(gst_sample_get_buffer(sample)));
            gst_sample_unref(sample);
        }
        return n;
    };

    const int plays = 5;
    for (int round = 0; round < plays; ++round) {
        SCOPED_TRACE(round);
        // The previous round left the queue full and the capture thread waiting in its push.
        EXPECT_LT(timed_set_state(p.bin, GST_STATE_PLAYING), 1.0);
        EXPECT_EQ(pull(30, 5 * GST_SECOND), 30);
        EXPECT_LT(timed_set_state(p.bin, GST_STATE_PAUSED), 1.0);
    }
    // The last play: the source stops alone while the sink still plays, and the queue is
    // drained until nothing more comes.
    EXPECT_LT(timed_set_state(p.bin, GST_STATE_PLAYING), 1.0);
    EXPECT_EQ(pull(30, 5 * GST_SECOND), 30);
    EXPECT_LT(timed_set_state(p.capture, GST_STATE_PAUSED), 1.0);
    pull(1000000, GST_SECOND);

    const std::vector<buffer_id> ids = pushed.ids();
    ASSERT_GE(ids.size(), (plays + 1) * 30u);
    EXPECT_EQ(received.size(), ids.size());
    EXPECT_TRUE(received == ids) << "the buffers arrived in another order, or some were lost";
    EXPECT_TRUE(offsets_run_per_play(received, plays + 1));
    gst_element_set_state(p.bin, GST_STATE_NULL);
    gst_object_unref(sink);
}

// What the fakesink handed off, in order.
struct handoff_log {
    std::mutex cs;
    std::vector<buffer_id> ids;
    size_t size() {
        std::lock_guard<std::mutex> lock(cs);
        return ids.size();
    }
    static void on_handoff(GstElement*, GstBuffer* buffer, GstPad*, gpointer self) {
        auto* log = static_cast<handoff_log*>(self);
        const buffer_id id = id_of(buffer);
        std::lock_guard<std::mutex> lock(log->cs);
        log->ids.push_back(id);
    }
};

TEST(ElementPause, ASynchronisingSinkWaitingForPrerollBlocksNoStateChange) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "8000000"}});
    handoff_log received;
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink name=sink sync=true signal-handoffs=true");
    ASSERT_NE(p.capture, nullptr);
    GstElement* sink = p.by_name("sink");
    push_log pushed(p.capture);
    g_signal_connect(sink, "handoff", G_CALLBACK(handoff_log::on_handoff), &received);

    const int plays = 4;
    for (int round = 0; round < plays; ++round) {
        SCOPED_TRACE(round);
        const size_t before = received.size();
        EXPECT_LT(timed_set_state(p.bin, GST_STATE_PLAYING), 1.0);
        EXPECT_TRUE(vq_element_test::wait_until([&] { return received.size() > before + 20; }));
        EXPECT_LT(timed_set_state(p.bin, GST_STATE_PAUSED), 1.0);
    }
    const size_t before = received.size();
    EXPECT_LT(timed_set_state(p.bin, GST_STATE_PLAYING), 1.0);
    EXPECT_TRUE(vq_element_test::wait_until([&] { return received.size() > before + 20; }));
    // With the sink playing nothing holds the capture thread: the stop joins it.
    EXPECT_LT(timed_set_state(p.capture, GST_STATE_PAUSED), 1.0);
    {
        std::lock_guard<std::mutex> lock(received.cs);
        EXPECT_TRUE(received.ids == pushed.ids()) << received.ids.size() << " of " << pushed.ids().size();
        EXPECT_TRUE(offsets_run_per_play(received.ids, plays + 1));
    }
    gst_element_set_state(p.bin, GST_STATE_NULL);
    gst_object_unref(sink);
}

TEST(ElementPause, AThreadLeftInItsPushSendsNothingOnThePadOfTheNextStart) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "8000000"}});
    vq_element_test::log_capture gstreamerWarnings("GStreamer");
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! appsink name=sink max-buffers=1 drop=false sync=false");
    ASSERT_NE(p.capture, nullptr);
    GstElement* sink = p.by_name("sink");
    EXPECT_LT(timed_set_state(p.bin, GST_STATE_PLAYING), 1.0);
    EXPECT_TRUE(
        vq_element_test::wait_until([&] { return vq_element_test::item_number(p.capture, "Data counter") > 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    // The queue of one buffer holds the capture thread in its push; the element alone
    // stops, goes down to READY (its pad inactive) and back to PAUSED (active again).
    EXPECT_LT(timed_set_state(p.capture, GST_STATE_PAUSED), 1.0);
    EXPECT_LT(timed_set_state(p.capture, GST_STATE_READY), 1.0);
    EXPECT_LT(timed_set_state(p.capture, GST_STATE_PAUSED), 1.0);
    // Emptying the queue lets the old thread finish its frame: only the buffer that
    // was queued and the one caught in the push arrive, nothing more of the frame.
    int drained = 0;
    while (GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 300 * GST_MSECOND)) {
        gst_sample_unref(sample);
        ++drained;
    }
    EXPECT_LE(drained, 2);
    // The next start streams again, from its own stream-start.
    EXPECT_LT(timed_set_state(p.capture, GST_STATE_PLAYING), 1.0);
    for (int i = 0; i < 30; ++i) {
        GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 5 * GST_SECOND);
        ASSERT_NE(sample, nullptr) << i;
        gst_sample_unref(sample);
    }
    EXPECT_EQ(gstreamerWarnings.messages(), std::vector<std::string>());
    gst_element_set_state(p.bin, GST_STATE_NULL);
    gst_object_unref(sink);
}

TEST(ElementPause, FinalizeAfterAStopThatLeftTheThreadInItsPush) {
    std::map<std::string, uint64_t> served;
    {
        sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "8000000"}});
        {
            pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! appsink name=sink max-buffers=1 drop=false");
            ASSERT_NE(p.capture, nullptr);
            EXPECT_LT(timed_set_state(p.bin, GST_STATE_PLAYING), 1.0);
            // Data flows; the queue of one buffer soon holds the capture thread in its push.
            EXPECT_TRUE(vq_element_test::wait_until(
                [&] { return vq_element_test::item_number(p.capture, "Data counter") > 0; }));
            EXPECT_LT(timed_set_state(p.bin, GST_STATE_PAUSED), 1.0);
            // Down to NULL (the sink flushes and lets the push go) and finalized.
            EXPECT_LT(timed_set_state(p.bin, GST_STATE_NULL), 1.0);
        }
        served = sim.summary();
    }
    EXPECT_EQ(served["stream_starts"], 1u);
    EXPECT_EQ(served["mappings_left"], 0u);
    EXPECT_GT(served["frames_dequeued"], 0u);
}

}  // namespace
