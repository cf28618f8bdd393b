// vqasi-monitor: runs the vqasicapture element on an ASI input and shows its
// statistics and active alarms once a second, as a screen of text or as one
// JSON object per second; logs each alarm when it becomes active and when it
// clears. Stops after --duration seconds or on Ctrl-C (EOS, then NULL).

#include <glib-unix.h>
#include <gst/gst.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <ostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "data_output.h"
#include "report_node.h"
#include "vq_asi_capture/vq_base_statistics.h"
#include "vq_polling_alarm_manager.h"

namespace {

struct monitor_options {
    gchar* device = nullptr;
    gint inputType = 0;
    gint plp = 0;
    gchar* sourceName = nullptr;
    gchar* outputFile = nullptr;
    gchar* udp = nullptr;  // HOST:PORT
    gdouble duration = 0;
    gboolean json = FALSE;
    gboolean version = FALSE;

    ~monitor_options() {
        g_free(device);
        g_free(sourceName);
        g_free(outputFile);
        g_free(udp);
    }
};

template <class T>
using g_ptr = std::unique_ptr<T, void (*)(gpointer)>;

g_ptr<GstElement> element_ptr(GstElement* element) {
    return g_ptr<GstElement>(element, [](gpointer object) {
        if (object)
            gst_object_unref(object);
    });
}

// Collects the alarm manager's lines (from its polling thread) until the
// next report takes them.
class alarm_log {
public:
    void add(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_cs);
        m_lines.push_back(line);
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> lock(m_cs);
        std::vector<std::string> lines;
        lines.swap(m_lines);
        return lines;
    }

private:
    std::mutex m_cs;
    std::vector<std::string> m_lines;
};

class monitor {
public:
    monitor(const monitor_options& options, data_output& data)
        : m_options(options),
          m_data(data),
          m_alarms(std::chrono::milliseconds(250), [this](const std::string& line) { m_log.add(line); }),
          m_pipeline(element_ptr(nullptr)),
          m_source(element_ptr(nullptr)) {}

    ~monitor() {
        if (m_source)
            g_object_set(m_source.get(), "alarm-manager", nullptr, nullptr);
        if (m_pipeline)
            gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
    }

    // Builds vqasicapture ! (filesink | udpsink | fakesink); false with a message.
    bool build() {
        m_pipeline = element_ptr(gst_pipeline_new("vqasi-monitor"));
        m_source = element_ptr(gst_element_factory_make("vqasicapture", "src"));
        if (!m_source) {
            std::fprintf(stderr, "vqasi-monitor: the GStreamer element vqasicapture is not installed "
                                 "(gst-inspect-1.0 vqasicapture; GST_PLUGIN_PATH)\n");
            return false;
        }
        gst_object_ref(m_source.get());  // the bin takes the floating reference
        GstElement* sink = make_sink();
        if (!sink)
            return false;
        gst_bin_add_many(GST_BIN(m_pipeline.get()), m_source.get(), sink, nullptr);
        if (!gst_element_link(m_source.get(), sink)) {
            std::fprintf(stderr, "vqasi-monitor: cannot link vqasicapture to %s\n", GST_ELEMENT_NAME(sink));
            return false;
        }
        g_object_set(m_source.get(), "v4l2", m_options.device, "input_type", m_options.inputType, "plp",
                     m_options.plp, "alarm-source-name", m_options.sourceName, "alarm-manager",
                     static_cast<vq_i_alarm_manager*>(&m_alarms), nullptr);
        gpointer statistics = nullptr;
        g_object_get(m_source.get(), "statistics", &statistics, nullptr);
        m_statistics = static_cast<const vq_base_statistics*>(statistics);
        return m_statistics != nullptr;
    }

