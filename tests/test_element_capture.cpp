// vqasicapture running on the simulated board: end-to-end data for both input
// types, negotiation and pool, repeated play/pause, statistics and alarms.

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "element/element_test_util.h"
#include "support/recording_alarm_manager.h"
#include "support/test_data.h"
#include "vq_asi_capture/vq_alarm_data.h"
#include "vq_asi_capture/vq_base_statistics.h"

namespace {

using vq_element_test::item_number;
using vq_element_test::items_of;
using vq_element_test::pipeline;
using vq_element_test::scratch_file;
using vq_element_test::sim_settings;
using vq_element_test::wait_until;

constexpr size_t kPacket = 188;
constexpr size_t kFrameSize = 26320;  // the simulator's default frame, 140 packets

// Runs the capture into a file until `bytes` reached the provider, then stops it.
std::vector<uint8_t> capture_to_file(const std::string& properties, uint64_t bytes) {
    const std::string out = scratch_file("vqasicapture-out") + ".ts";
    {
        pipeline p("vqasicapture name=cap v4l2=/dev/video0 " + properties + " ! filesink location=" + out);
        EXPECT_NE(p.capture, nullptr);
        if (!p.capture)
            return {};
        EXPECT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        EXPECT_TRUE(wait_until([&] { return item_number(p.capture, "Data counter") >= bytes; }));
        // The source stops first, while the sink still plays, so every frame taken from
        // the device is pushed (a sink that pauses first discards what is in flight).
        gst_element_set_state(p.capture, GST_STATE_PAUSED);
        EXPECT_EQ(items_of(p.capture)["Asi last error"], "");
    }
    std::vector<uint8_t> data = vq_test::readFile(out);
    std::remove(out.c_str());
    return data;
}

// A pad the demultiplexer adds gets a fakesink of its own, brought to the pipeline's
// state: a pad left unlinked, or linked to a sink still in NULL, stops the demultiplexer
// without an EOS.
void link_to_new_fakesink(GstElement*, GstPad* pad, gpointer bin) {
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
    gst_bin_add(GST_BIN(bin), sink);
    gst_element_sync_state_with_parent(sink);
    GstPad* sinkPad = gst_element_get_static_pad(sink, "sink");
    const GstPadLinkReturn linked = gst_pad_link(pad, sinkPad);
    EXPECT_EQ(linked, GST_PAD_LINK_OK) << GST_PAD_NAME(pad);
    gst_object_unref(sinkPad);
}

// GStreamer's `element` (tsparse, tsdemux) reads the bytes to their end: EOS and no
// ERROR on the bus. `pads` receives the number of source pads the element ended with.
::testing::AssertionResult gst_reads_to_eos(const std::vector<uint8_t>& data, const char* element,
                                            guint* pads = nullptr) {
    const std::string path = scratch_file("vqasicapture-demux") + ".ts";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    GstElement* bin = gst_pipeline_new(nullptr);
    GstElement* src = gst_element_factory_make("filesrc", nullptr);
    GstElement* parser = gst_element_factory_make(element, nullptr);
    if (!src || !parser)
        return ::testing::AssertionFailure() << "no " << element;
    g_object_set(src, "location", path.c_str(), nullptr);
    gst_bin_add_many(GST_BIN(bin), src, parser, nullptr);
    gst_element_link(src, parser);
    if (GstPad* always = gst_element_get_static_pad(parser, "src")) {
        link_to_new_fakesink(parser, always, bin);
        gst_object_unref(always);
    } else {
        g_signal_connect(parser, "pad-added", G_CALLBACK(link_to_new_fakesink), bin);
    }
    gst_element_set_state(bin, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(bin);
    GstMessage* msg = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND,
                                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ::testing::AssertionResult result = ::testing::AssertionSuccess();
    if (!msg) {
        result = ::testing::AssertionFailure() << element << ": no EOS within 60 s";
    } else if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(msg, &error, nullptr);
        result = ::testing::AssertionFailure() << element << ": " << error->message;
        g_error_free(error);
    }
    if (msg)
        gst_message_unref(msg);
    if (pads)
        *pads = parser->numsrcpads;
    gst_object_unref(bus);
    gst_element_set_state(bin, GST_STATE_NULL);
    gst_object_unref(bin);
    std::remove(path.c_str());
    return result;
}

// Index of the 188-byte packet `packet` in `source` (taken as packets of `stride` bytes), or -1.
long find_packet(const std::vector<uint8_t>& source, size_t stride, const uint8_t* packet, size_t from, size_t to) {
    for (size_t i = from; i < to && (i + 1) * stride <= source.size(); ++i)
        if (std::memcmp(&source[i * stride], packet, kPacket) == 0)
            return static_cast<long>(i);
    return -1;
}

// Every output packet equals the source packet that follows the previous one, the
// source played in a loop from packet `first`.
::testing::AssertionResult packets_follow_source(const std::vector<uint8_t>& out, const std::vector<uint8_t>& source,
                                                 size_t stride, size_t first) {
    const size_t count = source.size() / stride;
    if (out.size() % kPacket != 0)
        return ::testing::AssertionFailure() << "output of " << out.size() << " bytes is not whole packets";
    for (size_t i = 0; i < out.size() / kPacket; ++i) {
        const size_t s = (first + i) % count;
        if (std::memcmp(&out[i * kPacket], &source[s * stride], kPacket) != 0)
            return ::testing::AssertionFailure() << "output packet " << i << " differs from source packet " << s;
    }
    return ::testing::AssertionSuccess();
}

TEST(ElementCapture, TransportStreamEndToEnd) {
    const std::vector<uint8_t> source = vq_test::readDataFile("live-025.ts");
    std::vector<uint8_t> out;
    std::map<std::string, uint64_t> served;
    {
        sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_PACING", "fast"}});
        out = capture_to_file("", 4000000);
        served = sim.summary();
    }
    ASSERT_GE(out.size(), 4000000u - 7 * kPacket);
    ASSERT_EQ(served["frame_size"], kFrameSize);
    // Frames 0 to 2 are reported empty: the output starts with the fourth frame's first packet.
    EXPECT_TRUE(packets_follow_source(out, source, kPacket, 3 * kFrameSize / kPacket));
    // Nothing lost but the last, unfilled buffer.
    ASSERT_EQ(served["frames"], served["frames_dequeued"]);
    const uint64_t delivered = served["bytes"] - 3 * kFrameSize;
    EXPECT_LE(delivered - out.size(), 6 * kPacket);
    EXPECT_GE(delivered, out.size());
    EXPECT_TRUE(gst_reads_to_eos(out, "tsparse"));
    // The demultiplexer finds the programme's video and audio streams and reads to EOS.
    guint pads = 0;
    EXPECT_TRUE(gst_reads_to_eos(out, "tsdemux", &pads));
    EXPECT_EQ(pads, 2u);
}

TEST(ElementCapture, PacketsOf204BytesLeaveAs188) {
    const std::vector<uint8_t> source = vq_test::readDataFile("live-025.ts");
    std::vector<uint8_t> out;
    std::map<std::string, uint64_t> served;
    {
        sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")},
                          {"VQASISIM_PACING", "fast"},
                          {"VQASISIM_PACKET_SIZE", "204"}});
        out = capture_to_file("", 2000000);
        served = sim.summary();
    }
    // The data counter counts the 204-byte packets taken from the synchroniser.
    ASSERT_GE(out.size(), 2000000u / 204 * kPacket - 7 * kPacket);
    // The three empty frames end inside packet 387; the first whole one is 388.
    const size_t first = (3 * kFrameSize + 203) / 204;
    const long found = find_packet(source, kPacket, out.data(), 0, source.size() / kPacket);
    EXPECT_EQ(found, static_cast<long>(first));
    EXPECT_TRUE(packets_follow_source(out, source, kPacket, first));
}

