// ts-analyze: runs the stream analysis (the TR 101 290 checks with per-PID,
// per-table and stream figures) over a transport stream file or standard
// input, timing the packets by their byte position at the stream's rate.

#include <getopt.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "analysis_json.h"
#include "data_output.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/TsAnalyzer.h"

namespace {

const char kUsage[] =
    "Usage: ts-analyze [--json] [--bitrate BPS] [--pid-timeout S] FILE|-\n"
    "Analyses the MPEG-2 transport stream FILE (standard input for \"-\") after\n"
    "ETSI TR 101 290: the priority 1 and 2 checks and the SI checks of priority 3,\n"
    "then the figures of every PID, table and service. Packets are timed by their\n"
    "byte position at BPS, or else at the rate measured from the PCRs.\n"
    "\n"
    "  -j, --json            one JSON object instead of text\n"
    "  -b, --bitrate BPS     transport rate in bit/s\n"
    "  -t, --pid-timeout S   PID_error after a referenced PID is absent S seconds (5)\n"
    "  -h, --help            this text\n"
    "      --version         the version of ts-analyze\n"
    "\n"
    "Exit status: 0 without priority 1 or 2 errors, 1 with some, 2 on a usage or\n"
    "read error.\n";

using namespace mpegcore;
using json = nlohmann::ordered_json;

constexpr size_t kChunk = kTsPacketSize * 1024;
// Without --bitrate the rate is measured from the PCRs of the first bytes.
constexpr size_t kRateProbe = 16 * 1024 * 1024;

struct file_closer {
    void operator()(FILE* file) const {
        if (file != stdin)
            std::fclose(file);
    }
};

bool parseNumber(const char* text, double& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text, &end);
    return errno == 0 && end != text && *end == '\0' && value > 0;
}

// The PCR-based rate of the bytes, 0 when they hold fewer than two PCRs.
uint64_t measuredRate(const std::vector<uint8_t>& bytes) {
    CTsAnalyzer probe;
    probe.push_raw(0, 0, bytes.data(), bytes.size());
    return probe.stream_figures().bitrate;
}

json toJson(const CTsAnalyzer& analyzer) {
    json out;
    json& checks = out["tr101290"];
    for (size_t i = 0; i < tr101290_check_count; ++i) {
        const auto check = static_cast<tr101290_check>(i);
        checks[tr101290_name(check)] = analyzer.count(check);
    }
    json pids = json::array();
    for (const auto& f : analyzer.pid_figures())
        pids.push_back(pid_figures_json(f));
    out["pids"] = pids;
    json tables = json::array();
    for (const auto& t : analyzer.table_figures()) {
        auto ms = [](int64_t v) { return v < 0 ? json(nullptr) : json(v); };
        tables.push_back({{"pid", t.pid},
                          {"table_id", t.table_id},
                          {"table_id_ext", t.table_id_ext},
                          {"sections", t.sections},
                          {"repetition_ms_min", ms(t.repetition_ms_min)},
                          {"repetition_ms_max", ms(t.repetition_ms_max)}});
    }
    out["tables"] = tables;
    json services = json::array();
    for (const auto& s : analyzer.service_figures())
        services.push_back(
            {{"service_id", s.service_id}, {"pmt_pid", s.pmt_pid}, {"pcr_pid", s.pcr_pid}, {"pids", s.pids}});
    out["services"] = services;
    out["ts"] = stream_figures_json(analyzer.stream_figures());
    return out;
}

