// vqasicapture under abuse, on the simulated board: random state transitions with
// property changes while playing, a device that disappears mid-stream, an
// unlinked pad, and a downstream that returns errors or blocks. Nothing may
// crash, hang or leak (the sanitizer build runs LeakSanitizer), and every failure
// must show where the element reports it: the statistics' last error, the
// signal state, the alarms, the g_print lines.

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "element/element_test_util.h"
#include "support/recording_alarm_manager.h"
#include "support/test_data.h"
#include "vq_asi_capture/vq_alarm_data.h"
#include "vqasisim_testing.h"

namespace {

using vq_element_test::item_number;
using vq_element_test::items_of;
using vq_element_test::wait_until;
const char* const kDevice = "/dev/video0";

// A board at 20 Mbit/s with a few faults, reporting to the test's summary file.
std::map<std::string, std::string> board(const std::map<std::string, std::string>& extra = {}) {
    std::map<std::string, std::string> vars = {{"VQASISIM_DEVICE", kDevice},
                                               {"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")},
                                               {"VQASISIM_BITRATE", "20000000"},
                                               {"VQASISIM_SUMMARY", vqasisim_testing::test_summary_file()}};
    for (const auto& e : extra)
        vars[e.first] = e.second;
    return vars;
}

// Runs `step` on a thread of its own; false if it has not finished within `limit`
// (the thread is then left behind: the process is beyond repair anyway).
template <typename Step>
bool finishes_within(Step step, std::chrono::seconds limit) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([step, done] {
        step();
        done->set_value();
    }).detach();
    return finished.wait_for(limit) == std::future_status::ready;
}

size_t occurrences(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++n;
    return n;
}

unsigned transitions_from_environment() {
    const char* v = std::getenv("VQ_ABUSE_TRANSITIONS");
    const long n = v ? std::atol(v) : 0;
    return n > 0 ? unsigned(n) : 1000u;
}

// The element's own state-change lines between two states (one per step).
void count_steps(GstState from, GstState to, std::map<std::string, size_t>& lines) {
    while (from < to) {
        if (from == GST_STATE_NULL)
            ++lines["vq_asi_capture: NULL_TO_READY\n"];
        if (from == GST_STATE_PAUSED)
            ++lines["vq_asi_capture: PAUSED_TO_PLAYING\n"];
        from = GstState(from + 1);
    }
    while (from > to) {
        if (from == GST_STATE_PLAYING)
            ++lines["vq_asi_capture: PLAYING_TO_PAUSED\n"];
        if (from == GST_STATE_READY)
            ++lines["vq_asi_capture: READY_TO_NULL\n"];
        from = GstState(from - 1);
    }
}

GstState state_of(GstElement* element) {
    GstState state = GST_STATE_VOID_PENDING;
    gst_element_get_state(element, &state, nullptr, 0);
    return state;
}