TEST(ElementCapture, T2miPlpEndToEnd) {
    const std::vector<uint8_t> carrier = vq_test::readDataFile("t2mi-plp102.ts");
    const std::vector<uint8_t> reference = vq_test::readDataFile("t2mi-plp102.reference-extracted.ts");
    std::vector<uint8_t> out;
    std::map<std::string, uint64_t> served;
    {
        // Paced, so the run stops well within the first pass over the file.
        sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("t2mi-plp102.ts")},
                          {"VQASISIM_BITRATE", "8000000"},
                          {"VQASISIM_FRAME_SIZE", std::to_string(kFrameSize)}});
        out = capture_to_file("input_type=1 plp=102", 400000);
        served = sim.summary();
    }
    ASSERT_GT(out.size(), 0u);
    ASSERT_GT(served["bytes"], 3 * kFrameSize);
    ASSERT_LT(served["bytes"], carrier.size());
    // Every frame the board filled was taken, so the served bytes are the ones processed.
    ASSERT_EQ(served["overruns"], 0u);
    ASSERT_EQ(served["frames"], served["frames_dequeued"]);

    // Running the decapsulator over the same bytes, from the fourth frame on.
    std::vector<uint8_t> bytes(carrier.begin() + 3 * kFrameSize, carrier.begin() + served["bytes"]);
    vq_element_test::plp_extractor expected(102);
    for (size_t at = 0; at < bytes.size(); at += kFrameSize)
        expected.Process(&bytes[at], std::min(kFrameSize, bytes.size() - at));
    ASSERT_GE(expected.out.size(), out.size());
    EXPECT_LE(expected.out.size() - out.size(), 6 * kPacket);
    EXPECT_EQ(std::memcmp(out.data(), expected.out.data(), out.size()), 0);

    const long first = find_packet(reference, kPacket, out.data(), 0, reference.size() / kPacket);
    ASSERT_GE(first, 0);
    EXPECT_TRUE(packets_follow_source(out, reference, kPacket, static_cast<size_t>(first)));
}

