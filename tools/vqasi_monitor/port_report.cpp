#include "port_report.h"

#include <cctype>
#include <functional>
#include <sstream>

#include "analysis_json.h"

namespace {

// A label value with backslash, quote and newline escaped.
std::string escape_label(const std::string& value) {
    std::string out;
    for (const char c : value) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

class exposition {
public:
    explicit exposition(const std::vector<port_snapshot>& ports) : m_ports(ports) {}

    // One family: HELP, TYPE, then the samples `each` writes for every port.
    void family(const char* name, const char* type, const char* help,
                const std::function<void(const port_snapshot&, const std::string&)>& each) {
        m_out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
        m_name = name;
        for (const auto& port : m_ports)
            each(port, "port=\"" + escape_label(port.options.name) + "\"");
    }
    void sample(const std::string& labels, uint64_t value) {
        m_out << m_name << '{' << labels << "} " << value << '\n';
    }
    void counter_field(const char* name, const char* help, const char* field) {
        family(name, "counter", help, [&](const port_snapshot& port, const std::string& labels) {
            const auto it = port.counters.find(field);
            sample(labels, it == port.counters.end() ? 0 : it->second);
        });
    }
    void stat_fields(const char* name, const char* help, const std::string& prefix) {
        family(name, "gauge", help, [&](const port_snapshot& port, const std::string& labels) {
            for (const char* stat : {"min", "avg", "max"}) {
                const auto it = port.counters.find(prefix + stat);
                sample(labels + ",stat=\"" + stat + "\"", it == port.counters.end() ? 0 : it->second);
            }
        });
    }
    std::string text() const { return m_out.str(); }

private:
    const std::vector<port_snapshot>& m_ports;
    std::ostringstream m_out;
    std::string m_name;
};

const char* const kSignalStates[] = {"Ok", "No data", "No link", "No lock", "No range", "Unknown"};

uint64_t counter(const port_snapshot& port, const char* field) {
    const auto it = port.counters.find(field);
    return it == port.counters.end() ? 0 : it->second;
}

}  // namespace

std::string signal_state_label(const std::string& state) {
    std::string out;
    for (const char c : state)
        out += c == ' ' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string prometheus_metrics(const std::vector<port_snapshot>& ports) {
    exposition e(ports);
    e.family("vqasi_port_up", "gauge", "1 while the port's board is open and capturing",
             [&](const port_snapshot& port, const std::string& labels) { e.sample(labels, port.up ? 1 : 0); });
    e.family("vqasi_signal_state", "gauge", "1 for the receiver's current signal state",
             [&](const port_snapshot& port, const std::string& labels) {
                 for (const char* state : kSignalStates)
                     e.sample(labels + ",state=\"" + signal_state_label(state) + "\"",
                              port.up && port.signalState == state ? 1 : 0);
             });
    e.counter_field("vqasi_input_bytes_total", "Bytes received from the board", "raw-bytes");
    e.counter_field("vqasi_ts_bytes_total", "Transport stream bytes delivered (aligned packets)", "bytes");
    e.counter_field("vqasi_bad_bytes_total", "Bytes dropped while looking for packet sync", "bad-bytes");
    e.counter_field("vqasi_frames_total", "Board frames captured", "frames");
    e.counter_field("vqasi_dropped_frames_total", "Board frames lost", "dropped-frames");
    e.family(
        "vqasi_input_bitrate_bits", "gauge", "Rate of the bytes received from the board, bit/s",
        [&](const port_snapshot& port, const std::string& labels) { e.sample(labels, counter(port, "raw-bitrate")); });
    e.family("vqasi_ts_bitrate_bits", "gauge", "Rate of the transport stream delivered, bit/s",
             [&](const port_snapshot& port, const std::string& labels) { e.sample(labels, counter(port, "bitrate")); });
    e.stat_fields("vqasi_map_delay_ms", "Time to map a board frame, ms", "map-delay-");
    e.stat_fields("vqasi_push_delay_ms", "Time to push a frame downstream, ms", "push-delay-");
    e.stat_fields("vqasi_frame_interval_ms", "Time between board frames, ms", "frame-interval-");
    e.family("vqasi_alarm_active", "gauge", "1 for each active alarm (pid empty for input alarms)",
             [&](const port_snapshot& port, const std::string& labels) {
                 for (const auto& alarm : port.alarms)
                     e.sample(labels + ",code=\"" + std::to_string(alarm.code) + "\",pid=\"" +
                                  (alarm.pid < 0 ? std::string() : std::to_string(alarm.pid)) + "\",description=\"" +
                                  escape_label(alarm.description) + "\"",
                              1);
             });
    e.family("vqasi_tr101290_errors_total", "counter", "Errors counted by each check of the stream analysis",
             [&](const port_snapshot& port, const std::string& labels) {
                 for (size_t i = 0; i < mpegcore::tr101290_check_count; ++i) {
                     const auto check = static_cast<mpegcore::tr101290_check>(i);
                     e.sample(labels + ",check=\"" + mpegcore::tr101290_name(check) + "\",priority=\"" +
                                  std::to_string(mpegcore::tr101290_priority(check)) + "\"",
                              port.tr101290[i]);
                 }
             });
    e.family("vqasi_pid_bitrate_bits", "gauge", "Bit rate of the busiest PIDs, bit/s",
             [&](const port_snapshot& port, const std::string& labels) {
                 for (const auto& pid : port.pids)
                     e.sample(labels + ",pid=\"" + std::to_string(pid.pid) + "\"", pid.bitrate);
             });
    e.family("vqasi_pid_cc_errors_total", "counter", "Continuity counter errors of the busiest PIDs",
             [&](const port_snapshot& port, const std::string& labels) {
                 for (const auto& pid : port.pids)
                     e.sample(labels + ",pid=\"" + std::to_string(pid.pid) + "\"", pid.cc_errors);
             });
    return e.text();
}

nlohmann::json port_json(const port_snapshot& port) {
    const port_options& o = port.options;
    nlohmann::json j;
    j["name"] = o.name;
    j["options"] = {{"device", o.device}, {"input-type", o.inputType}, {"plp", o.plp}, {"udp", o.udp},
                    {"srt", o.srt},       {"output", o.output}};
    j["state"] = port.state;
    j["up"] = port.up;
    j["last_problem"] = port.lastProblem;
    nlohmann::json statistics = nlohmann::json::object();
    for (const auto& item : port.items)
        statistics[item.first] = item.second;
    j["statistics"] = statistics;
    nlohmann::json alarms = nlohmann::json::array();
    for (const auto& alarm : port.alarms)
        alarms.push_back({{"code", alarm.code},
                          {"level", alarm.level},
                          {"pid", alarm.pid},
                          {"description", alarm.description},
                          {"source", alarm.source},
                          {"count", alarm.count},
                          {"reg_time", alarm.regTime}});
    j["alarms"] = alarms;
    nlohmann::json checks = nlohmann::json::object();
    for (size_t i = 0; i < mpegcore::tr101290_check_count; ++i)
        checks[mpegcore::tr101290_name(static_cast<mpegcore::tr101290_check>(i))] = port.tr101290[i];
    j["tr101290"] = checks;
    nlohmann::json pids = nlohmann::json::array();
    for (const auto& pid : port.pids)
        pids.push_back(nlohmann::json(pid_figures_json(pid)));
    j["pids"] = pids;
    j["ts"] = nlohmann::json(stream_figures_json(port.ts));
    return j;
}
