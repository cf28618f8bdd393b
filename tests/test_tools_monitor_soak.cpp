// Load and faults: vqasi-monitor runs four simulated boards at once, each at
// the full ASI rate and paced in real time, each with its own fault: a
// receiver whose signal comes and goes, a stream with packets left out
// (continuity errors), garbage bursts, and a board unplugged that comes back.
// The monitor must not crash, its memory must stay flat after a warm-up, the
// other ports must not lose a frame while the board is gone, the port must
// resume by itself, and its figures must agree with the simulator's summary.
// VQ_SOAK_SECONDS and VQ_SOAK_BITRATE (set by CMake) give the length and rate.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/sanitizer.h"
#include "support/test_data.h"
#include "tools/background_process.h"
#include "tools/http_fetch.h"
#include "tools/temp_dir.h"
#include "tools/tool_runner.h"
#include "vqasisim_testing.h"

namespace {

using vq_test::shell_quote;

// The ports in the order of VQASISIM_DEVICE: /dev/video0 to /dev/video3.
const char* const kPortNames[] = {"signal", "cc", "garbage", "removed"};
constexpr size_t kPorts = 4;
constexpr size_t kSignal = 0, kCc = 1, kGarbage = 2, kRemoved = 3;
constexpr int kRetrySeconds = 2;
constexpr uint16_t kCcPid = 0x100;
// The element hands the first frames of every streaming run out empty (sequence
// numbers 0 to 2): dequeued from the board, they are neither counted nor analysed.
constexpr uint64_t kEmptyFirstFrames = 3;

double env_number(const char* name, double fallback) {
    const char* value = std::getenv(name);
    return value && *value ? std::atof(value) : fallback;
}

std::string device(size_t port) { return "/dev/video" + std::to_string(port); }

// One PID whose continuity counter runs through whole cycles of 16, so the
// simulator's loop over the file continues it: every continuity error on this
// port is a packet the simulator left out.
void write_continuous_stream(const std::string& path) {
    std::ofstream out(path, std::ios::binary);
    std::vector<char> packet(188, static_cast<char>(0xAA));
    packet[0] = 0x47;
    packet[1] = static_cast<char>(kCcPid >> 8);
    packet[2] = static_cast<char>(kCcPid & 0xFF);
    for (int i = 0; i < 16 * 256; ++i) {
        packet[3] = static_cast<char>(0x10 | (i & 0x0F));
        out.write(packet.data(), packet.size());
    }
}

// Resident set of a process, KiB (0 once it is gone).
uint64_t rss_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtoull(line.c_str() + 6, nullptr, 10);
    return 0;
}

// One --json line of one port.
struct port_line {
    double seconds = 0;
    bool up = false;
    bool final = false;
    std::string state;
    uint64_t frames = 0;
    uint64_t dropped = 0;
    uint64_t rawBytes = 0;
    uint64_t continuityErrors = 0;
    uint64_t badBytes = 0;
    uint64_t analysedPackets = 0;
};

uint64_t statistic(const nlohmann::json& line, const char* item) {
    const auto& statistics = line["statistics"];
    return statistics.contains(item) ? std::strtoull(statistics[item].get<std::string>().c_str(), nullptr, 10) : 0;
}

// What the monitor and the simulator said on stderr, without the JSON lines.
std::string messages(const std::string& output) {
    std::istringstream in(output);
    std::string out;
    for (std::string line; std::getline(in, line);)
        if (line.empty() || line[0] != '{')
            out += line + '\n';
    return out;
}

std::map<std::string, std::vector<port_line>> read_lines(const std::string& output) {
    std::map<std::string, std::vector<port_line>> ports;
    std::istringstream in(output);
    for (std::string text; std::getline(in, text);) {
        if (text.empty() || text[0] != '{')
            continue;  // the monitor's and the simulator's messages on stderr
        const auto line = nlohmann::json::parse(text, nullptr, false);
        if (line.is_discarded())
            continue;
        port_line p;
        p.seconds = line.value("elapsed_ms", 0.0) / 1000;
        p.up = line.value("up", false);
        p.final = line.value("final", 0) == 1;
        p.state = line.value("state", "");
        p.frames = statistic(line, "Asi capture frames");
        p.dropped = statistic(line, "Asi dropped frames");
        p.rawBytes = statistic(line, "Raw data counter");
        p.continuityErrors = line["tr101290"].value("Continuity_count_error", 0);
        p.badBytes = statistic(line, "Bad bytes");
        p.analysedPackets = line["ts"].value("packets", 0);
        ports[line.value("name", "")].push_back(p);
    }
    return ports;
}