TEST(ElementAbuse, RandomStateTransitionsWithPropertyChanges) {
    const unsigned transitions = transitions_from_environment();
    const unsigned seed = 20261121u;
    std::printf("[ abuse ] %u transitions, seed %u\n", transitions, seed);
    std::mt19937 random(seed);
    vqasisim_testing::scoped_env env(board({{"VQASISIM_CC_ERRORS", "500"},
                                            {"VQASISIM_GARBAGE", "3000:500"},
                                            {"VQASISIM_SEQ_GAP", "40:1"},
                                            {"VQASISIM_SIGNAL", "ok:0.7,nolock:0.2,ok:0.5,range:0.1"}}));
    vq_test::recording_alarm_manager managers[2];
    vq_element_test::print_capture prints;
    vq_element_test::log_capture gstreamerWarnings("GStreamer");
    std::map<std::string, size_t> expectedLines;
    size_t failedOpens = 0, playing = 0;
    {
        vq_element_test::init_gstreamer();
        // An asynchronous sink: the element is live, so no change waits for a preroll.
        GstElement* bin = gst_parse_launch("vqasicapture name=cap v4l2=/dev/video0 ! fakesink sync=false", nullptr);
        ASSERT_NE(bin, nullptr);
        GstElement* cap = gst_bin_get_by_name(GST_BIN(bin), "cap");
        ASSERT_NE(cap, nullptr);
        const GstState states[] = {GST_STATE_NULL, GST_STATE_READY, GST_STATE_PAUSED, GST_STATE_PLAYING};
        const char* const names[] = {"", "cam1", "cam2", "a rather long alarm source name, longer than SSO"};
        bool wrongPath = false;
        for (unsigned i = 0; i < transitions; ++i) {
            SCOPED_TRACE(i);
            const GstState target = states[random() % 4];
            const GstState before = state_of(cap);
            const GstStateChangeReturn ret = gst_element_set_state(bin, target);
            const GstState after = state_of(cap);
            count_steps(before, after, expectedLines);
            if (before == GST_STATE_NULL && target != GST_STATE_NULL && wrongPath) {
                // The device cannot be opened: the change fails and the element stays in NULL.
                EXPECT_EQ(ret, GST_STATE_CHANGE_FAILURE);
                EXPECT_EQ(after, GST_STATE_NULL);
                ++expectedLines["vq_asi_capture: NULL_TO_READY\n"];
                ++failedOpens;
            } else {
                ASSERT_NE(ret, GST_STATE_CHANGE_FAILURE) << "to " << gst_element_state_get_name(target);
                EXPECT_EQ(after, target) << "from " << gst_element_state_get_name(before) << ": "
                                         << gst_element_state_change_return_get_name(ret);
            }
            playing += after == GST_STATE_PLAYING;

            // Properties, mostly while playing; every value is read back.
            const int inputType = int(random() % 2), plp = int(random() % 256);
            g_object_set(cap, "input_type", inputType, "plp", plp, nullptr);
            g_object_set(cap, "alarm-manager",
                         random() % 3 == 0 ? nullptr : static_cast<vq_i_alarm_manager*>(&managers[random() % 2]),
                         nullptr);
            g_object_set(cap, "alarm-source-name", names[random() % 4], nullptr);
            if (after == GST_STATE_NULL) {
                wrongPath = random() % 8 == 0;
                g_object_set(cap, "v4l2", wrongPath ? "/dev/video-missing" : kDevice, nullptr);
            }
            gint readType = -1, readPlp = -1;
            g_object_get(cap, "input_type", &readType, "plp", &readPlp, nullptr);
            EXPECT_EQ(readType, inputType);
            EXPECT_EQ(readPlp, plp);
            EXPECT_EQ(items_of(cap).size(), 15u);
            if (random() % 4 == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 60));
        }
        // After all this the element still captures.
        g_object_set(cap, "v4l2", kDevice, "input_type", 0, nullptr);
        count_steps(state_of(cap), GST_STATE_NULL, expectedLines);
        ASSERT_NE(gst_element_set_state(bin, GST_STATE_NULL), GST_STATE_CHANGE_FAILURE);
        ASSERT_NE(gst_element_set_state(bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        count_steps(GST_STATE_NULL, GST_STATE_PLAYING, expectedLines);
        EXPECT_TRUE(wait_until([&] { return item_number(cap, "Asi capture frames") > 20; }));
        // A pause can catch a push on its way into the pausing sink, which flushes it.
        const std::string error = items_of(cap)["Asi last error"];
        EXPECT_TRUE(error.empty() || error == "Can't push buffer, err = " + std::to_string(int(GST_FLOW_FLUSHING)))
            << error;
        ASSERT_NE(gst_element_set_state(bin, GST_STATE_NULL), GST_STATE_CHANGE_FAILURE);
        count_steps(GST_STATE_PLAYING, GST_STATE_NULL, expectedLines);
        gst_object_unref(cap);
        gst_object_unref(bin);
    }
    std::printf("[ abuse ] %zu periods in PLAYING, %zu refused opens\n", playing, failedOpens);
    EXPECT_GT(playing, transitions / 8);
    EXPECT_GT(failedOpens, 0u);
    // One line per step taken, and the device's message for every refused open.
    const std::string printed = prints.str();
    for (const auto& line : expectedLines)
        EXPECT_EQ(occurrences(printed, line.first), line.second) << line.first;
    EXPECT_EQ(occurrences(printed, "vqasicapture: Can't open asi device: /dev/video-missing\n"), failedOpens);
    // Nothing stays registered with either manager.
    EXPECT_TRUE(managers[0].held().empty());
    EXPECT_TRUE(managers[1].held().empty());
    // A capture thread finishing its frame after a stop pushes nothing more.
    EXPECT_EQ(gstreamerWarnings.messages(), std::vector<std::string>());
}

TEST(ElementAbuse, ElementAloneCyclesWhileTheSinkPlays) {
    vqasisim_testing::scoped_env env(board({{"VQASISIM_CC_ERRORS", "300"}}));
    vq_element_test::log_capture gstreamerWarnings("GStreamer");
    vq_element_test::init_gstreamer();
    GstElement* bin = gst_parse_launch("vqasicapture name=cap v4l2=/dev/video0 ! fakesink sync=false", nullptr);
    ASSERT_NE(bin, nullptr);
    GstElement* cap = gst_bin_get_by_name(GST_BIN(bin), "cap");
    ASSERT_NE(gst_element_set_state(bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    std::mt19937 random(7);
    const GstState states[] = {GST_STATE_NULL, GST_STATE_READY, GST_STATE_PAUSED, GST_STATE_PLAYING};
    for (int i = 0; i < 100; ++i) {
        const GstState target = states[random() % 4];
        ASSERT_NE(gst_element_set_state(cap, target), GST_STATE_CHANGE_FAILURE) << i;
        EXPECT_EQ(state_of(cap), target);
        if (target == GST_STATE_PLAYING)
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
    }
    ASSERT_NE(gst_element_set_state(cap, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(wait_until([&] { return item_number(cap, "Asi capture frames") > 10; }));
    gst_element_set_state(bin, GST_STATE_NULL);
    gst_object_unref(cap);
    gst_object_unref(bin);
    // Every push after a start follows its stream-start.
    EXPECT_EQ(gstreamerWarnings.messages(), std::vector<std::string>());
}

TEST(ElementAbuse, DeviceDisappearsMidStream) {
    const std::string summaryFile = vqasisim_testing::test_summary_file();
    vq_test::recording_alarm_manager manager;
    {
        vqasisim_testing::scoped_env env(board({{"VQASISIM_REMOVE_AFTER", "1.5"}}));
        vq_element_test::print_capture prints;
        vq_element_test::init_gstreamer();
        GstElement* bin = gst_parse_launch("vqasicapture name=cap v4l2=/dev/video0 ! fakesink sync=false", nullptr);
        ASSERT_NE(bin, nullptr);
        GstElement* cap = gst_bin_get_by_name(GST_BIN(bin), "cap");
        g_object_set(cap, "alarm-source-name", "gone", "alarm-manager", static_cast<vq_i_alarm_manager*>(&manager),
                     nullptr);
        ASSERT_NE(gst_element_set_state(bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        EXPECT_TRUE(wait_until([&] { return item_number(cap, "Asi capture frames") > 10; }));

        // Gone: the timing query fails with ENODEV, which reads as an unknown signal.
        EXPECT_TRUE(wait_until([&] { return items_of(cap)["Signal state"] == "Unknown"; }));
        const uint64_t frames = item_number(cap, "Asi capture frames");
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_EQ(item_number(cap, "Asi capture frames"), frames);
        EXPECT_EQ(items_of(cap)["No data/link/lock/range/unknown"], "0/0/0/0/1");
        // Without lock and without data, the input alarms rise.
        std::map<int, bool> active;
        EXPECT_TRUE(wait_until(
            [&] {
                for (const auto& alarm : manager.held()) {
                    alarm->check();
                    const vq_alarm_data d = alarm->get_data();
                    active[int(d.code)] = d.active;
                }
                return active[eAlarmASIInputSyncLost] && active[eAlarmASIInputRawNoInputData] &&
                       active[eAlarmASIInputNoInputData];
            },
            std::chrono::seconds(10)));

        // Stopping and closing a removed device works; the next open finds the board back.
        EXPECT_TRUE(finishes_within([bin] { gst_element_set_state(bin, GST_STATE_NULL); }, std::chrono::seconds(30)));
        EXPECT_EQ(occurrences(prints.str(), "vq_asi_capture: READY_TO_NULL\n"), 1u);
        EXPECT_TRUE(manager.held().empty());
        const vqasisim_testing::summary s = vqasisim_testing::read_summary(summaryFile, kDevice);
        EXPECT_EQ(s.events_of("removed").size(), 1u);
        EXPECT_GT(s.number("removed_failures"), 10u);
        EXPECT_GT(s.ioctl_calls("DQBUF").second, 0u);
        EXPECT_EQ(s.ioctl_calls("STREAMOFF").second, s.ioctl_calls("STREAMOFF").first);
        ASSERT_NE(gst_element_set_state(bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        EXPECT_TRUE(wait_until([&] { return item_number(cap, "Asi capture frames") > 10; }));
        EXPECT_EQ(items_of(cap)["Asi last error"], "");
        gst_element_set_state(bin, GST_STATE_NULL);
        gst_object_unref(cap);
        gst_object_unref(bin);
    }
    std::remove(summaryFile.c_str());
}

TEST(ElementAbuse, UnlinkedPadPlaysWithoutCapturing) {
    const std::string summaryFile = vqasisim_testing::test_summary_file();
    {
        vqasisim_testing::scoped_env env(board({{"VQASISIM_PACING", "fast"}}));
        GstElement* cap = vq_element_test::make_capture_element();
        ASSERT_NE(cap, nullptr);
        g_object_set(cap, "v4l2", kDevice, nullptr);
        for (int i = 0; i < 30; ++i) {
            ASSERT_NE(gst_element_set_state(cap, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE) << i;
            g_object_set(cap, "input_type", i % 2, "plp", i, nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            EXPECT_EQ(item_number(cap, "Raw data counter"), 0u);
            ASSERT_NE(gst_element_set_state(cap, i % 3 == 0 ? GST_STATE_NULL : GST_STATE_PAUSED),
                      GST_STATE_CHANGE_FAILURE);
        }
        gst_element_set_state(cap, GST_STATE_NULL);
        gst_object_unref(cap);
    }
    const vqasisim_testing::summary s = vqasisim_testing::read_summary(summaryFile, kDevice);
    std::remove(summaryFile.c_str());
    EXPECT_EQ(s.number("frames_dequeued"), 0u);
}

TEST(ElementAbuse, PadUnlinkedAndRelinkedMidStream) {
    vqasisim_testing::scoped_env env(board());
    vq_element_test::init_gstreamer();
    GstElement* bin =
        gst_parse_launch("vqasicapture name=cap v4l2=/dev/video0 ! fakesink name=sink sync=false", nullptr);
    ASSERT_NE(bin, nullptr);
    GstElement* cap = gst_bin_get_by_name(GST_BIN(bin), "cap");
    GstElement* sink = gst_bin_get_by_name(GST_BIN(bin), "sink");
    GstPad* src = gst_element_get_static_pad(cap, "src_asi");
    GstPad* sinkPad = gst_element_get_static_pad(sink, "sink");
    ASSERT_NE(gst_element_set_state(bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        const uint64_t pushed = item_number(cap, "Asi capture frames");
        EXPECT_TRUE(wait_until([&] { return item_number(cap, "Asi capture frames") > pushed + 10; }));
        ASSERT_TRUE(gst_pad_unlink(src, sinkPad));
        // Unlinked: frames are still taken from the device, but dropped silently.
        const uint64_t frames = item_number(cap, "Asi capture frames"), raw = item_number(cap, "Raw data counter");
        EXPECT_TRUE(wait_until([&] { return item_number(cap, "Raw data counter") > raw + 1000000; }));
        EXPECT_LE(item_number(cap, "Asi capture frames"), frames + 1);
        ASSERT_EQ(gst_pad_link(src, sinkPad), GST_PAD_LINK_OK);
    }
    // A buffer caught by the unlink may have been refused: only "not linked" can show.
    const std::string error = items_of(cap)["Asi last error"];
    EXPECT_TRUE(error.empty() || error == "Can't push buffer, err = " + std::to_string(int(GST_FLOW_NOT_LINKED)))
        << error;
    gst_element_set_state(bin, GST_STATE_NULL);
    gst_object_unref(src);
    gst_object_unref(sinkPad);
    gst_object_unref(cap);
    gst_object_unref(sink);
    gst_object_unref(bin);
}

// A downstream pad whose chain function answers with a chosen flow, or blocks
// until it is let go.
struct downstream {
    std::atomic<int> flow{GST_FLOW_OK};
    std::atomic<unsigned> chained{0};
    std::mutex cs;
    std::condition_variable changed;
    bool blocking = false;
    bool blocked = false;

    static GstFlowReturn chain(GstPad* pad, GstObject*, GstBuffer* buffer) {
        auto* self = static_cast<downstream*>(g_object_get_data(G_OBJECT(pad), "downstream"));
        gst_buffer_unref(buffer);
        ++self->chained;
        std::unique_lock<std::mutex> lock(self->cs);
        if (self->blocking) {
            self->blocked = true;
            self->changed.notify_all();
            self->changed.wait(lock, [self] { return !self->blocking; });
            self->blocked = false;
        }
        return GstFlowReturn(self->flow.load());
    }
    void block() {
        std::lock_guard<std::mutex> lock(cs);
        blocking = true;
    }
    bool wait_blocked() {
        std::unique_lock<std::mutex> lock(cs);
        return changed.wait_for(lock, std::chrono::seconds(20), [this] { return blocked; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(cs);
        blocking = false;
        changed.notify_all();
    }
};

struct harness {
    GstHarness* h;
    downstream sink;
    harness() {
        vq_element_test::init_gstreamer();
        h = gst_harness_new_with_padnames("vqasicapture", nullptr, "src_asi");
        g_object_set(h->element, "v4l2", kDevice, nullptr);
        g_object_set_data(G_OBJECT(h->sinkpad), "downstream", &sink);
        gst_pad_set_chain_function(h->sinkpad, downstream::chain);
    }
    ~harness() {
        sink.release();
        gst_harness_teardown(h);
    }
};

// Each refused push becomes the last error. A fatal flow (an error, not negotiated,
// not linked) also posts one element error and stops the pushing until the next
// play; flushing and end of stream do neither.
TEST(ElementAbuse, DownstreamErrorsBecomeTheLastError) {
    vqasisim_testing::scoped_env env(board());
    harness t;
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(t.h->element, bus);
    for (GstFlowReturn flow : {GST_FLOW_ERROR, GST_FLOW_FLUSHING, GST_FLOW_NOT_NEGOTIATED, GST_FLOW_EOS,
                               GST_FLOW_NOT_LINKED, GST_FLOW_CUSTOM_ERROR}) {
        SCOPED_TRACE(gst_flow_get_name(flow));
        t.sink.flow = GST_FLOW_OK;
        ASSERT_NE(gst_element_set_state(t.h->element, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        const unsigned flowing = t.sink.chained;
        EXPECT_TRUE(wait_until([&] { return t.sink.chained > flowing + 5; }));
        t.sink.flow = flow;
        const std::string expected = "Can't push buffer, err = " + std::to_string(int(flow));
        EXPECT_TRUE(wait_until([&] { return items_of(t.h->element)["Asi last error"] == expected; }));
        const bool fatal = flow == GST_FLOW_NOT_LINKED || flow < GST_FLOW_EOS;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        const unsigned chained = t.sink.chained;
        if (fatal) {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            EXPECT_EQ(t.sink.chained, chained) << "pushed after a fatal flow";
        } else {
            EXPECT_TRUE(wait_until([&] { return t.sink.chained > chained + 20; }));
        }
        size_t errors = 0;
        while (GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
            GError* error = nullptr;
            gchar* debug = nullptr;
            gst_message_parse_error(msg, &error, &debug);
            EXPECT_EQ(error->domain, GST_STREAM_ERROR);
            EXPECT_NE(std::string(debug).find(gst_flow_get_name(flow)), std::string::npos) << debug;
            g_error_free(error);
            g_free(debug);
            gst_message_unref(msg);
            ++errors;
        }
        EXPECT_EQ(errors, fatal ? 1u : 0u);
        ASSERT_NE(gst_element_set_state(t.h->element, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    }
    t.sink.flow = GST_FLOW_OK;
    // The last error stays until another one replaces it; a new play does not clear it.
    ASSERT_NE(gst_element_set_state(t.h->element, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    const unsigned chained = t.sink.chained;
    EXPECT_TRUE(wait_until([&] { return t.sink.chained > chained + 20; }));
    EXPECT_EQ(items_of(t.h->element)["Asi last error"],
              "Can't push buffer, err = " + std::to_string(int(GST_FLOW_CUSTOM_ERROR)));
    gst_element_set_state(t.h->element, GST_STATE_NULL);
    gst_element_set_bus(t.h->element, nullptr);
    gst_object_unref(bus);
}

TEST(ElementAbuse, DownstreamThatBlocks) {
    vqasisim_testing::scoped_env env(board());
    harness t;
    GstElement* cap = t.h->element;
    ASSERT_NE(gst_element_set_state(cap, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(wait_until([&] { return t.sink.chained > 10; }));

    // Blocked in a push: the statistics stay readable and a pause returns.
    t.sink.block();
    ASSERT_TRUE(t.sink.wait_blocked());
    EXPECT_EQ(items_of(cap).size(), 15u);
    EXPECT_TRUE(finishes_within([cap] { gst_element_set_state(cap, GST_STATE_PAUSED); }, std::chrono::seconds(30)));
    EXPECT_EQ(state_of(cap), GST_STATE_PAUSED);
    // Let go, a new play starts afresh.
    t.sink.release();
    ASSERT_NE(gst_element_set_state(cap, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    unsigned chained = t.sink.chained;
    EXPECT_TRUE(wait_until([&] { return t.sink.chained > chained + 10; }));

    // Blocked again, then closed: the close waits for the push and then completes.
    t.sink.block();
    ASSERT_TRUE(t.sink.wait_blocked());
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        gst_element_set_state(cap, GST_STATE_NULL);
        closed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    t.sink.release();
    EXPECT_TRUE(wait_until([&] { return closed.load(); }, std::chrono::seconds(30)));
    if (!closed)
        std::abort();  // a deadlocked close: nothing sensible is left to do
    closer.join();
    EXPECT_EQ(state_of(cap), GST_STATE_NULL);
    // Let go while the pad was being deactivated, the rest of the frame met a flushing pad.
    const std::string error = items_of(cap)["Asi last error"];
    EXPECT_TRUE(error.empty() || error == "Can't push buffer, err = " + std::to_string(int(GST_FLOW_FLUSHING)))
        << error;
}

}  // namespace
