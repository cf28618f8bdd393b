// vqasi-monitor: runs one vqasicapture pipeline per port (capture board),
// analyses each port's stream, shows the statistics, active alarms and check
// counts of every port once a second, as a screen of text, as scrolling lines
// of what changed or as JSON lines, and serves them over HTTP (Prometheus
// metrics, a JSON status API). A board that cannot be opened or disappears is
// retried without disturbing the other ports. Stops after --duration seconds
// or on Ctrl-C / SIGTERM.

#include <glib-unix.h>
#include <gst/gst.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "data_output.h"
#include "http_server.h"
#include "monitor_port.h"
#include "port_options.h"
#include "port_report.h"

namespace {

struct command_line {
    gchar* device = nullptr;
    gint inputType = 0;
    gint plp = 0;
    gchar* sourceName = nullptr;
    gchar* outputFile = nullptr;
    gchar* udp = nullptr;
    gchar** ports = nullptr;
    gchar* config = nullptr;
    gchar* listen = nullptr;
    gint retrySeconds = 0;
    gint maxPids = 0;
    gdouble duration = 0;
    gboolean json = FALSE;
    gboolean changes = FALSE;
    gboolean version = FALSE;

    ~command_line() {
        g_free(device);
        g_free(sourceName);
        g_free(outputFile);
        g_free(udp);
        g_strfreev(ports);
        g_free(config);
        g_free(listen);
    }
};

// The settings from the config file, then the command line; false with a message.
bool read_settings(const command_line& cl, monitor_settings& settings) {
    std::string error;
    if (cl.config && !load_config_file(cl.config, settings, error)) {
        std::fprintf(stderr, "vqasi-monitor: %s\n", error.c_str());
        return false;
    }
    for (gchar** spec = cl.ports; spec && *spec; ++spec) {
        port_options port;
        if (!parse_port_spec(*spec, port, error)) {
            std::fprintf(stderr, "vqasi-monitor: %s\n", error.c_str());
            return false;
        }
        settings.ports.push_back(port);
    }
    const bool singleOptions = cl.device || cl.outputFile || cl.udp || cl.inputType || cl.plp;
    if (settings.ports.empty() || singleOptions) {
        if (!settings.ports.empty()) {
            std::fprintf(stderr,
                         "vqasi-monitor: --device, --output, --udp, --input-type and --plp describe the "
                         "one port of a monitor without --port or --config\n");
            return false;
        }
        port_options port;
        port.device = cl.device ? cl.device : "/dev/video0";
        gchar* base = g_path_get_basename(port.device.c_str());
        port.name = base;
        g_free(base);
        port.inputType = cl.inputType;
        port.plp = cl.plp;
        port.output = cl.outputFile ? cl.outputFile : "";
        port.udp = cl.udp ? cl.udp : "";
        if (!check_port(port, error)) {
            std::fprintf(stderr, "vqasi-monitor: %s\n", error.c_str());
            return false;
        }
        settings.ports.push_back(port);
    }
    for (size_t i = 0; i < settings.ports.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (settings.ports[i].name == settings.ports[j].name) {
                std::fprintf(stderr, "vqasi-monitor: port %s is named twice\n", settings.ports[i].name.c_str());
                return false;
            }
    if (cl.sourceName)
        for (auto& port : settings.ports)
            port.sourceName = cl.sourceName;
    if (cl.listen)
        settings.listen = cl.listen;
    if (cl.retrySeconds)
        settings.retrySeconds = cl.retrySeconds;
    if (cl.maxPids)
        settings.maxPids = cl.maxPids;
    return true;
}

class monitor {
public:
    monitor(const monitor_settings& settings, double duration, bool json, bool changesOnly, data_output& data)
        : m_settings(settings), m_duration(duration), m_json(json), m_changesOnly(changesOnly), m_data(data) {}

    // Builds every port's pipeline and the HTTP server; false with a message.
    bool build() {
        std::string error;
        for (const auto& options : m_settings.ports) {
            m_ports.push_back(std::make_unique<monitor_port>(options, m_settings.retrySeconds,
                                                             static_cast<size_t>(m_settings.maxPids)));
            if (!m_ports.back()->build(error)) {
                std::fprintf(stderr, "vqasi-monitor: %s\n", error.c_str());
                return false;
            }
        }
        if (m_settings.listen != "none") {
            m_http = std::make_unique<http_server>([this] { return snapshots(); });
            if (!m_http->start(m_settings.listen, error)) {
                std::fprintf(stderr, "vqasi-monitor: %s\n", error.c_str());
                return false;
            }
        }
        return true;
    }

    int run() {
        m_loop = g_main_loop_new(nullptr, FALSE);
        for (auto& port : m_ports)
            port->start();
        const guint tick = g_timeout_add(1000, &monitor::on_tick, this);
        const guint sigint = g_unix_signal_add(SIGINT, &monitor::on_signal, this);
        const guint sigterm = g_unix_signal_add(SIGTERM, &monitor::on_signal, this);
        g_main_loop_run(m_loop);
        g_source_remove(sigterm);
        g_source_remove(sigint);
        g_source_remove(tick);
        for (auto& port : m_ports)
            port->stop();
        report(true);
        m_http.reset();
        g_main_loop_unref(m_loop);
        m_loop = nullptr;
        return 0;
    }

private:
    std::vector<port_snapshot> snapshots() const {
        std::vector<port_snapshot> out;
        for (const auto& port : m_ports)
            out.push_back(port->snapshot());
        return out;
    }

    double elapsed_seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_started).count();
    }