// The harness: vqasicapture's src_asi linked to a test sink pad.
struct harness {
    GstHarness* h;
    harness() {
        vq_element_test::init_gstreamer();
        h = gst_harness_new_with_padnames("vqasicapture", nullptr, "src_asi");
        g_object_set(h->element, "v4l2", "/dev/video0", nullptr);
    }
    ~harness() { gst_harness_teardown(h); }
    // gst_harness_play insists on SUCCESS, which a live source does not return.
    void play() { ASSERT_NE(gst_element_set_state(h->element, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE); }
    // Drains the events queued so far and returns their types in order.
    std::vector<GstEventType> drain_events(std::vector<GstEvent*>* keep = nullptr) {
        std::vector<GstEventType> types;
        while (GstEvent* e = gst_harness_try_pull_event(h)) {
            types.push_back(GST_EVENT_TYPE(e));
            if (keep)
                keep->push_back(e);
            else
                gst_event_unref(e);
        }
        return types;
    }
};

TEST(ElementCapture, NegotiationSendsStreamStartCapsSegmentEveryPlay) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "20000000"}});
    harness t;
    GstElement* cap = t.h->element;
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        ASSERT_NE(gst_element_set_state(cap, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        GstBuffer* buffer = gst_harness_pull(t.h);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(gst_buffer_get_size(buffer), 7 * kPacket);
        EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_LIVE));
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer), 0u);
        EXPECT_EQ(GST_BUFFER_OFFSET_END(buffer), 7 * kPacket);
        const GstClockTime pts = GST_BUFFER_PTS(buffer);
        EXPECT_EQ(GST_BUFFER_DTS(buffer), pts);

        std::vector<GstEvent*> events;
        std::vector<GstEventType> types = t.drain_events(&events);
        ASSERT_EQ(types.size(), 3u);
        EXPECT_EQ(types[0], GST_EVENT_STREAM_START);
        EXPECT_EQ(types[1], GST_EVENT_CAPS);
        EXPECT_EQ(types[2], GST_EVENT_SEGMENT);
        const gchar* streamId = nullptr;
        gst_event_parse_stream_start(events[0], &streamId);
        ASSERT_NE(streamId, nullptr);
        EXPECT_TRUE(g_str_has_suffix(streamId, "/asi")) << streamId;
        guint group = 0;
        EXPECT_TRUE(gst_event_parse_group_id(events[0], &group));
        GstCaps* caps = nullptr;
        gst_event_parse_caps(events[1], &caps);
        gchar* capsText = gst_caps_to_string(caps);
        EXPECT_STREQ(capsText, "video/mpegts, systemstream=(boolean)true, packetsize=(int)188");
        g_free(capsText);
        const GstSegment* segment = nullptr;
        gst_event_parse_segment(events[2], &segment);
        EXPECT_EQ(segment->format, GST_FORMAT_TIME);
        // The segment starts at the first packet, which opens the first buffer.
        EXPECT_EQ(segment->start, pts);
        EXPECT_EQ(segment->stop, GST_CLOCK_TIME_NONE);
        for (GstEvent* e : events)
            gst_event_unref(e);
        gst_buffer_unref(buffer);

        ASSERT_NE(gst_element_set_state(cap, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
        // Stopped: no more buffers arrive once the queue is drained.
        while (GstBuffer* b = gst_harness_try_pull(t.h))
            gst_buffer_unref(b);
        const guint64 frames = item_number(cap, "Asi capture frames");
        g_usleep(60000);
        EXPECT_EQ(item_number(cap, "Asi capture frames"), frames);
        EXPECT_EQ(gst_harness_buffers_in_queue(t.h), 0u);
    }
}

