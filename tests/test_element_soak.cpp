// Long runs of vqasicapture at the full ASI rate (213 Mbit/s, paced) on the
// simulated board, under a fault script that cycles signal losses, data gaps,
// sequence gaps, garbage bursts, 188/204 switches and continuity errors. While
// it runs, a reader takes the statistics every 100 ms and a polling alarm
// manager watches the alarms. Checked: the output follows the served stream in
// order, the counters agree with what the board reports, the alarms rise and
// clear with the script, the resident memory stays flat, and stopping works.
//
// The length is chosen with --duration=SECONDS (or VQ_SOAK_SECONDS), per input
// type; it is rounded to whole rounds of the script.

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "element/element_test_util.h"
#include "support/sanitizer.h"
#include "support/test_data.h"
#include "vq_asi_capture/vq_alarm_data.h"
#include "vq_polling_alarm_manager.h"
#include "vqasisim_testing.h"

namespace {

using steady = std::chrono::steady_clock;
using vq_element_test::items_of;

constexpr size_t kPacket = 188;
constexpr uint64_t kAsiRate = 213000000;  // VQ_SOAK_BITRATE may lower it (sanitizer builds)
const char* const kDevice = "/dev/video0";

// One round of the fault script lasts 20 s (times from the device open):
//   signal  ok 0-6, no link 6-9, ok 9-13, no data 13-16, ok 16-20
//   data    a gap from 17 to 20 under a good signal
//   packets 204 bytes from 10 to 12.5, 188 otherwise
// and, counted in frames or packets: a sequence gap of 2 every 250 frames, a
// 20,000-byte garbage burst about every 3 s and a packet with payload left out
// about every second (both counted in packets of the stream's rate).
constexpr double kRound = 20;
constexpr double kTail = 3;  // the run ends 3 s into a round, with every outage over
const char* const kSignalScript = "ok:6,nolink:3,ok:4,nodata:3,ok:4";
const char* const kDataGap = "17:3";
const char* const kPacketSizes = "188:10,204:2.5,188:7.5";
const char* const kSeqGap = "250:2";
constexpr uint64_t kBurstBytes = 20000;
// Per round: sync lost once (no link), raw and synchronised input lost three
// times (no link, no data, data gap).
constexpr unsigned kSyncLostPerRound = 1, kNoInputPerRound = 3;

double g_durationSeconds = 60;

uint64_t soak_bitrate() {
    const char* v = std::getenv("VQ_SOAK_BITRATE");
    const unsigned long long rate = v ? std::strtoull(v, nullptr, 10) : 0;
    return rate ? rate : kAsiRate;
}

uint64_t resident_bytes() {
    std::ifstream in("/proc/self/statm");
    uint64_t size = 0, resident = 0;
    in >> size >> resident;
    return resident * uint64_t(sysconf(_SC_PAGESIZE));
}

uint64_t number(const std::map<std::string, std::string>& items, const char* name) {
    auto it = items.find(name);
    return it == items.end() ? UINT64_MAX : std::stoull(it->second);
}

// Follows the output packets through the expected packet sequence played in a
// loop: each output packet must be the next expected one or a little later
// (packets left out on the way count as skipped); one found only further away is
// a resynchronisation, one found nowhere is unmatched.
class order_checker {
public:
    order_checker(std::vector<uint8_t> expected, size_t window)
        : m_expected(std::move(expected)), m_count(m_expected.size() / kPacket), m_window(window) {}

    void feed(const uint8_t* data, size_t size) {
        if (size % kPacket != 0)
            ++misaligned;
        for (size_t at = 0; at + kPacket <= size; at += kPacket)
            feed_packet(data + at);
    }

