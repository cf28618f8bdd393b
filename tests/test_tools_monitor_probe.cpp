// vqasi-monitor as a probe: several simulated boards in one monitor, its key
// file and the errors it refuses, and its HTTP side (Prometheus metrics
// checked by promtool, the JSON status API read with nlohmann-json, refused
// methods, paths and oversized requests).

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

#include "mpegcore/TsAnalyzer.h"
#include "support/test_data.h"
#include "tools/background_process.h"
#include "tools/http_fetch.h"
#include "tools/tool_runner.h"

namespace {

using vq_test::shell_quote;

struct temp_file {
    explicit temp_file(const std::string& text = std::string()) {
        char name[] = "/tmp/vqasi-probe-XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0)
            close(fd);
        path = name;
        std::ofstream(path) << text;
    }
    ~temp_file() { std::remove(path.c_str()); }
    std::string path;
};

// The monitor with the simulator preloaded, answering for two boards.
std::string monitor_command(const std::string& simulator, const std::string& arguments) {
    return "env LD_PRELOAD=" + shell_quote(VQ_MONITOR_PRELOAD) + " VQASISIM_DEVICE=/dev/video0,/dev/video1 " +
           simulator + " " + shell_quote(VQ_MONITOR_PATH) + " " + arguments;
}

// The value of one sample of a scrape ("name{labels}"), -1 when absent.
double sample(const std::string& scrape, const std::string& series) {
    const auto at = scrape.find("\n" + series + " ");
    return at == std::string::npos ? -1 : std::stod(scrape.substr(at + series.size() + 2));
}

size_t count_lines_starting(const std::string& scrape, const std::string& prefix) {
    size_t count = 0;
    for (size_t at = scrape.find("\n" + prefix); at != std::string::npos; at = scrape.find("\n" + prefix, at + 1))
        ++count;
    return count;
}

// Every PromQL expression of a Grafana dashboard.
void collect_expressions(const nlohmann::json& node, std::vector<std::string>& out) {
    if (node.is_object()) {
        for (auto it = node.begin(); it != node.end(); ++it) {
            if (it.key() == "expr" && it.value().is_string())
                out.push_back(it.value().get<std::string>());
            else
                collect_expressions(it.value(), out);
        }
    } else if (node.is_array()) {
        for (const auto& item : node)
            collect_expressions(item, out);
    }
}

void expect_refused(const std::string& text, const std::string& message) {
    temp_file config(text);
    const auto result = vq_test::run_tool(monitor_command("", "--listen none --config " + config.path), true);
    EXPECT_EQ(result.status, 2) << result.output;
    const std::string expected = config.path + message;
    EXPECT_NE(result.output.find(expected), std::string::npos) << "expected: " << expected << "\n" << result.output;
    EXPECT_EQ(result.output.find("Open asi device"), std::string::npos) << "nothing starts";
}

TEST(VqasiMonitorProbe, ABadConfigFileIsRefusedWithFileLineAndKey) {
    expect_refused("[monitor]\nretry-seconds=2\n[port a]\ndevice=/dev/video0\nplp=300\n",
                   ":5: [port a] key plp: 0 to 255, not \"300\"");
    expect_refused("[port a]\ndevice=/dev/video0\n\ncolour=blue\n", ":4: [port a] unknown key colour");
    expect_refused("[monitor]\nmax-pids=none\n", ":2: [monitor] key max-pids: 1 to 8192, not \"none\"");
    // GLib's own message names the line of a syntax error.
    expect_refused(
        "[port a]\ndevice=/dev/video0\nthis is not a key file\n",
        ": Key file contains line “this is not a key file” which is not a key-value pair, group, or comment");
    expect_refused("[ports]\nx=1\n", ": unknown group [ports] (use [monitor] and [port NAME])");
    expect_refused("[port a]\nudp=nowhere\n", ": port a: key udp takes HOST:PORT, not \"nowhere\"");
    const auto missing = vq_test::run_tool(monitor_command("", "--config /nonexistent/probe.conf"), true);
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.output.find("vqasi-monitor: /nonexistent/probe.conf: "), std::string::npos) << missing.output;
    const auto twice = vq_test::run_tool(monitor_command("", "--port a=/dev/video0 --port a=/dev/video1"), true);
    EXPECT_EQ(twice.status, 2);
    EXPECT_NE(twice.output.find("port a is named twice"), std::string::npos) << twice.output;
    const auto spec = vq_test::run_tool(monitor_command("", "--port a=/dev/video0,plp=x"), true);
    EXPECT_EQ(spec.status, 2);
    EXPECT_NE(spec.output.find("--port a=/dev/video0,plp=x: key plp: 0 to 255, not \"x\""), std::string::npos)
        << spec.output;
}

