// vqasi-monitor on the simulated capture board: its JSON lines, the rate it
// shows, the alarms the simulator's faults provoke, a wrong device, --help,
// and scripts/demo.sh.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "support/test_data.h"
#include "tools/tool_runner.h"

using json = nlohmann::json;

namespace {

const char* const kItemNames[] = {
    "System time",
    "Signal state",
    "No data/link/lock/range/unknown",
    "Bit rate [bit/sec]",
    "Data counter",
    "Raw bit rate [bit/sec]",
    "Raw data counter",
    "Bad bytes",
    "Asi capture frames",
    "Asi dropped frames",
    "Asi fake frames",
    "Asi map delay [ms]",
    "Asi push delay [ms]",
    "Asi delay between frames [ms]",
    "Asi last error",
};

// The monitor with the simulator preloaded and the given VQASISIM_* settings;
// its HTTP side on a port the system chooses.
std::string monitor_command(const std::string& simulator, const std::string& arguments) {
    return "env LD_PRELOAD=" + vq_test::shell_quote(VQ_MONITOR_PRELOAD) + " VQASISIM_DEVICE=/dev/video0 " + simulator +
           " " + vq_test::shell_quote(VQ_MONITOR_PATH) + " --listen 127.0.0.1:0 " + arguments;
}

bool log_has(const std::vector<json>& snapshots, const std::string& text) {
    for (const auto& snapshot : snapshots)
        for (const auto& line : snapshot.at("alarm_log"))
            if (line.get<std::string>().find(text) != std::string::npos)
                return true;
    return false;
}

TEST(VqasiMonitor, JsonLinesShowTheSimulatorsRateAndTheAlarmsItProvokes) {
    // 4 Mbit/s; the link drops from 2 s to 5 s; every 500th packet is left out.
    const std::string simulator = "VQASISIM_INPUT=" + vq_test::shell_quote(vq_test::dataPath("live-025.ts")) +
                                  " VQASISIM_BITRATE=4000000 VQASISIM_SIGNAL=ok:2,nolink:3,ok VQASISIM_CC_ERRORS=500";
    const auto result = vq_test::run_tool(monitor_command(simulator, "--json --duration 8 --source-name monitor-test"));
    ASSERT_EQ(result.status, 0) << result.output;

    std::vector<json> snapshots;
    for (const auto& line : result.lines()) {
        const json snapshot = json::parse(line, nullptr, false);
        ASSERT_FALSE(snapshot.is_discarded()) << "not JSON: " << line;
        snapshots.push_back(snapshot);
    }
    ASSERT_GE(snapshots.size(), 7u);
    EXPECT_EQ(snapshots.back().at("final").get<uint64_t>(), 1u);
    for (const auto& snapshot : snapshots) {
        EXPECT_EQ(snapshot.at("name").get<std::string>(), "video0");
        EXPECT_EQ(snapshot.at("options").at("device").get<std::string>(), "/dev/video0");
        const json& statistics = snapshot.at("statistics");
        EXPECT_EQ(statistics.size(), 15u);
        for (const char* name : kItemNames)
            EXPECT_TRUE(statistics.contains(name)) << name;
    }

    // The raw rate, measured by the element over each second, shows the
    // simulator's 4 Mbit/s while the signal is up.
    uint64_t fastest = 0;
    for (const auto& snapshot : snapshots)
        fastest = std::max<uint64_t>(
            fastest, std::stoull(snapshot.at("statistics").at("Raw bit rate [bit/sec]").get<std::string>()));
    EXPECT_GT(fastest, 3200000u);
    EXPECT_LT(fastest, 4800000u);
    EXPECT_NE(std::stoull(snapshots.back().at("statistics").at("Raw data counter").get<std::string>()), 0u);

    bool linkLossSeen = false;
    for (const auto& snapshot : snapshots)
        linkLossSeen |= snapshot.at("statistics").at("Signal state").get<std::string>() == "No link";
    EXPECT_TRUE(linkLossSeen);
    EXPECT_EQ(snapshots.back().at("statistics").at("No data/link/lock/range/unknown").get<std::string>(), "0/1/0/0/0");

    // The link loss raises and clears the input watchdogs; the left-out packets
    // raise continuity alarms, all under the given source name.
    for (const char* code : {"code=501", "code=502", "code=503"}) {
        EXPECT_TRUE(log_has(snapshots, std::string("ALARM ") + code)) << code << "\n" << result.output;
        EXPECT_TRUE(log_has(snapshots, std::string("CLEAR ") + code)) << code;
    }
    EXPECT_TRUE(log_has(snapshots, "ALARM code=112, level=2, reg_time="));
    EXPECT_TRUE(log_has(snapshots, "source=monitor-test, description=Sync lost , count=1"));
    bool ccListed = false;
    for (const auto& snapshot : snapshots)
        for (const auto& alarm : snapshot.at("alarms"))
            ccListed |= alarm.at("code").get<uint64_t>() == 112 &&
                        alarm.at("source").get<std::string>() == "monitor-test" &&
                        alarm.at("description").get<std::string>() ==
                            "CC error on PID " + std::to_string(alarm.at("pid").get<uint64_t>());
    EXPECT_TRUE(ccListed);
}

TEST(VqasiMonitor, TextScreenAndOutputFile) {
    char path[] = "/tmp/vqasi-monitor-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    const std::string simulator =
        "VQASISIM_INPUT=" + vq_test::shell_quote(vq_test::dataPath("live-072.ts")) + " VQASISIM_BITRATE=2000000";
    const auto result =
        vq_test::run_tool(monitor_command(simulator, "--duration 2 --output " + vq_test::shell_quote(path)));
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("video0: /dev/video0 capturing"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("video0:   Raw bit rate [bit/sec]"), std::string::npos);
    EXPECT_NE(result.output.find("(stopped)"), std::string::npos);
    std::ifstream written(path, std::ios::binary | std::ios::ate);
    const auto size = static_cast<uint64_t>(written.tellg());
    std::remove(path);
    EXPECT_GT(size, 0u);
    EXPECT_EQ(size % 188, 0u);
}

TEST(VqasiMonitor, AWrongDeviceIsRetriedWithTheDevicesMessage) {
    const auto result =
        vq_test::run_tool(monitor_command("", "--json --device /dev/video7 --retry-seconds 1 --duration 3.5"), true);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("vqasicapture: Can't open asi device: /dev/video7"), std::string::npos)
        << result.output;
    // The first attempt and at least two retries, one a second.
    size_t attempts = 0;
    const std::string message = "vqasi-monitor: port video7: cannot open the ASI device /dev/video7 (no such device)";
    for (size_t at = result.output.find(message); at != std::string::npos; at = result.output.find(message, at + 1))
        ++attempts;
    EXPECT_GE(attempts, 3u) << result.output;
    bool retrying = false;
    for (const auto& line : result.lines()) {
        if (line.compare(0, 2, "{\"") != 0)
            continue;
        const json snapshot = json::parse(line, nullptr, false);
        if (!snapshot.is_discarded())
            retrying |= snapshot.at("state").get<std::string>() == "retrying" && !snapshot.at("up").get<bool>();
    }
    EXPECT_TRUE(retrying) << result.output;
}