    // Opens the device (READY), then plays; false with a message.
    bool start() {
        if (gst_element_set_state(m_source.get(), GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
            std::fprintf(stderr, "vqasi-monitor: cannot open the ASI device %s%s\n", m_options.device,
                         access(m_options.device, F_OK) != 0                ? " (no such device)"
                         : access(m_options.device, R_OK | W_OK) != 0 ? " (permission denied: see the video group)"
                                                                       : "");
            return false;
        }
        if (gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
            std::fprintf(stderr, "vqasi-monitor: the pipeline does not start\n");
            return false;
        }
        m_started = std::chrono::steady_clock::now();
        return true;
    }

    // Runs the main loop until the duration ends, Ctrl-C or an error; the exit status.
    int run() {
        m_loop = g_main_loop_new(nullptr, FALSE);
        GstBus* bus = gst_element_get_bus(m_pipeline.get());
        const guint busWatch = gst_bus_add_watch(bus, &monitor::on_bus, this);
        gst_object_unref(bus);
        const guint tick = g_timeout_add(1000, &monitor::on_tick, this);
        const guint sigint = g_unix_signal_add(SIGINT, &monitor::on_signal, this);
        const guint sigterm = g_unix_signal_add(SIGTERM, &monitor::on_signal, this);
        g_main_loop_run(m_loop);
        g_source_remove(sigterm);
        g_source_remove(sigint);
        g_source_remove(tick);
        g_source_remove(busWatch);
        g_main_loop_unref(m_loop);
        m_loop = nullptr;
        gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
        report(true);
        return m_status;
    }

private:
    GstElement* make_sink() {
        GstElement* sink = nullptr;
        if (m_options.outputFile) {
            sink = gst_element_factory_make("filesink", "sink");
            if (sink)
                g_object_set(sink, "location", m_options.outputFile, nullptr);
        } else if (m_options.udp) {
            const std::string target = m_options.udp;
            const auto colon = target.rfind(':');
            const int port = colon == std::string::npos ? -1 : std::atoi(target.c_str() + colon + 1);
            if (colon == std::string::npos || colon == 0 || port <= 0 || port > 65535) {
                std::fprintf(stderr, "vqasi-monitor: --udp takes HOST:PORT, not \"%s\"\n", m_options.udp);
                return nullptr;
            }
            sink = gst_element_factory_make("udpsink", "sink");
            if (sink)
                g_object_set(sink, "host", target.substr(0, colon).c_str(), "port", port, "sync", FALSE, nullptr);
        } else {
            sink = gst_element_factory_make("fakesink", "sink");
            if (sink)
                g_object_set(sink, "sync", FALSE, nullptr);
        }
        if (!sink)
            std::fprintf(stderr, "vqasi-monitor: the output element is not installed\n");
        return sink;
    }

    double elapsed_seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_started).count();
    }

    // Ends the stream with EOS once; the loop ends when the sink has taken it
    // (or after two seconds when it does not). The EOS goes straight into the
    // sink's pad: the live source does not forward an EOS sent to itself.
    void stop() {
        if (m_bStopping)
            return;
        m_bStopping = true;
        GstElement* sink = gst_bin_get_by_name(GST_BIN(m_pipeline.get()), "sink");
        if (GstPad* pad = sink ? gst_element_get_static_pad(sink, "sink") : nullptr) {
            gst_pad_send_event(pad, gst_event_new_eos());
            gst_object_unref(pad);
        }
        if (sink)
            gst_object_unref(sink);
        g_timeout_add_seconds(2, [](gpointer self) -> gboolean {
            g_main_loop_quit(static_cast<monitor*>(self)->m_loop);
            return G_SOURCE_REMOVE;
        }, this);
    }

    static gboolean on_tick(gpointer self) {
        auto* m = static_cast<monitor*>(self);
        m->report(false);
        if (m->m_options.duration > 0 && m->elapsed_seconds() >= m->m_options.duration)
            m->stop();
        return G_SOURCE_CONTINUE;
    }

    static gboolean on_signal(gpointer self) {
        static_cast<monitor*>(self)->stop();
        return G_SOURCE_CONTINUE;
    }

    static gboolean on_bus(GstBus*, GstMessage* message, gpointer self) {
        auto* m = static_cast<monitor*>(self);
        switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_EOS:
            g_main_loop_quit(m->m_loop);
            break;
        case GST_MESSAGE_ERROR: {
            GError* error = nullptr;
            gchar* debug = nullptr;
            gst_message_parse_error(message, &error, &debug);
            std::fprintf(stderr, "vqasi-monitor: %s: %s\n", GST_OBJECT_NAME(message->src),
                         error ? error->message : "error");
            g_clear_error(&error);
            g_free(debug);
            m->m_status = 1;
            g_main_loop_quit(m->m_loop);
            break;
        }
        default: break;
        }
        return G_SOURCE_CONTINUE;
    }

    report_node active_alarms() const {
        report_node list = report_node::array();
        for (const auto& alarm : m_alarms.alarms()) {
            const vq_alarm_data data = alarm->get_data();
            if (!data.active)
                continue;
            report_node& a = list.push(report_node());
            a.add("code", static_cast<uint64_t>(data.code));
            a.add("level", static_cast<uint64_t>(data.level));
            a.add("source", data.source);
            a.add("description", data.description);
            a.add("count", data.count);
            a.add("reg_time", data.reg_time);
            a.add("stream_pid", data.stream_pid);
        }
        return list;
    }

    // One snapshot: the statistics items, the active alarms and the alarm
    // lines logged since the previous one.
    void report(bool final) {
        const auto items = m_statistics->get_items();
        const report_node alarms = active_alarms();
        const std::vector<std::string> log = m_log.take();
        if (m_options.json)
            print_json(items, alarms, log, final);
        else
            print_text(items, alarms, log, final);
    }

    void print_json(const std::vector<std::pair<std::string, std::string>>& items, const report_node& alarms,
                    const std::vector<std::string>& log, bool final) const {
        report_node snapshot;
        snapshot.add("elapsed_ms", static_cast<uint64_t>(elapsed_seconds() * 1000));
        snapshot.add("device", m_options.device);
        snapshot.add("final", final ? 1 : 0);
        report_node& statistics = snapshot.add("statistics", report_node());
        for (const auto& item : items)
            statistics.add(item.first, item.second);
        snapshot.add("alarms", alarms);
        report_node& lines = snapshot.add("alarm_log", report_node::array());
        for (const auto& line : log)
            lines.push(report_node::text(line));
        m_data.stream() << snapshot.to_json() << std::endl;
    }

    void print_text(const std::vector<std::pair<std::string, std::string>>& items, const report_node& alarms,
                    const std::vector<std::string>& log, bool final) {
        m_recentLog.insert(m_recentLog.end(), log.begin(), log.end());
        if (m_recentLog.size() > kRecentLogLines)
            m_recentLog.erase(m_recentLog.begin(), m_recentLog.end() - kRecentLogLines);
        std::ostream& out = m_data.stream();
        if (m_bTerminal)
            out << "\033[H\033[J";  // redraw the screen in place
        else
            for (const auto& line : log)  // a log file keeps every change once
                out << line << '\n';
        char heading[160];
        std::snprintf(heading, sizeof heading, "vqasi-monitor %s, %.0f s%s\n", m_options.device, elapsed_seconds(),
                      final ? " (stopped)" : "");
        out << heading;
        for (const auto& item : items) {
            char line[256];
            std::snprintf(line, sizeof line, "  %-32s %s\n", item.first.c_str(), item.second.c_str());
            out << line;
        }
        out << "Active alarms:" << (alarms.empty() ? " none\n" : "\n");
        alarms.to_text(out, 2);
        if (m_bTerminal && !m_recentLog.empty()) {
            out << "Alarm log:\n";
            for (const auto& line : m_recentLog)
                out << "  " << line << '\n';
        }
        out << std::flush;
    }

    static constexpr size_t kRecentLogLines = 10;

    const monitor_options& m_options;
    data_output& m_data;
    alarm_log m_log;
    vq_polling_alarm_manager m_alarms;
    g_ptr<GstElement> m_pipeline;
    g_ptr<GstElement> m_source;
    const vq_base_statistics* m_statistics = nullptr;
    GMainLoop* m_loop = nullptr;
    std::chrono::steady_clock::time_point m_started = std::chrono::steady_clock::now();
    bool m_bStopping = false;
    int m_status = 0;
    const bool m_bTerminal = isatty(fileno(m_data.file())) != 0;
    std::vector<std::string> m_recentLog;
};

}  // namespace

