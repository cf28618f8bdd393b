// A real Prometheus server scrapes vqasi-monitor once a second while the
// monitor runs two simulated boards, one playing a stream whose packets the
// simulator leaves out, the other null packets (which carry no continuity
// counter, so the same fault leaves it clean). Through Prometheus's query API:
// the bytes of both ports grow, the continuity errors and alarm show on one
// port only, and the removed board's port goes down and comes back.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "support/test_data.h"
#include "tools/background_process.h"
#include "tools/http_fetch.h"
#include "tools/temp_dir.h"
#include "tools/tool_runner.h"

namespace {

using vq_test::shell_quote;

std::string prometheus_binary() {
    const auto found = vq_test::run_tool("command -v prometheus");
    return found.status == 0 ? found.lines().front() : std::string();
}

// One series' value per port from an instant query; absent ports are missing.
std::map<std::string, double> query(const std::string& server, const std::string& promql) {
    std::map<std::string, double> values;
    const auto reply =
        vq_test::http_fetch(server + "/api/v1/query", "-G --data-urlencode " + shell_quote("query=" + promql));
    if (reply.status != 200)
        return values;
    const auto answer = nlohmann::json::parse(reply.body, nullptr, false);
    if (answer.is_discarded() || answer.value("status", "") != "success")
        return values;
    for (const auto& series : answer["data"]["result"])
        values[series["metric"].value("port", "")] = std::stod(series["value"][1].get<std::string>());
    return values;
}

TEST(VqasiMonitorPrometheus, ScrapedPortsShowBytesContinuityErrorsAndARemovedBoard) {
    const std::string prometheus = prometheus_binary();
    if (prometheus.empty())
        GTEST_SKIP() << "the prometheus binary is not installed (Debian package prometheus); nothing to scrape with";

    vq_test::temp_dir dir("vqasi-prometheus");
    ASSERT_FALSE(dir.path.empty());
    // A stream of null packets for the clean port.
    {
        std::vector<uint8_t> packet(188, 0xFF);
        packet[0] = 0x47;
        packet[1] = 0x1F;
        packet[2] = 0xFF;
        packet[3] = 0x10;
        std::ofstream nulls(dir.path + "/null.ts", std::ios::binary);
        for (int i = 0; i < 5000; ++i)
            nulls.write(reinterpret_cast<const char*>(packet.data()), packet.size());
    }
    const int monitorPort = vq_test::free_loopback_port();
    const int prometheusPort = vq_test::free_loopback_port();
    ASSERT_GT(monitorPort, 0);
    ASSERT_GT(prometheusPort, 0);
    ASSERT_NE(monitorPort, prometheusPort);

    // Both boards disappear ten seconds after each open (the simulator's
    // removal applies to every board it plays); the monitor retries after two.
    const std::string simulator =
        "VQASISIM_DEVICE=/dev/video0,/dev/video1 VQASISIM_INPUT=" + shell_quote(dir.path + "/null.ts") + "," +
        shell_quote(vq_test::dataPath("live-025.ts")) +
        " VQASISIM_BITRATE=5000000 VQASISIM_CC_ERRORS=400 VQASISIM_REMOVE_AFTER=10";
    vq_test::background_process monitor(
        "env LD_PRELOAD=" + shell_quote(VQ_MONITOR_PRELOAD) + " " + simulator + " " + shell_quote(VQ_MONITOR_PATH) +
            " --json --retry-seconds 2 --listen 127.0.0.1:" + std::to_string(monitorPort) +
            " --port clean=/dev/video0 --port faulty=/dev/video1",
        dir.path + "/monitor.log");
    ASSERT_TRUE(monitor.started());

    std::ofstream(dir.path + "/prometheus.yml") << "global:\n  scrape_interval: 1s\n  evaluation_interval: 1s\n"
                                                   "scrape_configs:\n  - job_name: vqasi\n    static_configs:\n"
                                                   "      - targets: ['127.0.0.1:"
                                                << monitorPort << "']\n";
    vq_test::background_process server(shell_quote(prometheus) +
                                           " --config.file=" + shell_quote(dir.path + "/prometheus.yml") +
                                           " --storage.tsdb.path=" + shell_quote(dir.path + "/data") +
                                           " --web.listen-address=127.0.0.1:" + std::to_string(prometheusPort),
                                       dir.path + "/prometheus.log");
    ASSERT_TRUE(server.started());
    const std::string api = "http://127.0.0.1:" + std::to_string(prometheusPort);

    // The bytes of both ports grow between scrapes.
    std::map<std::string, double> first;
    ASSERT_TRUE(vq_test::wait_for(
        [&] {
            first = query(api, "vqasi_ts_bytes_total");
            return first["clean"] > 0 && first["faulty"] > 0;
        },
        20))
        << server.output() << monitor.output();
    EXPECT_TRUE(vq_test::wait_for(
        [&] {
            auto now = query(api, "vqasi_ts_bytes_total");
            return now["clean"] > first["clean"] && now["faulty"] > first["faulty"];
        },
        10));

    // Continuity errors and the continuity alarm on the faulty port only.
    std::map<std::string, double> cc;
    EXPECT_TRUE(vq_test::wait_for(
        [&] {
            cc = query(api, "vqasi_tr101290_errors_total{check=\"Continuity_count_error\"}");
            return cc["faulty"] > 0;
        },
        10));
    EXPECT_EQ(cc.count("clean"), 1u);
    EXPECT_EQ(cc["clean"], 0);
    std::map<std::string, double> alarms;
    EXPECT_TRUE(vq_test::wait_for(
        [&] {
            alarms = query(api, "count by (port) (max_over_time(vqasi_alarm_active{code=\"112\"}[1m]))");
            return alarms["faulty"] > 0;
        },
        10));
    EXPECT_EQ(alarms.count("clean"), 0u);

    // The board goes: the port is down; it comes back: the port is up again.
    const auto faultyUpIs = [&](double value) {
        auto up = query(api, "vqasi_port_up{port=\"faulty\"}");
        return up.count("faulty") && up["faulty"] == value;
    };
    EXPECT_TRUE(vq_test::wait_for([&] { return faultyUpIs(0); }, 20)) << monitor.output();
    EXPECT_TRUE(vq_test::wait_for([&] { return faultyUpIs(1); }, 10)) << monitor.output();
    EXPECT_NE(monitor.output().find("port faulty: "), std::string::npos);

    EXPECT_EQ(monitor.stop(), 0) << monitor.output();
    server.stop();
}

}  // namespace