// The configuration of the pool a pushed buffer came from.
struct pool_params {
    guint size = 0, min = 0, max = 0;
};
pool_params params_of(GstBufferPool* pool) {
    pool_params p;
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_get_params(config, nullptr, &p.size, &p.min, &p.max);
    gst_structure_free(config);
    return p;
}

TEST(ElementCapture, WithoutAProposedPoolTheElementMakesItsOwn) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "20000000"}});
    harness t;
    t.play();
    GstBuffer* buffer = gst_harness_pull(t.h);
    ASSERT_NE(buffer, nullptr);
    ASSERT_NE(buffer->pool, nullptr);
    const pool_params p = params_of(buffer->pool);
    EXPECT_EQ(p.size, 829440u);
    EXPECT_EQ(p.min, 30u);
    EXPECT_EQ(p.max, 40u);
    gst_buffer_unref(buffer);
}

// Answers allocation queries with a pool of 10 buffers and no maximum.
GstBufferPool* g_proposedPool = nullptr;
GstPadQueryFunction g_harnessQuery = nullptr;
gboolean propose_pool(GstPad* pad, GstObject* parent, GstQuery* query) {
    if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION)
        return g_harnessQuery(pad, parent, query);
    gst_query_add_allocation_pool(query, g_proposedPool, 4096, 10, 0);
    return TRUE;
}

TEST(ElementCapture, AProposedPoolWithoutMaximumGetsThirty) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "20000000"}});
    harness t;
    g_proposedPool = gst_buffer_pool_new();
    g_harnessQuery = GST_PAD_QUERYFUNC(t.h->sinkpad);
    gst_pad_set_query_function(t.h->sinkpad, propose_pool);
    t.play();
    GstBuffer* buffer = gst_harness_pull(t.h);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->pool, g_proposedPool);
    const pool_params p = params_of(g_proposedPool);
    EXPECT_EQ(p.size, 4096u);
    EXPECT_EQ(p.min, 10u);
    EXPECT_EQ(p.max, 30u);
    EXPECT_TRUE(gst_buffer_pool_is_active(g_proposedPool));
    gst_buffer_unref(buffer);
    // A downstream pool is deactivated when capture stops.
    gst_element_set_state(t.h->element, GST_STATE_PAUSED);
    EXPECT_FALSE(gst_buffer_pool_is_active(g_proposedPool));
    gst_object_unref(g_proposedPool);
    g_proposedPool = nullptr;
}