// Sum of the samples of a scrape whose series start with `series`
// ("name{port=\"x\"" and possibly more labels).
uint64_t metric_sum(const std::string& scrape, const std::string& series) {
    uint64_t sum = 0;
    std::istringstream in(scrape);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(series, 0) == 0)
            sum += std::strtoull(line.c_str() + line.rfind(' ') + 1, nullptr, 10);
    return sum;
}

TEST(VqasiMonitorSoak, FourFullRatePortsWithFaultsRunFlatAndAgreeWithTheBoards) {
    const double seconds = env_number("VQ_SOAK_SECONDS", 60);
    const uint64_t bitrate = static_cast<uint64_t>(env_number("VQ_SOAK_BITRATE", 213000000));
    ASSERT_GE(seconds, 20) << "the removal, its retry and the warm-up need 20 s at least";
    const double warmUp = std::max(10.0, seconds / 4);
    // Removed once, past the warm-up; back after the retry, well before the end.
    const double removeAfter = 0.55 * seconds;
    const uint64_t frameSize = bitrate / 8 / 50;  // the simulator's default: 20 ms of stream a frame
    const double framesPerSecond = 50;

    vq_test::temp_dir dir("vqasi-soak");
    ASSERT_FALSE(dir.path.empty());
    const std::string continuous = dir.path + "/continuous.ts";
    write_continuous_stream(continuous);
    const std::string summaryFile = dir.path + "/summary.txt";
    const int httpPort = vq_test::free_loopback_port();
    ASSERT_GT(httpPort, 0);

    // Faults per board through the simulator's per-device variables (NAME_<index>).
    const std::string simulator =
        "VQASISIM_DEVICE=/dev/video0,/dev/video1,/dev/video2,/dev/video3"
        " VQASISIM_INPUT=" +
        shell_quote(vq_test::dataPath("live-025.ts")) + "," + shell_quote(continuous) + "," +
        shell_quote(vq_test::dataPath("live-012.ts")) + "," + shell_quote(vq_test::dataPath("live-139.ts")) +
        " VQASISIM_BITRATE=" + std::to_string(bitrate) + " VQASISIM_PACING=realtime" +
        " VQASISIM_SUMMARY=" + shell_quote(summaryFile) + " VQASISIM_SIGNAL_" + std::to_string(kSignal) +
        "=ok:5,nolock:1.5,ok:5,nolink:1" + " VQASISIM_CC_ERRORS_" + std::to_string(kCc) + "=20000" +
        " VQASISIM_GARBAGE_" + std::to_string(kGarbage) + "=100000:20000" + " VQASISIM_REMOVE_AFTER_" +
        std::to_string(kRemoved) + "=" + std::to_string(removeAfter);
    std::string ports;
    for (size_t i = 0; i < kPorts; ++i)
        ports += std::string(" --port ") + kPortNames[i] + "=" + device(i);
    vq_test::background_process monitor("env LD_PRELOAD=" + shell_quote(VQ_MONITOR_PRELOAD) + " " + simulator + " " +
                                            shell_quote(VQ_MONITOR_PATH) + " --json --retry-seconds " +
                                            std::to_string(kRetrySeconds) +
                                            " --listen 127.0.0.1:" + std::to_string(httpPort) + ports,
                                        dir.path + "/monitor.log");
    ASSERT_TRUE(monitor.started());
    const auto start = std::chrono::steady_clock::now();
    const auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };

    // RSS once a second; the metrics scraped two seconds before the end.
    std::vector<std::pair<double, uint64_t>> rss;
    std::string scrape;
    while (elapsed() < seconds) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const uint64_t kib = rss_kib(monitor.pid());
        ASSERT_GT(kib, 0u) << "the monitor is gone after " << elapsed() << " s\n" << messages(monitor.output());
        rss.emplace_back(elapsed(), kib);
        if (scrape.empty() && elapsed() >= seconds - 2)
            scrape = vq_test::http_fetch("http://127.0.0.1:" + std::to_string(httpPort) + "/metrics").body;
    }
    const int status = monitor.stop();
    const std::string output = monitor.output();
    ASSERT_EQ(status, 0) << messages(output);
    ASSERT_FALSE(scrape.empty());

    // Memory: flat within 5 % of the value at the end of the warm-up.
    uint64_t warmRss = 0, maxRss = 0;
    for (const auto& sample : rss) {
        if (sample.first <= warmUp)
            warmRss = sample.second;
        else
            maxRss = std::max(maxRss, sample.second);
    }
    std::printf("RSS: %llu KiB after the %.0f s warm-up, %llu KiB at most after it, %llu KiB at the end\n",
                static_cast<unsigned long long>(warmRss), warmUp, static_cast<unsigned long long>(maxRss),
                static_cast<unsigned long long>(rss.back().second));
    ASSERT_GT(warmRss, 0u);