    uint64_t packets = 0, skipped = 0, resyncs = 0, unmatched = 0, misaligned = 0;
    std::vector<std::string> notes;  // the first unmatched packets

private:
    bool matches(size_t index, const uint8_t* p) const {
        return std::memcmp(&m_expected[(index % m_count) * kPacket], p, kPacket) == 0;
    }
    void feed_packet(const uint8_t* p) {
        ++packets;
        const size_t near = m_started ? m_window : 0;
        for (size_t d = 0; d < m_count; ++d) {
            if (!matches(m_next + d, p))
                continue;
            if (d <= near)
                skipped += d;
            else if (m_started)
                ++resyncs;
            m_next = (m_next + d + 1) % m_count;
            m_started = true;
            return;
        }
        ++unmatched;
        if (notes.size() < 4) {
            // Where it parts from the packet that was due, for the report.
            const uint8_t* due = &m_expected[(m_next % m_count) * kPacket];
            size_t differs = 0;
            while (differs < kPacket && due[differs] == p[differs])
                ++differs;
            // Where the differing bytes come from, near the due packet (in bytes from its start).
            long from = 0;
            bool found = false;
            const size_t rest = kPacket - std::min(differs, kPacket - 1);
            const size_t dueAt = (m_next % m_count) * kPacket;
            for (long d = -4 * long(kPacket); d <= 4 * long(kPacket) && !found; ++d) {
                const long at = long(dueAt) + long(kPacket - rest) + d;
                if (at >= 0 && size_t(at) + rest <= m_expected.size() &&
                    std::memcmp(&m_expected[size_t(at)], p + kPacket - rest, rest) == 0) {
                    from = d;
                    found = true;
                }
            }
            char text[256];
            std::snprintf(text, sizeof text,
                          "output packet %llu (PID %u, cc %u) differs from the due one (PID %u, cc %u) from byte %zu; "
                          "the rest %s %ld bytes from where it was due",
                          (unsigned long long)(packets - 1), unsigned(p[1] & 0x1F) << 8 | p[2], p[3] & 0x0F,
                          unsigned(due[1] & 0x1F) << 8 | due[2], due[3] & 0x0F, differs,
                          found ? "lies" : "is not found within", found ? from : 4 * long(kPacket));
            notes.push_back(text);
        }
    }

    std::vector<uint8_t> m_expected;
    size_t m_count;
    size_t m_window;
    size_t m_next = 0;
    bool m_started = false;
};

// What a carrier played in a loop yields once per pass in the steady state: the
// packets rebuilt during the second of two passes (the first lacks the packets
// that straddle the end and the start of the file).
std::vector<uint8_t> t2mi_pass(const std::string& carrierFile, uint8_t plp) {
    std::vector<uint8_t> carrier = vq_test::readDataFile(carrierFile);
    vq_element_test::plp_extractor extractor(plp);
    extractor.Process(carrier.data(), carrier.size());
    const size_t first = extractor.out.size();
    extractor.Process(carrier.data(), carrier.size());
    return std::vector<uint8_t>(extractor.out.begin() + long(first), extractor.out.end());
}

GstPadProbeReturn check_buffer(GstPad*, GstPadProbeInfo* info, gpointer checker) {
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    GstMapInfo map;
    if (buffer && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        static_cast<order_checker*>(checker)->feed(map.data, map.size);
        gst_buffer_unmap(buffer, &map);
    }
    return GST_PAD_PROBE_OK;
}

// The alarm manager's report lines, with the moment each arrived.
class alarm_log {
public:
    void add(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_cs);
        m_lines.push_back(line);
    }
    // Activations (prefix "ALARM ") or clearances ("CLEAR ") of one alarm code.
    unsigned count(const char* prefix, int code) const {
        std::lock_guard<std::mutex> lock(m_cs);
        const std::string head = std::string(prefix) + "code=" + std::to_string(code) + ",";
        return unsigned(
            std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& l) { return l.rfind(head, 0) == 0; }));
    }

private:
    mutable std::mutex m_cs;
    std::vector<std::string> m_lines;
};