TEST(ElementCapture, UnlinkedElementPlaysWithoutCapturing) {
    std::map<std::string, uint64_t> served;
    {
        sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_PACING", "fast"}});
        GstElement* cap = vq_element_test::make_capture_element();
        ASSERT_NE(cap, nullptr);
        g_object_set(cap, "v4l2", "/dev/video0", nullptr);
        EXPECT_EQ(gst_element_set_state(cap, GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
        EXPECT_EQ(gst_element_set_state(cap, GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
        g_usleep(100000);
        EXPECT_EQ(items_of(cap)["System time"], "000:00:00.000");
        EXPECT_EQ(item_number(cap, "Asi capture frames"), 0u);
        gst_element_set_state(cap, GST_STATE_NULL);
        gst_object_unref(cap);
        served = sim.summary();
    }
    EXPECT_EQ(served["frames_dequeued"], 0u);
    EXPECT_EQ(served["stream_starts"], 1u);
}

TEST(ElementCapture, InputTypeChangeWaitsForTheNextPlay) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "20000000"}});
    harness t;
    t.play();
    gst_buffer_unref(gst_harness_pull(t.h));
    g_object_set(t.h->element, "input_type", 1, nullptr);
    // Still the TS provider: buffers keep coming.
    for (int i = 0; i < 20; ++i) {
        GstBuffer* b = gst_harness_pull(t.h);
        ASSERT_NE(b, nullptr);
        gst_buffer_unref(b);
    }
    gst_element_set_state(t.h->element, GST_STATE_PAUSED);
    while (GstBuffer* b = gst_harness_try_pull(t.h))
        gst_buffer_unref(b);
    gst_element_set_state(t.h->element, GST_STATE_PLAYING);
    // Now the T2-MI provider, which finds no T2-MI in this stream: data flows in, nothing out.
    EXPECT_TRUE(wait_until([&] { return item_number(t.h->element, "Data counter") > 200000; }));
    EXPECT_EQ(gst_harness_buffers_in_queue(t.h), 0u);
}

TEST(ElementCapture, DroppedFramesAndSignalChangesAreCounted) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")},
                      {"VQASISIM_BITRATE", "20000000"},
                      {"VQASISIM_SEQ_GAP", "10:2"},
                      {"VQASISIM_SIGNAL", "ok:0.3,nolink:0.3,ok:0.3,nolink:0.3,ok"}});
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink");
    ASSERT_NE(p.capture, nullptr);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(wait_until([&] { return item_number(p.capture, "Asi capture frames") > 60; }));
    g_usleep(200000);
    gst_element_set_state(p.bin, GST_STATE_READY);
    const auto items = items_of(p.capture);
    gst_element_set_state(p.bin, GST_STATE_NULL);
    auto served = sim.summary();
    EXPECT_GT(served["seq_gaps"], 0u);
    EXPECT_EQ(std::stoull(items.at("Asi dropped frames")), served["seq_gap_frames"]);
    EXPECT_EQ(items.at("No data/link/lock/range/unknown"), "0/2/0/0/0");
}