#ifndef VQ_UNDER_ASAN
    // The sanitizer build keeps freed memory in quarantine; LeakSanitizer checks it instead.
    EXPECT_LE(maxRss, warmRss * 105 / 100) << "the monitor's memory grows";
#endif

    const auto lines = read_lines(output);
    std::map<std::string, vqasisim_testing::summary> summaries;
    for (size_t i = 0; i < kPorts; ++i) {
        summaries[kPortNames[i]] = vqasisim_testing::read_summary(summaryFile, device(i));
        ASSERT_EQ(lines.count(kPortNames[i]), 1u) << messages(output);
        ASSERT_TRUE(lines.at(kPortNames[i]).back().final);
    }

    // The removed board: down once, up again by itself after the retry.
    const auto& removed = lines.at("removed");
    double downAt = -1, upAgainAt = -1;
    for (const auto& line : removed) {
        if (line.final)
            break;
        if (!line.up && downAt < 0 && line.seconds > 1)
            downAt = line.seconds;
        if (line.up && downAt >= 0 && upAgainAt < 0)
            upAgainAt = line.seconds;
    }
    std::printf(
        "removed port: down at %.1f s (board removed %.1f s after its open), up again at %.1f s: "
        "back after %.1f s (retry every %d s)\n",
        downAt, removeAfter, upAgainAt, upAgainAt - downAt, kRetrySeconds);
    ASSERT_GT(downAt, 0) << "the port never went down\n" << messages(output);
    ASSERT_GT(upAgainAt, downAt) << "the port did not come back\n" << messages(output);
    EXPECT_LE(upAgainAt - downAt, kRetrySeconds + 4.0);
    EXPECT_EQ(summaries["removed"].events_of("removed").size(), 0u) << "the last session is not removed";
    EXPECT_NE(output.find("vqasi-monitor: port removed: "), std::string::npos) << messages(output);

    // While the board is gone the other ports capture on: frames grow line by
    // line, none is lost.
    for (const size_t i : {kSignal, kCc, kGarbage}) {
        const auto& port = lines.at(kPortNames[i]);
        uint64_t before = 0, after = 0;
        double from = -1, to = -1;
        for (size_t k = 1; k < port.size(); ++k) {
            const port_line& line = port[k];
            if (line.final || line.seconds < downAt - 1 || line.seconds > upAgainAt + 1)
                continue;
            if (from < 0) {
                from = port[k - 1].seconds;
                before = port[k - 1].frames;
            }
            to = line.seconds;
            after = line.frames;
            EXPECT_EQ(line.dropped, 0u) << kPortNames[i] << " at " << line.seconds << " s";
            EXPECT_TRUE(line.up) << kPortNames[i] << " at " << line.seconds << " s";
            if (i != kSignal) {  // the signal port has no frames while its receiver has no lock
                EXPECT_GT(line.frames, port[k - 1].frames) << kPortNames[i] << " at " << line.seconds << " s";
            }
        }
        std::printf("%s port while the board was gone: %llu frames in %.1f s\n", kPortNames[i],
                    static_cast<unsigned long long>(after - before), to - from);
        ASSERT_GT(to, from);
        if (i != kSignal) {
            EXPECT_GE(static_cast<double>(after - before), 0.5 * framesPerSecond * (to - from)) << kPortNames[i];
        }
    }

    // Per port, the monitor's last figures against the board's summary (the
    // removed port's last session: the element's counters restart with it).
    for (size_t i = 0; i < kPorts; ++i) {
        const std::string name = kPortNames[i];
        const auto& s = summaries[name];
        const port_line& last = lines.at(name).back();
        ASSERT_NE(s.number("frames"), UINT64_MAX) << "no summary for " << device(i);
        std::printf(
            "%s port: %llu frames and %llu bytes captured; the board filled %llu frames, %llu bytes, "
            "%llu dequeued; overruns %llu, monitor's dropped frames %llu\n",
            name.c_str(), static_cast<unsigned long long>(last.frames), static_cast<unsigned long long>(last.rawBytes),
            static_cast<unsigned long long>(s.number("frames")), static_cast<unsigned long long>(s.number("bytes")),
            static_cast<unsigned long long>(s.number("frames_dequeued")),
            static_cast<unsigned long long>(s.number("overruns")), static_cast<unsigned long long>(last.dropped));
        EXPECT_EQ(s.number("frame_size"), frameSize) << name;
        EXPECT_EQ(s.number("overruns"), 0u) << name << ": a frame came while no buffer was queued";
        EXPECT_EQ(last.dropped, 0u) << name;
        EXPECT_EQ(s.number("stream_starts"), 1u) << name << ": the session restarted";
        // Every frame is full. The monitor counts the frames handed over but the
        // first empty ones; frames the board had filled but not handed over when
        // the port stopped are in its bytes only.
        EXPECT_EQ(s.number("bytes"), s.number("frames") * frameSize) << name;
        EXPECT_EQ(last.frames, s.number("frames_dequeued") - kEmptyFirstFrames) << name;
        EXPECT_EQ(last.rawBytes, (s.number("frames_dequeued") - kEmptyFirstFrames) * frameSize) << name;
        EXPECT_GE(last.frames, static_cast<uint64_t>(0.2 * framesPerSecond * seconds)) << name;
    }

    // Signal changes and garbage reached their ports.
    EXPECT_GT(summaries["signal"].number("signal_entries_nolock"), 0u);
    EXPECT_GT(summaries["signal"].number("idle_slots"), 0u);
    EXPECT_GT(summaries["garbage"].number("garbage_insertions"), 0u);
    EXPECT_GT(metric_sum(scrape, "vqasi_bad_bytes_total{port=\"garbage\""), 0u);

    // Continuity errors: the monitor counts exactly the packets left out before
    // the packets it analysed. The analysis starts after the first, empty
    // frames and the bytes skipped to find the first packet, and ends with the
    // stop (the capture pushes nothing after its EOS, and frames the board had
    // filled but not handed over are never seen). A left-out packet is counted
    // at the packet that follows it, which stands at the mark's position.
    const auto& cc = summaries["cc"];
    const port_line& ccLast = lines.at("cc").back();
    const uint64_t analysedFrom = kEmptyFirstFrames * frameSize + ccLast.badBytes;
    const uint64_t analysedTo = analysedFrom + ccLast.analysedPackets * 188;
    uint64_t injected = 0;
    for (const auto& event : cc.events_of("cc")) {
        const uint64_t frame = std::strtoull(event.at("frame").c_str(), nullptr, 10);
        const uint64_t at = frame * frameSize + std::strtoull(event.at("pos").c_str(), nullptr, 10);
        if (at >= analysedFrom && at < analysedTo)
            ++injected;
    }
    const uint64_t scraped =
        metric_sum(scrape, "vqasi_tr101290_errors_total{port=\"cc\",check=\"Continuity_count_error\"");
    const uint64_t scrapedPid = metric_sum(scrape, "vqasi_pid_cc_errors_total{port=\"cc\"");
    std::printf(
        "cc port: %llu packets left out by the board (%llu in the packets analysed), the monitor counted %llu "
        "continuity errors (%llu in the scrape 2 s before the end, %llu on PID %u)\n",
        static_cast<unsigned long long>(cc.number("cc_errors")), static_cast<unsigned long long>(injected),
        static_cast<unsigned long long>(ccLast.continuityErrors), static_cast<unsigned long long>(scraped),
        static_cast<unsigned long long>(scrapedPid), kCcPid);
    ASSERT_EQ(cc.number("events_dropped"), 0u) << "every left-out packet is listed";
    EXPECT_GT(injected, 0u);
    EXPECT_EQ(ccLast.continuityErrors, injected);
    EXPECT_GT(scraped, 0u);
    EXPECT_LE(scraped, ccLast.continuityErrors);
    EXPECT_EQ(scrapedPid, scraped);
    for (const char* other : {"signal", "garbage", "removed"})
        EXPECT_EQ(summaries[other].number("cc_errors"), 0u) << other;
}

}  // namespace