// Aborts the process if a step takes longer than allowed: a deadlock must not
// leave the suite hanging until the test driver's time-out.
class deadlock_guard {
public:
    deadlock_guard(const char* what, std::chrono::seconds limit)
        : m_thread([this, what, limit] {
              std::unique_lock<std::mutex> lock(m_cs);
              if (!m_done.wait_for(lock, limit, [this] { return m_finished; })) {
                  std::fprintf(stderr, "deadlock: %s did not finish within %lld s\n", what,
                               static_cast<long long>(limit.count()));
                  std::abort();
              }
          }) {}
    ~deadlock_guard() {
        {
            std::lock_guard<std::mutex> lock(m_cs);
            m_finished = true;
        }
        m_done.notify_all();
        m_thread.join();
    }

private:
    std::mutex m_cs;
    std::condition_variable m_done;
    bool m_finished = false;
    std::thread m_thread;
};

struct soak_figures {
    double seconds = 0;
    uint64_t rssWarm = 0, rssEnd = 0, rssMax = 0;
    uint64_t statisticsReads = 0;
    bool countersMonotonic = true;
};

struct soak_setup {
    int inputType = 0;
    std::string input;              // file the board plays
    std::vector<uint8_t> expected;  // packets the output must follow, in a loop
    size_t window = 64;             // packets a loss may skip before it counts as a resynchronisation
};

