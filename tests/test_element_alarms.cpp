// An application's view of vqasicapture's alarms and statistics: it sets
// "alarm-source-name" and "alarm-manager", hands the alarms to a polling manager
// and reads the "statistics" items while the simulated board loses its link,
// breaks continuity counters, skips frame numbers and stops delivering data.

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "element/element_test_util.h"
#include "mpegcore/BaseMpegParser.h"
#include "support/test_data.h"
#include "vq_asi_capture/vq_alarm_data.h"
#include "vq_polling_alarm_manager.h"

namespace {

using vq_element_test::item_number;
using vq_element_test::items_of;
using vq_element_test::pipeline;
using vq_element_test::sim_settings;
using vq_element_test::wait_until;

constexpr size_t kPacket = 188;
// 1,504,000 bit/s: frames of 20 packets every 20 ms, so the 1.8 MB capture lasts
// longer than the run and never loops (a loop would break every PID's continuity).
constexpr uint64_t kBitRate = 1504000;
constexpr size_t kFrameSize = kBitRate / 400;
constexpr unsigned kCcEvery = 100;
// The device reports the first three frames of a run empty.
constexpr uint64_t kFirstFrame = 3;

// The polling manager's ALARM/CLEAR lines, kept in order.
class line_log {
public:
    void add(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_cs);
        m_lines.push_back(line);
    }
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(m_cs);
        return m_lines;
    }
    // Lines that start with `prefix` and name `code`.
    size_t count(const std::string& prefix, int code) const {
        size_t n = 0;
        for (const std::string& line : lines())
            n += line.rfind(prefix + "code=" + std::to_string(code) + ",", 0) == 0;
        return n;
    }

private:
    mutable std::mutex m_cs;
    std::vector<std::string> m_lines;
};

// Continuity errors per PID as the transport packet parser reports them.
class cc_counter : public mpegcore::CBaseMpegParser {
public:
    cc_counter() : CBaseMpegParser(true) {}
    using CBaseMpegParser::Process;
    std::map<uint16_t, uint32_t> errors;

protected:
    void on_cc_error(unsigned short pid) override { ++errors[pid]; }
};

uint16_t pid_of(const uint8_t* packet) { return static_cast<uint16_t>(((packet[1] & 0x1F) << 8) | packet[2]); }

// The stream the board served: the capture's packets, every kCcEvery-th one that
// carries payload on a PID other than 0x1FFF left out. `leftOut` receives the PIDs of
// the packets left out, in order, with the byte position where each would have been.
std::vector<uint8_t> served_stream(const std::vector<uint8_t>& capture, size_t bytes,
                                   std::vector<std::pair<size_t, uint16_t>>& leftOut) {
    std::vector<uint8_t> out;
    unsigned eligible = 0;
    for (size_t at = 0; out.size() < bytes && at + kPacket <= capture.size(); at += kPacket) {
        const uint8_t* packet = &capture[at];
        const bool hasPayload = (packet[3] & 0x10) != 0;
        if (packet[0] == 0x47 && pid_of(packet) != 0x1FFF && hasPayload && ++eligible % kCcEvery == 0) {
            leftOut.emplace_back(out.size(), pid_of(packet));
            continue;
        }
        out.insert(out.end(), packet, packet + kPacket);
    }
    out.resize(std::min(out.size(), bytes));
    return out;
}