TEST(ElementCapture, AlarmsReachTheManager) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")},
                      {"VQASISIM_BITRATE", "20000000"},
                      {"VQASISIM_CC_ERRORS", "50"},
                      {"VQASISIM_SIGNAL", "nolink:2.5,ok"}});
    vq_test::recording_alarm_manager manager;
    pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink");
    ASSERT_NE(p.capture, nullptr);
    g_object_set(p.capture, "alarm-source-name", "cam1", "alarm-manager", static_cast<vq_i_alarm_manager*>(&manager),
                 nullptr);
    ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    // Without link for 2.5 s every input watchdog expires.
    std::map<int, vq_alarm_data> seen;
    auto poll = [&] {
        for (const auto& alarm : manager.held()) {
            alarm->check();
            const vq_alarm_data d = alarm->get_data();
            if (d.active && !seen.count(static_cast<int>(d.code)))
                seen[static_cast<int>(d.code)] = d;
        }
        return seen.count(eAlarmASIInputSyncLost) && seen.count(eAlarmASIInputRawNoInputData) &&
               seen.count(eAlarmASIInputNoInputData) && seen.count(eAlarmRemuxerInputCC);
    };
    EXPECT_TRUE(wait_until(poll, std::chrono::seconds(15)));
    for (int code : {eAlarmASIInputSyncLost, eAlarmASIInputRawNoInputData, eAlarmASIInputNoInputData}) {
        ASSERT_TRUE(seen.count(code)) << code;
        EXPECT_EQ(seen[code].source, "cam1");
        EXPECT_EQ(seen[code].level, 2);
        EXPECT_EQ(seen[code].count, 1u);
    }
    EXPECT_EQ(seen[eAlarmASIInputSyncLost].description, "Sync lost ");
    ASSERT_TRUE(seen.count(eAlarmRemuxerInputCC));
    EXPECT_EQ(seen[eAlarmRemuxerInputCC].description.rfind("CC error on PID ", 0), 0u);
    // Once the link is up, the input watchdogs clear.
    EXPECT_TRUE(wait_until([&] {
        for (const auto& alarm : manager.held()) {
            alarm->check();
            const vq_alarm_data d = alarm->get_data();
            if (d.code >= eAlarmASIInputSyncLost && d.code <= eAlarmASIInputNoInputData && d.active)
                return false;
        }
        return true;
    }));
    gst_element_set_state(p.bin, GST_STATE_NULL);
    // Stopping withdraws every alarm from the manager.
    EXPECT_TRUE(manager.held().empty());
}

TEST(ElementCapture, CapsThatCannotBeSetAreReportedAndNothingIsPushed) {
    sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "20000000"}});
    vq_element_test::print_capture printed;
    harness t;
    ASSERT_NE(gst_element_set_state(t.h->element, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    // A flushing source pad refuses the caps event. (A peer that refuses caps does not
    // fail gst_pad_set_caps: the sticky event stays stored and the data flow fails later.)
    GstPad* src = gst_element_get_static_pad(t.h->element, "src_asi");
    gst_pad_set_active(src, FALSE);
    gst_object_unref(src);
    t.play();
    EXPECT_TRUE(wait_until([&] { return item_number(t.h->element, "Data counter") > 100000; }));
    EXPECT_NE(printed.str().find("vqasicapture: Can't set asi caps."), std::string::npos) << printed.str();
    // No pool was set up, so every packet is dropped by the provider.
    EXPECT_EQ(items_of(t.h->element)["Asi last error"], "No free buffers in the buffer pool");
    EXPECT_EQ(gst_harness_buffers_in_queue(t.h), 0u);
}

TEST(ElementCapture, FinalizeAfterStopReleasesTheDeviceOnce) {
    std::map<std::string, uint64_t> served;
    {
        sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")}, {"VQASISIM_BITRATE", "20000000"}});
        {
            pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink");
            ASSERT_NE(p.capture, nullptr);
            ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
            EXPECT_TRUE(wait_until([&] { return item_number(p.capture, "Asi capture frames") > 5; }));
            gst_element_set_state(p.bin, GST_STATE_PAUSED);
            gst_element_set_state(p.bin, GST_STATE_NULL);
            // Finalize stops once more (nothing left to stop) and deletes the capture object.
        }
        served = sim.summary();
    }
    EXPECT_EQ(served["stream_starts"], 1u);
    EXPECT_EQ(served["mappings_left"], 0u);
    EXPECT_GT(served["frames_dequeued"], 5u);
}

}  // namespace