int main(int argc, char** argv) {
    monitor_options options;
    const GOptionEntry entries[] = {
        {"device", 'd', 0, G_OPTION_ARG_STRING, &options.device, "V4L2 device of the ASI input (default /dev/video0)",
         "PATH"},
        {"input-type", 't', 0, G_OPTION_ARG_INT, &options.inputType, "Input stream type: 0 TS (default), 1 T2-MI",
         "0|1"},
        {"plp", 'p', 0, G_OPTION_ARG_INT, &options.plp, "PLP to extract from a T2-MI input (0-255, default 0)", "N"},
        {"source-name", 's', 0, G_OPTION_ARG_STRING, &options.sourceName,
         "Source name of the alarms (default vqasi-monitor)", "NAME"},
        {"output", 'o', 0, G_OPTION_ARG_FILENAME, &options.outputFile, "Write the captured stream to FILE", "FILE"},
        {"udp", 'u', 0, G_OPTION_ARG_STRING, &options.udp, "Send the captured stream by UDP to HOST:PORT",
         "HOST:PORT"},
        {"duration", 'D', 0, G_OPTION_ARG_DOUBLE, &options.duration, "Stop after SECONDS (default: run until Ctrl-C)",
         "SECONDS"},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &options.json, "Print one JSON object per second instead of a screen",
         nullptr},
        {"version", 0, 0, G_OPTION_ARG_NONE, &options.version, "Print the version of vqasi-monitor and exit", nullptr},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
    GOptionContext* context = g_option_context_new("- monitor a DVB-ASI input captured by vqasicapture");
    g_option_context_set_summary(context,
                                 "Shows the capture statistics and the active alarms once a second and logs each "
                                 "alarm\nwhen it becomes active and when it clears. Without --output or --udp the "
                                 "stream is discarded.");
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
    if (options.version) {
        std::printf("vqasi-monitor %s\n", VQ_GRAPH_VERSION);
        return 0;
    }
    if (options.inputType < 0 || options.inputType > 1 || options.plp < 0 || options.plp > 255 ||
        options.duration < 0 || (options.outputFile && options.udp)) {
        std::fprintf(stderr, "vqasi-monitor: --input-type is 0 or 1, --plp 0 to 255, --duration not negative, "
                             "and only one of --output and --udp (see --help)\n");
        return 2;
    }
    if (!options.device)
        options.device = g_strdup("/dev/video0");
    if (!options.sourceName)
        options.sourceName = g_strdup("vqasi-monitor");

    int status = 1;
    {
        // The element's and the library's messages (g_print, puts) go to
        // standard error; standard output carries only screens or JSON lines.
        data_output data;
        monitor m(options, data);
        if (m.build() && m.start())
            status = m.run();
    }
    gst_deinit();
    return status;
}