TEST(ElementAlarms, AnApplicationSeesTheInputAlarmsCcCountsRatesAndDroppedFrames) {
    const std::string capture = vq_test::dataPath("live-025.ts");
    sim_settings sim({{"VQASISIM_INPUT", capture},
                      {"VQASISIM_BITRATE", std::to_string(kBitRate)},
                      {"VQASISIM_CC_ERRORS", std::to_string(kCcEvery)},
                      {"VQASISIM_SEQ_GAP", "50:2"},
                      // No link for 2.5 s, 5 s of data, a 2.5 s data gap, 2 s of data, then none.
                      {"VQASISIM_SIGNAL", "nolink:2.5,ok:5,nodata:2.5,ok:2,nodata"}});
    line_log log;
    vq_polling_alarm_manager manager(std::chrono::milliseconds(20), [&](const std::string& line) { log.add(line); });

    std::map<std::string, std::string> rateItems;
    std::vector<vq_alarm_data> alarms;
    std::string lastError;
    {
        pipeline p("vqasicapture name=cap v4l2=/dev/video0 ! fakesink sync=false");
        ASSERT_NE(p.capture, nullptr);
        g_object_set(p.capture, "alarm-source-name", "cam1", "alarm-manager",
                     static_cast<vq_i_alarm_manager*>(&manager), nullptr);
        ASSERT_NE(gst_element_set_state(p.bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);

        // The link loss raises all three input alarms.
        EXPECT_TRUE(wait_until([&] { return log.count("ALARM ", eAlarmASIInputSyncLost) == 1; }));
        // Data: the bit rates over three seconds of the paced stream. The rate is
        // recomputed by a reading at least a second after the one before, so the
        // reading 1.1 s into the data starts a new averaging period.
        ASSERT_TRUE(wait_until([&] { return item_number(p.capture, "Data counter") > 0; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        items_of(p.capture);
        std::this_thread::sleep_for(std::chrono::seconds(3));
        rateItems = items_of(p.capture);

        // The data gap and the final silence raise the two data alarms twice more; the
        // receiver keeps its lock throughout, so the sync alarm stays cleared.
        EXPECT_TRUE(
            wait_until([&] { return log.count("ALARM ", eAlarmASIInputNoInputData) == 3; }, std::chrono::seconds(20)));
        EXPECT_TRUE(wait_until([&] { return log.count("ALARM ", eAlarmASIInputRawNoInputData) == 3; }));
        // Read before the stop, which resets the input alarms.
        for (const auto& alarm : manager.alarms())
            alarms.push_back(alarm->get_data());
        lastError = items_of(p.capture)["Asi last error"];
        rateItems["Asi dropped frames"] = items_of(p.capture)["Asi dropped frames"];
        rateItems["No data/link/lock/range/unknown"] = items_of(p.capture)["No data/link/lock/range/unknown"];
        ASSERT_EQ(gst_element_set_state(p.bin, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    }
    // Stopping withdrew every alarm from the manager.
    EXPECT_EQ(manager.alarm_count(), 0u);
    EXPECT_EQ(lastError, "");

    const vqasisim_testing::summary served = sim.account();
    ASSERT_EQ(served.number("frame_size"), kFrameSize);
    ASSERT_EQ(served.number("loops"), 0u);
    ASSERT_EQ(served.number("overruns"), 0u);
    // Every frame the board filled was taken, so every left-out packet was seen.
    ASSERT_EQ(served.number("frames"), served.number("frames_dequeued"));

    // Rates within 2% of the board's paced rate.
    const double rate = std::stod(rateItems.at("Bit rate [bit/sec]"));
    const double rawRate = std::stod(rateItems.at("Raw bit rate [bit/sec]"));
    EXPECT_NEAR(rate, kBitRate, kBitRate * 0.02);
    EXPECT_NEAR(rawRate, kBitRate, kBitRate * 0.02);
    // Dropped frames: the sequence numbers the board skipped.
    ASSERT_GT(served.number("seq_gaps"), 2u);
    EXPECT_EQ(std::stoull(rateItems.at("Asi dropped frames")), served.number("seq_gap_frames"));
    // The two data gaps are "No data" states, the loss of link one "No link".
    EXPECT_EQ(rateItems.at("No data/link/lock/range/unknown"), "2/1/0/0/0");

    // The expected continuity errors: the parser run over the bytes of the frames the
    // element processed, rebuilt from the capture file as the board left packets out.
    std::vector<std::pair<size_t, uint16_t>> leftOut;
    const std::vector<uint8_t> stream =
        served_stream(vq_test::readDataFile("live-025.ts"), served.number("bytes"), leftOut);
    ASSERT_EQ(stream.size(), served.number("bytes"));
    std::vector<uint8_t> processed(stream.begin() + kFirstFrame * kFrameSize, stream.end());
    cc_counter parser;
    parser.Process(processed.data(), processed.size());
    // The board's own account of the left-out packets, per PID, in the processed frames.
    std::map<uint16_t, uint32_t> boardBreaks;
    for (const auto& event : served.events_of("cc"))
        if (std::stoull(event.at("frame")) >= kFirstFrame)
            ++boardBreaks[static_cast<uint16_t>(std::stoul(event.at("pid")))];
    std::map<uint16_t, uint32_t> rebuiltBreaks;
    for (const auto& left : leftOut)
        if (left.first >= kFirstFrame * kFrameSize)
            ++rebuiltBreaks[left.second];
    ASSERT_EQ(rebuiltBreaks, boardBreaks) << "the rebuilt stream is not the one the board served";
    ASSERT_GT(boardBreaks[4096], 20u);
    // On the video PID, packets are far closer together than the left-out ones: each
    // left-out packet is one break the parser sees.
    EXPECT_EQ(parser.errors[4096], boardBreaks[4096]);

    // Exactly these alarms: the three input alarms and one CC alarm per PID with breaks.
    std::map<int, vq_alarm_data> input;
    std::map<uint32_t, vq_alarm_data> cc;
    for (const vq_alarm_data& d : alarms) {
        EXPECT_EQ(d.source, "cam1");
        EXPECT_EQ(d.level, vq_error_alarm);
        EXPECT_EQ(d.stream_type, 0u);
        if (d.code == eAlarmRemuxerInputCC)
            cc[d.stream_pid] = d;
        else
            input[static_cast<int>(d.code)] = d;
    }
    ASSERT_EQ(input.size(), 3u);
    EXPECT_EQ(input[eAlarmASIInputSyncLost].description, "Sync lost ");
    EXPECT_EQ(input[eAlarmASIInputRawNoInputData].description, "No raw input data ");
    EXPECT_EQ(input[eAlarmASIInputNoInputData].description, "No input data ");
    // Sync lost: only the link loss. The data alarms: link loss, gap, final silence.
    EXPECT_EQ(input[eAlarmASIInputSyncLost].count, 1u);
    EXPECT_FALSE(input[eAlarmASIInputSyncLost].active);
    EXPECT_EQ(input[eAlarmASIInputRawNoInputData].count, 3u);
    EXPECT_TRUE(input[eAlarmASIInputRawNoInputData].active);
    EXPECT_EQ(input[eAlarmASIInputNoInputData].count, 3u);
    EXPECT_TRUE(input[eAlarmASIInputNoInputData].active);
    for (int code : {eAlarmASIInputSyncLost, eAlarmASIInputRawNoInputData, eAlarmASIInputNoInputData}) {
        EXPECT_EQ(input[code].stream_pid, 0u);
        EXPECT_FALSE(input[code].reg_time.empty());
    }

    std::map<uint16_t, uint32_t> alarmCounts;
    for (const auto& entry : cc) {
        SCOPED_TRACE(entry.first);
        EXPECT_EQ(entry.second.description, "CC error on PID " + std::to_string(entry.first));
        alarmCounts[static_cast<uint16_t>(entry.first)] = entry.second.count;
    }
    EXPECT_EQ(alarmCounts, parser.errors);
    EXPECT_EQ(alarmCounts[4096], boardBreaks[4096]);

    // The manager reported each activation once: the input alarms rose and cleared as
    // described; the continuity alarms rose at their first break.
    EXPECT_EQ(log.count("ALARM ", eAlarmASIInputSyncLost), 1u);
    EXPECT_EQ(log.count("CLEAR ", eAlarmASIInputSyncLost), 1u);
    EXPECT_EQ(log.count("CLEAR ", eAlarmASIInputNoInputData), 2u);
    EXPECT_EQ(log.count("CLEAR ", eAlarmASIInputRawNoInputData), 2u);
    EXPECT_GE(log.count("ALARM ", eAlarmRemuxerInputCC), cc.size());
    EXPECT_EQ(log.count("ALARM ", eAlarmRemuxerInputTEI), 0u);
    EXPECT_EQ(log.count("ALARM ", eAlarmRemuxerInputScrambler), 0u);
}

}  // namespace