void printText(const CTsAnalyzer& analyzer, FILE* out) {
    for (int priority = 1; priority <= 3; ++priority) {
        std::fprintf(out, "Priority %d\n", priority);
        for (size_t i = 0; i < tr101290_check_count; ++i) {
            const auto check = static_cast<tr101290_check>(i);
            if (tr101290_priority(check) == priority)
                std::fprintf(out, "  %-34s %" PRIu64 "\n", tr101290_name(check), analyzer.count(check));
        }
    }
    const ts_stream_figures ts = analyzer.stream_figures();
    std::fprintf(out, "Stream\n  packets %" PRIu64 ", bitrate %" PRIu64 " bit/s, duration %" PRIu64 " ms\n", ts.packets,
                 ts.bitrate, ts.duration_ms);
    std::fprintf(out, "PIDs\n  %6s %10s %10s %6s %6s %9s %6s %6s %6s %6s %7s\n", "pid", "packets", "bitrate", "cc",
                 "dup", "scrambled", "tei", "pcr", "pts", "dts", "service");
    for (const auto& f : analyzer.pid_figures()) {
        std::fprintf(out,
                     "  %6u %10" PRIu64 " %10" PRIu64 " %6" PRIu64 " %6" PRIu64 " %9" PRIu64 " %6" PRIu64 " %6" PRIu64
                     " %6" PRIu64 " %6" PRIu64 " %7s\n",
                     f.pid, f.packets, f.bitrate, f.cc_errors, f.duplicates, f.scrambled, f.tei, f.pcr, f.pts, f.dts,
                     f.service < 0 ? "-" : std::to_string(f.service).c_str());
    }
    std::fprintf(out, "Tables\n  %6s %8s %8s %8s %10s %10s\n", "pid", "table_id", "ext", "sections", "rep_min_ms",
                 "rep_max_ms");
    for (const auto& t : analyzer.table_figures()) {
        std::fprintf(out, "  %6u %#8x %8u %8" PRIu64 " %10s %10s\n", t.pid, t.table_id, t.table_id_ext, t.sections,
                     t.repetition_ms_min < 0 ? "-" : std::to_string(t.repetition_ms_min).c_str(),
                     t.repetition_ms_max < 0 ? "-" : std::to_string(t.repetition_ms_max).c_str());
    }
    std::fprintf(out, "Services\n");
    for (const auto& s : analyzer.service_figures()) {
        std::string pids;
        for (const uint16_t pid : s.pids)
            pids += ' ' + std::to_string(pid);
        std::fprintf(out, "  service %u: PMT PID %u, PCR PID %u, PIDs%s\n", s.service_id, s.pmt_pid, s.pcr_pid,
                     pids.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    bool jsonOutput = false;
    double bitrate = 0, pidTimeout = 5;
    static const option kOptions[] = {
        {"json", no_argument, nullptr, 'j'},
        {"bitrate", required_argument, nullptr, 'b'},
        {"pid-timeout", required_argument, nullptr, 't'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "jb:t:h", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 'j': jsonOutput = true; break;
        case 'b':
            if (!parseNumber(optarg, bitrate)) {
                std::fprintf(stderr, "ts-analyze: bad --bitrate: %s\n", optarg);
                return 2;
            }
            break;
        case 't':
            if (!parseNumber(optarg, pidTimeout)) {
                std::fprintf(stderr, "ts-analyze: bad --pid-timeout: %s\n", optarg);
                return 2;
            }
            break;
        case 'h': std::fputs(kUsage, stdout); return 0;
        case 'V': std::printf("ts-analyze %s\n", VQ_GRAPH_VERSION); return 0;
        default: std::fputs(kUsage, stderr); return 2;
        }
    }
    if (argc - optind != 1) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const std::string path = argv[optind];
    std::unique_ptr<FILE, file_closer> input(path == "-" ? stdin : std::fopen(path.c_str(), "rb"));
    if (!input) {
        std::fprintf(stderr, "ts-analyze: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
        return 2;
    }

    // The first bytes are held until the rate that times them is known.
    std::vector<uint8_t> held;
    std::vector<uint8_t> buffer(kChunk);
    uint64_t rate = static_cast<uint64_t>(bitrate);
    bool atEnd = false;
    while (!rate) {
        const size_t got = std::fread(buffer.data(), 1, buffer.size(), input.get());
        held.insert(held.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(got));
        atEnd = got == 0;
        if (atEnd || held.size() >= kRateProbe) {
            rate = measuredRate(held);
            if (!rate && atEnd)
                break;
        }
    }
    if (std::ferror(input.get())) {
        std::fprintf(stderr, "ts-analyze: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
        return 2;
    }
    if (!rate && !held.empty()) {
        std::fprintf(stderr, "ts-analyze: %s has no PCRs to time the packets by; give --bitrate\n", path.c_str());
        return 2;
    }

    data_output data;  // library messages go to standard error, not into the report
    CTsAnalyzer::options opts;
    opts.transport_rate = static_cast<uint64_t>(bitrate);
    opts.pid_timeout = static_cast<uint64_t>(pidTimeout * 1e9);
    CTsAnalyzer analyzer(opts);
    uint64_t position = 0;
    auto feed = [&](const uint8_t* data, size_t size) {
        const auto timeOf = [&](uint64_t bytes) {
            return static_cast<uint64_t>(static_cast<long double>(bytes) * 8 * 1000000000 / rate);
        };
        analyzer.push_raw(timeOf(position), timeOf(position + size), data, size);
        position += size;
    };
    if (!held.empty())
        feed(held.data(), held.size());
    held = std::vector<uint8_t>();
    while (!atEnd) {
        const size_t got = std::fread(buffer.data(), 1, buffer.size(), input.get());
        if (got == 0)
            break;
        feed(buffer.data(), got);
    }
    if (std::ferror(input.get())) {
        std::fprintf(stderr, "ts-analyze: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
        return 2;
    }
    analyzer.finish();

    if (jsonOutput)
        std::fprintf(data.file(), "%s\n", toJson(analyzer).dump().c_str());
    else
        printText(analyzer, data.file());
    std::fflush(data.file());
    return analyzer.has_errors(1) || analyzer.has_errors(2) ? 1 : 0;
}