TEST(VqasiMonitorProbe, TwoPortsServeMetricsTheApiAndRefuseTheRest) {
    const int port = vq_test::free_loopback_port();
    ASSERT_GT(port, 0);
    const std::string base = "http://127.0.0.1:" + std::to_string(port);
    temp_file config("[monitor]\nlisten=127.0.0.1:" + std::to_string(port) +
                     "\nmax-pids=3\n\n[port north]\ndevice=/dev/video0\n\n[port south]\ndevice=/dev/video1\n");
    temp_file output;
    const std::string simulator = "VQASISIM_INPUT=" + shell_quote(vq_test::dataPath("live-025.ts")) + "," +
                                  shell_quote(vq_test::dataPath("live-012.ts")) +
                                  " VQASISIM_BITRATE=5000000 VQASISIM_CC_ERRORS=400";
    vq_test::background_process monitor(monitor_command(simulator, "--json --config " + config.path), output.path);
    ASSERT_TRUE(monitor.started());

    std::string scrape;
    ASSERT_TRUE(vq_test::wait_for(
        [&] {
            const auto reply = vq_test::http_fetch(base + "/metrics");
            scrape = reply.body;
            return reply.status == 200 && sample(scrape, "vqasi_ts_bytes_total{port=\"north\"}") > 0 &&
                   sample(scrape, "vqasi_ts_bytes_total{port=\"south\"}") > 0 &&
                   sample(scrape,
                          "vqasi_tr101290_errors_total{port=\"north\",check=\"Continuity_count_error\","
                          "priority=\"1\"}") > 0;
        },
        20))
        << scrape << monitor.output();

    // promtool parses the exposition and finds nothing to say but its naming
    // advice on the six names the probe's users were promised (bits and ms in
    // the name); any other line (a format error, a missing HELP or TYPE) fails.
    temp_file scraped(scrape);
    const auto check = vq_test::run_tool("promtool check metrics < " + shell_quote(scraped.path), true);
    std::string unexpected;
    size_t advice = 0;
    const std::regex allowed(
        "vqasi_(input_bitrate|ts_bitrate|pid_bitrate)_bits use base unit \"bytes\" instead of "
        "\"bits\"|vqasi_(map_delay|push_delay|frame_interval)_ms metric names should not "
        "contain abbreviated units");
    for (const auto& line : check.lines()) {
        if (std::regex_match(line, allowed))
            ++advice;
        else
            unexpected += line + "\n";
    }
    EXPECT_EQ(unexpected, "") << check.output;
    EXPECT_LE(advice, 6u);
    for (const char* port : {"north", "south"}) {
        const std::string label = std::string("{port=\"") + port + "\"";
        EXPECT_EQ(sample(scrape, "vqasi_port_up" + label + "}"), 1) << port;
        EXPECT_EQ(sample(scrape, "vqasi_signal_state" + label + ",state=\"ok\"}"), 1) << port;
        EXPECT_GT(sample(scrape, "vqasi_frames_total" + label + "}"), 0) << port;
        EXPECT_GT(sample(scrape, "vqasi_input_bytes_total" + label + "}"), 0) << port;
        // max-pids bounds the PID series, busiest first.
        EXPECT_EQ(count_lines_starting(scrape, "vqasi_pid_bitrate_bits" + label), 3u) << port;
        EXPECT_EQ(count_lines_starting(scrape, "vqasi_pid_cc_errors_total" + label), 3u) << port;
        EXPECT_EQ(count_lines_starting(scrape, "vqasi_tr101290_errors_total" + label), mpegcore::tr101290_check_count)
            << port;
    }
    EXPECT_NE(scrape.find("vqasi_alarm_active{port=\"north\",code=\"112\",pid=\""), std::string::npos) << scrape;
    for (const char* family : {"vqasi_map_delay_ms", "vqasi_push_delay_ms", "vqasi_frame_interval_ms"})
        for (const char* stat : {"min", "avg", "max"})
            EXPECT_GE(sample(scrape, std::string(family) + "{port=\"south\",stat=\"" + stat + "\"}"), 0) << family;

    // Every metric the shipped dashboard queries is in the scrape.
    std::ifstream dashboardFile(std::string(VQ_CONTRIB_DIR) + "/vqasi-dashboard.json");
    const auto dashboard = nlohmann::json::parse(dashboardFile);
    std::vector<std::string> expressions;
    collect_expressions(dashboard, expressions);
    EXPECT_GE(expressions.size(), 10u);
    std::set<std::string> queried;
    const std::regex metric("vqasi_[a-z0-9_]+");
    for (const auto& expression : expressions)
        for (auto it = std::sregex_iterator(expression.begin(), expression.end(), metric); it != std::sregex_iterator();
             ++it)
            queried.insert(it->str());
    EXPECT_GE(queried.size(), 12u);
    for (const auto& name : queried)
        EXPECT_NE(scrape.find("\n# TYPE " + name + " "), std::string::npos) << "the dashboard queries " << name;

    const auto api = vq_test::http_fetch(base + "/api/v1/ports");
    ASSERT_EQ(api.status, 200);
    const auto ports = nlohmann::json::parse(api.body).at("ports");
    ASSERT_EQ(ports.size(), 2u);
    EXPECT_EQ(ports[0].at("name"), "north");
    EXPECT_EQ(ports[1].at("options").at("device"), "/dev/video1");
    for (const auto& p : ports) {
        EXPECT_EQ(p.at("state"), "capturing");
        EXPECT_TRUE(p.at("up").get<bool>());
        EXPECT_EQ(p.at("statistics").size(), 15u);
        EXPECT_EQ(p.at("statistics").at("Signal state"), "Ok");
        EXPECT_GT(p.at("tr101290").at("Continuity_count_error").get<uint64_t>(), 0u);
        EXPECT_TRUE(p.at("alarms").is_array());
    }
    EXPECT_EQ(vq_test::http_fetch(base + "/healthz").body, "ok\n");

    // Read-only: other methods, other paths and oversized requests are refused.
    EXPECT_EQ(vq_test::http_fetch(base + "/metrics", "-X POST -d x=1").status, 405);
    EXPECT_EQ(vq_test::http_fetch(base + "/api/v1/ports", "-X DELETE").status, 405);
    EXPECT_EQ(vq_test::http_fetch(base + "/etc/passwd").status, 404);
    EXPECT_EQ(vq_test::http_fetch(base + "/metrics/../api").status, 404);
    const auto huge =
        vq_test::http_fetch(base + "/metrics", "-H " + shell_quote("X-Padding: " + std::string(40000, 'a')));
    EXPECT_EQ(huge.status, 431) << "Request Header Fields Too Large";
    EXPECT_EQ(vq_test::http_fetch(base + "/healthz").status, 200) << "the server survives the oversized request";

    EXPECT_EQ(monitor.stop(), 0) << monitor.output();
    // The JSON lines carry every port, each line naming its port.
    std::map<std::string, int> linesOf;
    for (const auto& line : vq_test::tool_result{0, monitor.output()}.lines())
        if (line.compare(0, 1, "{") == 0)
            ++linesOf[nlohmann::json::parse(line).at("name").get<std::string>()];
    EXPECT_GE(linesOf["north"], 2);
    EXPECT_EQ(linesOf["north"], linesOf["south"]);
}