TEST(VqasiMonitor, HelpAndBadOptions) {
    const auto help = vq_test::run_tool(std::string(VQ_MONITOR_PATH) + " --help");
    EXPECT_EQ(help.status, 0);
    for (const char* option :
         {"--port", "--config", "--listen", "--retry-seconds", "--max-pids", "--device", "--input-type", "--plp",
          "--source-name", "--output", "--udp", "--duration", "--json", "--help-gst"})
        EXPECT_NE(help.output.find(option), std::string::npos) << option;
    EXPECT_EQ(vq_test::run_tool(std::string(VQ_MONITOR_PATH) + " --plp 256", true).status, 2);
    EXPECT_EQ(vq_test::run_tool(std::string(VQ_MONITOR_PATH) + " --udp nowhere", true).status, 2);
    EXPECT_EQ(vq_test::run_tool(std::string(VQ_MONITOR_PATH) + " --no-such-option", true).status, 2);
}

// scripts/demo.sh on this build: each second a heading and the lines that
// changed, the alarms the simulator's link loss and left-out packets provoke
// rising and clearing, and a recording tsparse reads to the end.
TEST(VqasiMonitor, TheDemoPrintsWhatChangesAndRecordsAStreamTsparseReads) {
#ifndef VQ_DEMO_SCRIPT
    GTEST_SKIP() << "the demo runs the programs of a build without sanitizers";
#else
    const auto result = vq_test::run_tool(
        "bash " + vq_test::shell_quote(VQ_DEMO_SCRIPT) + " --built " + vq_test::shell_quote(VQ_BUILD_DIR), true);
    ASSERT_EQ(result.status, 0) << result.output;
    const auto count = [&](const std::string& text) {
        size_t n = 0;
        for (size_t at = result.output.find(text); at != std::string::npos; at = result.output.find(text, at + 1))
            ++n;
        return n;
    };
    EXPECT_GE(count("video0: /dev/video0 capturing, "), 9u) << result.output;
    EXPECT_EQ(count("video0: /dev/video0 stopped, "), 1u);
    // A statistics item is printed when it changes, not every second.
    EXPECT_EQ(count("video0:   Asi fake frames                  0\n"), 1u) << result.output;
    EXPECT_EQ(count("video0:   Signal state                     No link\n"), 1u);
    EXPECT_GE(count("video0:   Signal state                     Ok\n"), 2u);
    for (const char* code : {"code=501", "code=502", "code=503"}) {
        EXPECT_EQ(count(std::string("video0: ALARM ") + code + ", level=2"), 1u) << code;
        EXPECT_EQ(count(std::string("video0: CLEAR ") + code + ", level=2"), 1u) << code;
    }
    EXPECT_GE(count("video0: ALARM code=112, level=2, reg_time="), 1u);
    EXPECT_GE(count(", source=demo, description=CC error on PID "), 1u);
    EXPECT_NE(result.output.find("\ncc_errors="), std::string::npos);
    EXPECT_NE(result.output.find("\ntsparse: read to the end without error\n"), std::string::npos) << result.output;
#endif
}

}  // namespace
