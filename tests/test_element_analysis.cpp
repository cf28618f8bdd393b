// The stream analysis on the capture path: the element's output on the
// simulated board, with packets left out, goes packet by packet into the
// analyzer's aligned-packet entry point; the same bytes, recorded, are then
// analysed as a file. Both must count the same.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "element/element_test_util.h"
#include "mpegcore/TsAnalyzer.h"
#include "support/test_data.h"

namespace {

using mpegcore::CTsAnalyzer;
using vq_element_test::item_number;
using vq_element_test::pipeline;
using vq_element_test::sim_settings;
using vq_element_test::wait_until;

constexpr size_t kPacket = 188;
constexpr uint64_t kRate = 4963330;  // live-025's PCR-based rate: 20 ms frames carry 20 ms of stream

// What the sink pad sees: every packet into the analyzer at its buffer's
// time, and every byte into the recording.
struct tap {
    std::mutex lock;
    CTsAnalyzer live;
    std::vector<uint8_t> recorded;
};

GstPadProbeReturn onBuffer(GstPad*, GstPadProbeInfo* info, gpointer data) {
    auto* t = static_cast<tap*>(data);
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    GstMapInfo map;
    if (buffer && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        std::lock_guard<std::mutex> hold(t->lock);
        const uint64_t time = GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) : 0;
        for (size_t at = 0; at + kPacket <= map.size; at += kPacket)
            t->live.push_packet(time, map.data + at);
        t->recorded.insert(t->recorded.end(), map.data, map.data + map.size);
        gst_buffer_unmap(buffer, &map);
    }
    return GST_PAD_PROBE_OK;
}

std::map<std::string, uint64_t> countsOf(const CTsAnalyzer& analyzer) {
    std::map<std::string, uint64_t> out;
    for (size_t i = 0; i < mpegcore::tr101290_check_count; ++i) {
        const auto check = static_cast<mpegcore::tr101290_check>(i);
        out[mpegcore::tr101290_name(check)] = analyzer.count(check);
    }
    return out;
}

TEST(ElementAnalysis, LiveCountsMatchTheFileAnalysisOfTheSameBytes) {
    tap t;
    {
        sim_settings sim({{"VQASISIM_INPUT", vq_test::dataPath("live-025.ts")},
                          {"VQASISIM_PACING", "fast"},
                          {"VQASISIM_BITRATE", std::to_string(kRate)},
                          {"VQASISIM_CC_ERRORS", "997"}});
        pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink name=sink sync=false");
        ASSERT_NE(p.capture, nullptr);
        GstElement* sink = p.by_name("sink");
        GstPad* pad = gst_element_get_static_pad(sink, "sink");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, onBuffer, &t, nullptr);
        gst_object_unref(pad);
        gst_object_unref(sink);
        ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        // About eight seconds of stream: the capture loops over the file's seam twice.
        EXPECT_TRUE(wait_until([&] { return item_number(p.capture, "Data counter") >= 5000000; }));
        gst_element_set_state(p.capture, GST_STATE_PAUSED);
    }
    std::lock_guard<std::mutex> hold(t.lock);
    t.live.finish();
    ASSERT_GT(t.recorded.size(), 4000000u);

    CTsAnalyzer file;
    const long double nsPerByte = 8e9L / kRate;
    for (size_t at = 0; at < t.recorded.size(); at += 65536) {
        const size_t n = std::min<size_t>(65536, t.recorded.size() - at);
        file.push_raw(static_cast<uint64_t>(at * nsPerByte), static_cast<uint64_t>((at + n) * nsPerByte),
                      t.recorded.data() + at, n);
    }
    file.finish();

    const auto live = countsOf(t.live);
    // The left-out packets are there to be found.
    EXPECT_GT(live.at("Continuity_count_error"), 10u);
    EXPECT_EQ(live, countsOf(file));
    const auto livePids = t.live.pid_figures();
    const auto filePids = file.pid_figures();
    ASSERT_EQ(livePids.size(), filePids.size());
    for (size_t i = 0; i < livePids.size(); ++i) {
        SCOPED_TRACE("PID " + std::to_string(livePids[i].pid));
        EXPECT_EQ(livePids[i].pid, filePids[i].pid);
        EXPECT_EQ(livePids[i].packets, filePids[i].packets);
        EXPECT_EQ(livePids[i].cc_errors, filePids[i].cc_errors);
        EXPECT_EQ(livePids[i].pcr, filePids[i].pcr);
        EXPECT_EQ(livePids[i].pts, filePids[i].pts);
        EXPECT_EQ(livePids[i].dts, filePids[i].dts);
    }
    EXPECT_EQ(t.live.stream_figures().packets, file.stream_figures().packets);
    EXPECT_EQ(t.live.stream_figures().bitrate, file.stream_figures().bitrate);
}

}  // namespace