    // Ends each port's outputs with EOS (a file keeps every byte), then quits
    // after a second in which the sinks take it.
    void stop() {
        if (m_stopping)
            return;
        m_stopping = true;
        for (auto& port : m_ports)
            port->send_eos();
        g_timeout_add(
            1000,
            [](gpointer self) -> gboolean {
                g_main_loop_quit(static_cast<monitor*>(self)->m_loop);
                return G_SOURCE_REMOVE;
            },
            this);
    }

    static gboolean on_tick(gpointer self) {
        auto* m = static_cast<monitor*>(self);
        if (!m->m_stopping)
            m->report(false);
        if (m->m_duration > 0 && m->elapsed_seconds() >= m->m_duration)
            m->stop();
        return G_SOURCE_CONTINUE;
    }

    static gboolean on_signal(gpointer self) {
        static_cast<monitor*>(self)->stop();
        return G_SOURCE_CONTINUE;
    }

    void report(bool final) {
        if (m_terminal && !m_json && !m_changesOnly)
            m_data.stream() << "\033[H\033[J";  // redraw the screen in place
        for (auto& port : m_ports) {
            port->refresh();
            const port_snapshot snapshot = port->snapshot();
            const std::vector<std::string> log = port->take_log();
            if (m_json)
                print_json(snapshot, log, final);
            else
                print_text(snapshot, log, final);
        }
        m_data.stream() << std::flush;
    }

    void print_json(const port_snapshot& snapshot, const std::vector<std::string>& log, bool final) const {
        nlohmann::json line = port_json(snapshot);
        line["elapsed_ms"] = static_cast<uint64_t>(elapsed_seconds() * 1000);
        line["final"] = final ? 1 : 0;
        line["alarm_log"] = log;
        m_data.stream() << line.dump() << '\n';
    }

    // Every line of a port's block starts with its name. With --changes only
    // the lines that differ from the ones printed before follow the heading.
    void print_text(const port_snapshot& snapshot, const std::vector<std::string>& log, bool final) {
        std::ostream& out = m_data.stream();
        const std::string& name = snapshot.options.name;
        for (const auto& line : log)
            out << name << ": " << line << '\n';
        char line[512];
        std::snprintf(line, sizeof line, "%s: %s %s, %.0f s%s%s%s\n", name.c_str(), snapshot.options.device.c_str(),
                      snapshot.state.c_str(), elapsed_seconds(), final ? " (stopped)" : "",
                      snapshot.up || snapshot.lastProblem.empty() ? "" : ": ",
                      snapshot.up ? "" : snapshot.lastProblem.c_str());
        out << line;
        std::map<std::string, std::string>& shown = m_shown[name];
        const auto print = [&](const std::string& key, const std::string& text) {
            if (m_changesOnly) {
                std::string& before = shown[key];
                if (before == text)
                    return;
                before = text;
            }
            out << text;
        };
        for (const auto& item : snapshot.items) {
            std::snprintf(line, sizeof line, "%s:   %-32s %s\n", name.c_str(), item.first.c_str(), item.second.c_str());
            print("item " + item.first, line);
        }
        std::ostringstream alarms;
        alarms << name << ": Active alarms:" << (snapshot.alarms.empty() ? " none" : "") << '\n';
        for (const auto& alarm : snapshot.alarms)
            alarms << name << ":   " << alarm.code << ' ' << alarm.description << " (count " << alarm.count << ")\n";
        print("alarms", alarms.str());
        std::string errors;
        for (size_t i = 0; i < mpegcore::tr101290_check_count; ++i)
            if (snapshot.tr101290[i])
                errors += std::string(" ") + mpegcore::tr101290_name(static_cast<mpegcore::tr101290_check>(i)) + "=" +
                          std::to_string(snapshot.tr101290[i]);
        print("tr101290", name + ": TR 101 290:" + (errors.empty() ? " no errors" : errors) + '\n');
    }

    const monitor_settings& m_settings;
    const double m_duration;
    const bool m_json;
    const bool m_changesOnly;
    data_output& m_data;
    std::vector<std::unique_ptr<monitor_port>> m_ports;
    std::unique_ptr<http_server> m_http;
    GMainLoop* m_loop = nullptr;
    const std::chrono::steady_clock::time_point m_started = std::chrono::steady_clock::now();
    bool m_stopping = false;
    std::map<std::string, std::map<std::string, std::string>> m_shown;  // a port's last printed lines, by key
    const bool m_terminal = isatty(fileno(m_data.file())) != 0;
};

}  // namespace