void run_soak(const soak_setup& setup) {
    const unsigned rounds = std::max(1u, unsigned(g_durationSeconds / kRound + 0.5));
    const double runSeconds = rounds * kRound + kTail;
    const uint64_t packetsPerSecond = soak_bitrate() / 8 / kPacket;
    const std::string summaryFile = vqasisim_testing::test_summary_file();
    std::remove(summaryFile.c_str());

    vqasisim_testing::scoped_env env(
        {{"VQASISIM_DEVICE", kDevice},
         {"VQASISIM_INPUT", vq_test::dataPath(setup.input)},
         {"VQASISIM_BITRATE", std::to_string(soak_bitrate())},
         {"VQASISIM_SIGNAL", kSignalScript},
         {"VQASISIM_DATA_GAP", kDataGap},
         {"VQASISIM_PACKET_SIZE", kPacketSizes},
         {"VQASISIM_SEQ_GAP", kSeqGap},
         {"VQASISIM_GARBAGE", std::to_string(packetsPerSecond * 3) + ":" + std::to_string(kBurstBytes)},
         {"VQASISIM_CC_ERRORS", std::to_string(packetsPerSecond)},
         {"VQASISIM_SUMMARY", summaryFile}});

    order_checker checker(setup.expected, setup.window);
    alarm_log alarms;
    soak_figures fig;
    std::map<std::string, std::string> last;
    std::map<int, uint32_t> perPidCounts;  // CC alarm counts by PID, read before stopping
    unsigned ccAlarms = 0;
    {
        vq_polling_alarm_manager manager(std::chrono::milliseconds(100),
                                         [&alarms](const std::string& line) { alarms.add(line); });
        vq_element_test::init_gstreamer();
        GstElement* bin = gst_parse_launch(
            ("vqasicapture name=cap v4l2=" + std::string(kDevice) + " input_type=" + std::to_string(setup.inputType) +
             " plp=102 alarm-source-name=soak ! fakesink sync=false")
                .c_str(),
            nullptr);
        ASSERT_NE(bin, nullptr);
        GstElement* capture = gst_bin_get_by_name(GST_BIN(bin), "cap");
        ASSERT_NE(capture, nullptr);
        g_object_set(capture, "alarm-manager", static_cast<vq_i_alarm_manager*>(&manager), nullptr);
        GstPad* src = gst_element_get_static_pad(capture, "src_asi");
        gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_BUFFER, check_buffer, &checker, nullptr);
        gst_object_unref(src);

        const steady::time_point started = steady::now();
        ASSERT_NE(gst_element_set_state(bin, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);

        // The statistics reader: every 100 ms, as a monitoring application would.
        std::atomic<bool> stop{false};
        std::thread reader([&] {
            uint64_t lastData = 0, lastRaw = 0, lastFrames = 0;
            steady::time_point nextSample = steady::now();
            const double warmUp = std::min(10.0, runSeconds / 4);
            while (!stop) {
                auto items = items_of(capture);
                ++fig.statisticsReads;
                const uint64_t data = number(items, "Data counter"), raw = number(items, "Raw data counter"),
                               frames = number(items, "Asi capture frames");
                if (items.size() != 15 || data < lastData || raw < lastRaw || frames < lastFrames)
                    fig.countersMonotonic = false;
                lastData = data;
                lastRaw = raw;
                lastFrames = frames;
                if (steady::now() >= nextSample) {
                    const uint64_t rss = resident_bytes();
                    const double at = std::chrono::duration<double>(steady::now() - started).count();
                    if (at >= warmUp && fig.rssWarm == 0)
                        fig.rssWarm = rss;
                    fig.rssMax = std::max(fig.rssMax, rss);
                    nextSample += std::chrono::seconds(1);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        });

        std::this_thread::sleep_until(
            started + std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(runSeconds)));
        for (const auto& alarm : manager.alarms()) {
            const vq_alarm_data d = alarm->get_data();
            if (d.code == eAlarmRemuxerInputCC)
                perPidCounts[int(d.stream_pid)] = d.count;
        }
        ccAlarms = alarms.count(vq_polling_alarm_manager::kActivePrefix, eAlarmRemuxerInputCC);
        fig.rssEnd = resident_bytes();
        stop = true;
        reader.join();
        {
            // The source stops first, while the sink still plays.
            deadlock_guard guard("stopping the capture", std::chrono::seconds(60));
            EXPECT_NE(gst_element_set_state(capture, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
        }
        fig.seconds = std::chrono::duration<double>(steady::now() - started).count();
        last = items_of(capture);
        {
            deadlock_guard guard("closing the pipeline", std::chrono::seconds(60));
            gst_element_set_state(bin, GST_STATE_NULL);
        }
        gst_object_unref(capture);
        gst_object_unref(bin);
        // Stopping withdrew every alarm.
        EXPECT_EQ(manager.alarm_count(), 0u);
    }
    const vqasisim_testing::summary served = vqasisim_testing::read_summary(summaryFile, kDevice);
    std::remove(summaryFile.c_str());
    ASSERT_FALSE(served.values.empty()) << "no summary from the simulator";

    const uint64_t frameSize = served.number("frame_size");
    const uint64_t raw = number(last, "Raw data counter"), data = number(last, "Data counter"),
                   bad = number(last, "Bad bytes");
    uint64_t ccTotal = 0;
    for (const auto& pid : perPidCounts)
        ccTotal += pid.second;

    std::printf(
        "[ soak ] input_type=%d %.1f s: served %llu frames (%llu bytes, %llu dequeued), raw %llu, data %llu, bad %llu\n"
        "[ soak ] faults: signal no link %llu, no data %llu, data gaps %llu, sequence gaps %llu (%llu frames), "
        "overruns %llu, garbage bursts %llu (%llu bytes), packet size switches %llu, left-out packets %llu, "
        "loops %llu\n"
        "[ soak ] output %llu packets: skipped %llu, resynchronisations %llu, unmatched %llu; CC alarms on %zu "
        "PIDs, %llu errors, %u activations\n"
        "[ soak ] alarms raised/cleared: sync lost %u/%u, no raw input %u/%u, no input %u/%u\n"
        "[ soak ] resident memory: warm %.1f MiB, end %.1f MiB, max %.1f MiB; statistics read %llu times\n",
        setup.inputType, fig.seconds, (unsigned long long)served.number("frames"),
        (unsigned long long)served.number("bytes"), (unsigned long long)served.number("frames_dequeued"),
        (unsigned long long)raw, (unsigned long long)data, (unsigned long long)bad,
        (unsigned long long)served.number("signal_entries_nolink"),
        (unsigned long long)served.number("signal_entries_nodata"), (unsigned long long)served.number("data_gaps"),
        (unsigned long long)served.number("seq_gaps"), (unsigned long long)served.number("seq_gap_frames"),
        (unsigned long long)served.number("overruns"), (unsigned long long)served.number("garbage_insertions"),
        (unsigned long long)served.number("garbage_bytes"), (unsigned long long)served.number("packet_size_switches"),
        (unsigned long long)served.number("cc_errors"), (unsigned long long)served.number("loops"),
        (unsigned long long)checker.packets, (unsigned long long)checker.skipped, (unsigned long long)checker.resyncs,
        (unsigned long long)checker.unmatched, perPidCounts.size(), (unsigned long long)ccTotal, ccAlarms,
        alarms.count("ALARM ", eAlarmASIInputSyncLost), alarms.count("CLEAR ", eAlarmASIInputSyncLost),
        alarms.count("ALARM ", eAlarmASIInputRawNoInputData), alarms.count("CLEAR ", eAlarmASIInputRawNoInputData),
        alarms.count("ALARM ", eAlarmASIInputNoInputData), alarms.count("CLEAR ", eAlarmASIInputNoInputData),
        double(fig.rssWarm) / 1048576.0, double(fig.rssEnd) / 1048576.0, double(fig.rssMax) / 1048576.0,
        (unsigned long long)fig.statisticsReads);
    for (const std::string& note : checker.notes)
        std::printf("[ soak ] %s\n", note.c_str());
    std::fflush(stdout);

    // The script ran as planned.
    EXPECT_EQ(served.number("stream_starts"), 1u);
    EXPECT_EQ(served.number("signal_entries_nolink"), rounds);
    EXPECT_EQ(served.number("signal_entries_nodata"), rounds);
    EXPECT_EQ(served.number("data_gaps"), rounds);
    EXPECT_EQ(served.number("packet_size_switches"), 2 * rounds);
    EXPECT_GT(served.number("seq_gaps"), 0u);
    EXPECT_GT(served.number("garbage_insertions"), 0u);
    EXPECT_GT(served.number("cc_errors"), 0u);
    EXPECT_EQ(served.number("empty_frames"), 0u);

    // Statistics against the board: every dequeued frame but the first three of
    // the run (reported empty on purpose) was taken and pushed.
    ASSERT_EQ(last.size(), 15u);
    EXPECT_TRUE(fig.countersMonotonic);
    EXPECT_GT(fig.statisticsReads, uint64_t(runSeconds * 5));
    EXPECT_EQ(raw, (served.number("frames_dequeued") - 3) * frameSize);
    EXPECT_EQ(number(last, "Asi capture frames"), served.number("frames_dequeued") - 3);
    // Frames the board lost for want of a buffer show as gaps too, but for those
    // after the last frame taken.
    EXPECT_LE(number(last, "Asi dropped frames"), served.number("seq_gap_frames") + served.number("overruns"));
    if (served.number("overruns") == 0) {
        EXPECT_EQ(number(last, "Asi dropped frames"), served.number("seq_gap_frames"));
    }
    EXPECT_EQ(last["No data/link/lock/range/unknown"],
              std::to_string(served.number("signal_entries_nodata")) + "/" +
                  std::to_string(served.number("signal_entries_nolink")) + "/" +
                  std::to_string(served.number("signal_entries_nolock")) + "/" +
                  std::to_string(served.number("signal_entries_range")) + "/" +
                  std::to_string(served.number("signal_entries_unknown")));
    // Every raw byte was delivered in a packet, skipped as bad, or is the tail
    // the synchroniser still holds (less than a search span of 15 large packets).
    ASSERT_GE(raw, data + bad);
    EXPECT_LT(raw - data - bad, 16u * 204);
    // Every garbage byte was skipped, but for a burst still in flight at the end;
    // beyond the garbage only the switches and the first alignment cost bytes.
    const uint64_t garbage = served.number("garbage_bytes");
    EXPECT_GE(bad + 2 * kBurstBytes, garbage);
    EXPECT_LE(bad, garbage + served.number("packet_size_switches") * 2 * 204 + 16 * 204);
    EXPECT_EQ(last["Asi last error"], "");

    // The output, in order.
    EXPECT_EQ(checker.misaligned, 0u);
    if (setup.inputType == 0) {
        // Every packet handed to the provider left, but for a last, unfilled buffer.
        EXPECT_GE(data, checker.packets * kPacket);
        EXPECT_LE(data, (checker.packets + 6) * 204);
        // Only what the board left out, and a packet where 204 turns back to 188:
        // a locked synchroniser checks just the sync byte at each packet start, so
        // the packet that begins before the switch still leaves at the old size,
        // holding the start of the next one, before the lock drops.
        EXPECT_LE(checker.unmatched, served.number("packet_size_switches"));
        EXPECT_EQ(checker.resyncs, 0u);
        EXPECT_LE(checker.skipped, served.number("cc_errors") + served.number("packet_size_switches") + 16);
        EXPECT_GT(checker.packets * kPacket, data * 9 / 10);
        // Each left-out packet breaks one continuity counter; so do the input's loops.
        EXPECT_GE(ccTotal + 2, served.number("cc_errors"));
        EXPECT_GT(ccAlarms, 0u);
    } else {
        // A carrier fault costs the baseband frames it hits.
        const uint64_t faults = served.number("cc_errors") + served.number("garbage_insertions") +
                                served.number("packet_size_switches") + 2;
        EXPECT_LE(checker.resyncs + checker.unmatched, 3 * faults);
        EXPECT_GT(checker.packets, uint64_t(runSeconds) * 1000);
    }

#ifndef VQ_UNDER_ASAN
    // Flat after warm-up (the sanitizer build keeps freed memory in quarantine,
    // and LeakSanitizer checks it instead).
    ASSERT_GT(fig.rssWarm, 0u);
    EXPECT_LE(double(fig.rssEnd), double(fig.rssWarm) * 1.05);
#endif

    // Alarms as the script implies: raised in each outage, cleared after it. A
    // capture that cannot keep up (the board overran) always has frames waiting.
    if (served.number("overruns") != 0)
        return;
    EXPECT_EQ(alarms.count("ALARM ", eAlarmASIInputSyncLost), kSyncLostPerRound * rounds);
    EXPECT_EQ(alarms.count("CLEAR ", eAlarmASIInputSyncLost), kSyncLostPerRound * rounds);
    EXPECT_EQ(alarms.count("ALARM ", eAlarmASIInputRawNoInputData), kNoInputPerRound * rounds);
    EXPECT_EQ(alarms.count("CLEAR ", eAlarmASIInputRawNoInputData), kNoInputPerRound * rounds);
    EXPECT_EQ(alarms.count("ALARM ", eAlarmASIInputNoInputData), kNoInputPerRound * rounds);
    EXPECT_EQ(alarms.count("CLEAR ", eAlarmASIInputNoInputData), kNoInputPerRound * rounds);
}

TEST(ElementSoak, TransportStreamAtFullRateUnderFaults) {
    run_soak({0, "live-025.ts", vq_test::readDataFile("live-025.ts"), 64});
}

TEST(ElementSoak, T2miAtFullRateUnderFaults) { run_soak({1, "t2mi-plp102.ts", t2mi_pass("t2mi-plp102.ts", 102), 512}); }

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (const char* env = std::getenv("VQ_SOAK_SECONDS"))
        g_durationSeconds = std::atof(env);
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--duration=", 0) == 0) {
            g_durationSeconds = std::atof(arg.c_str() + 11);
        } else {
            std::fprintf(stderr, "usage: %s [gtest options] [--duration=SECONDS per input type]\n", argv[0]);
            return 2;
        }
    }
    if (!(g_durationSeconds > 0)) {
        std::fprintf(stderr, "--duration must be above 0\n");
        return 2;
    }
    return RUN_ALL_TESTS();
}