TEST(VqasiMonitorProbe, TheExampleConfigStartsItsThreePorts) {
    const std::string simulator = "VQASISIM_DEVICE=/dev/video0,/dev/video1,/dev/video2 VQASISIM_INPUT=" +
                                  shell_quote(vq_test::dataPath("live-025.ts")) + "," +
                                  shell_quote(vq_test::dataPath("t2mi-plp102.ts")) + "," +
                                  shell_quote(vq_test::dataPath("live-012.ts"));
    // The command line's --listen wins over the file's.
    const auto result =
        vq_test::run_tool("env LD_PRELOAD=" + shell_quote(VQ_MONITOR_PRELOAD) + " " + simulator + " " +
                          shell_quote(VQ_MONITOR_PATH) + " --json --duration 2.5 --listen 127.0.0.1:0 --config " +
                          shell_quote(std::string(VQ_CONTRIB_DIR) + "/example.conf"));
    ASSERT_EQ(result.status, 0) << result.output;
    std::map<std::string, std::string> states;
    for (const auto& line : result.lines()) {
        const auto port = nlohmann::json::parse(line);
        if (port.at("final") == 0)
            states[port.at("name")] = port.at("state");
    }
    EXPECT_EQ(states, (std::map<std::string, std::string>{
                          {"mux1", "capturing"}, {"mux3", "capturing"}, {"t2mi", "capturing"}}));
}

}  // namespace