int main(int argc, char** argv) {
    command_line cl;
    const GOptionEntry entries[] = {
        {"port", 'P', 0, G_OPTION_ARG_STRING_ARRAY, &cl.ports,
         "A port: NAME=DEVICE[,input-type=N][,plp=N][,udp=HOST:PORT][,srt=URI][,output=FILE] (repeatable)", "SPEC"},
        {"config", 'c', 0, G_OPTION_ARG_FILENAME, &cl.config,
         "Read the ports ([port NAME] groups) and settings ([monitor]) from a key file", "FILE"},
        {"listen", 'l', 0, G_OPTION_ARG_STRING, &cl.listen,
         "Serve /metrics, /api/v1/ports and /healthz on ADDRESS:PORT (default 127.0.0.1:9550; none: off)", "ADDR:PORT"},
        {"retry-seconds", 'r', 0, G_OPTION_ARG_INT, &cl.retrySeconds,
         "Seconds between attempts to open a failed board (default 5)", "N"},
        {"max-pids", 0, 0, G_OPTION_ARG_INT, &cl.maxPids, "PIDs exported a port, busiest first (default 64)", "N"},
        {"device", 'd', 0, G_OPTION_ARG_STRING, &cl.device,
         "V4L2 device of the one ASI input without --port (default /dev/video0)", "PATH"},
        {"input-type", 't', 0, G_OPTION_ARG_INT, &cl.inputType, "Input stream type: 0 TS (default), 1 T2-MI", "0|1"},
        {"plp", 'p', 0, G_OPTION_ARG_INT, &cl.plp, "PLP to extract from a T2-MI input (0-255, default 0)", "N"},
        {"source-name", 's', 0, G_OPTION_ARG_STRING, &cl.sourceName,
         "Source name of the alarms (default: the port's name)", "NAME"},
        {"output", 'o', 0, G_OPTION_ARG_FILENAME, &cl.outputFile, "Write the captured stream to FILE", "FILE"},
        {"udp", 'u', 0, G_OPTION_ARG_STRING, &cl.udp, "Send the captured stream by UDP to HOST:PORT", "HOST:PORT"},
        {"duration", 'D', 0, G_OPTION_ARG_DOUBLE, &cl.duration, "Stop after SECONDS (default: run until Ctrl-C)",
         "SECONDS"},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &cl.json, "Print one JSON object a port a second instead of a screen",
         nullptr},
        {"changes", 'C', 0, G_OPTION_ARG_NONE, &cl.changes,
         "Print the heading of each port a second, then only the lines that changed, scrolling instead of a "
         "screen",
         nullptr},
        {"version", 0, 0, G_OPTION_ARG_NONE, &cl.version, "Print the version of vqasi-monitor and exit", nullptr},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
    GOptionContext* context = g_option_context_new("- monitor DVB-ASI inputs captured by vqasicapture");
    g_option_context_set_summary(context,
                                 "Shows each port's capture statistics, active alarms and stream check counts once a "
                                 "second,\nlogs each alarm when it becomes active and when it clears, and serves "
                                 "them over HTTP.\nWithout an output a port's stream is discarded after analysis.");
    g_option_context_add_main_entries(context, entries, nullptr);
    g_option_context_add_group(context, gst_init_get_option_group());
    GError* error = nullptr;
    const gboolean parsed = g_option_context_parse(context, &argc, &argv, &error);
    g_option_context_free(context);
    if (!parsed) {
        std::fprintf(stderr, "vqasi-monitor: %s (see --help)\n", error ? error->message : "bad options");
        g_clear_error(&error);
        return 2;
    }
    if (cl.version) {
        std::printf("vqasi-monitor %s\n", VQ_GRAPH_VERSION);
        return 0;
    }
    if (cl.inputType < 0 || cl.inputType > 1 || cl.plp < 0 || cl.plp > 255 || cl.duration < 0 ||
        (cl.outputFile && cl.udp) || cl.retrySeconds < 0 || cl.maxPids < 0) {
        std::fprintf(stderr,
                     "vqasi-monitor: --input-type is 0 or 1, --plp 0 to 255, --duration, --retry-seconds "
                     "and --max-pids not negative, and only one of --output and --udp (see --help)\n");
        return 2;
    }
    monitor_settings settings;
    if (!read_settings(cl, settings))
        return 2;

    int status = 1;
    {
        // The element's and the library's messages (g_print, puts) go to
        // standard error; standard output carries only screens or JSON lines.
        data_output data;
        monitor m(settings, cl.duration, cl.json, cl.changes, data);
        if (m.build())
            status = m.run();
    }
    gst_deinit();
    return status;
}
