#include "monitor_port.h"

#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "mpegcore/MpegConstants.h"
#include "vq_asi_capture/vq_base_statistics.h"

monitor_port::monitor_port(port_options options, int retrySeconds, size_t maxPids)
    : m_options(std::move(options)),
      m_retrySeconds(retrySeconds),
      m_maxPids(maxPids),
      m_alarmManager(std::chrono::milliseconds(250), [this](const std::string& line) {
          std::lock_guard<std::mutex> hold(m_logLock);
          m_log.push_back(line);
      }) {
    m_snapshot.options = m_options;
    m_snapshot.state = "starting";
}

monitor_port::~monitor_port() {
    stop();
    if (m_source)
        g_object_set(m_source, "alarm-manager", nullptr, nullptr);
    if (m_pipeline)
        gst_object_unref(m_pipeline);
}

GstElement* monitor_port::make_output(const char* factory, const std::string& name) {
    GstElement* sink = gst_element_factory_make(factory, name.c_str());
    if (sink)
        g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
    return sink;
}

// tee ! queue ! sink: an output that may block (disk, network) runs on its own
// thread so that it never holds up the capture.
bool monitor_port::add_branch(GstElement* sink, std::string& error) {
    GstElement* queue = gst_element_factory_make("queue", nullptr);
    if (!sink || !queue) {
        error = "port " + m_options.name + ": an output element is not installed";
        if (queue)
            gst_object_unref(queue);
        return false;
    }
    gst_bin_add_many(GST_BIN(m_pipeline), queue, sink, nullptr);
    if (!gst_element_link_many(m_tee, queue, sink, nullptr)) {
        error = "port " + m_options.name + ": cannot link the output " + GST_ELEMENT_NAME(sink);
        return false;
    }
    return true;
}

// tee ! fakesink for a port without outputs: nothing blocks, so no queue and
// no hand-over to another thread for every buffer (that cost more than the
// capture and the analysis together).
bool monitor_port::add_discard(std::string& error) {
    GstElement* sink = make_output("fakesink", "discard");
    if (!sink) {
        error = "port " + m_options.name + ": fakesink is not installed";
        return false;
    }
    gst_bin_add(GST_BIN(m_pipeline), sink);
    if (!gst_element_link(m_tee, sink)) {
        error = "port " + m_options.name + ": cannot link the discarding sink";
        return false;
    }
    return true;
}

bool monitor_port::build(std::string& error) {
    m_pipeline = gst_pipeline_new(("port-" + m_options.name).c_str());
    gst_object_ref_sink(m_pipeline);
    m_source = gst_element_factory_make("vqasicapture", "src");
    if (!m_source) {
        error = "the GStreamer element vqasicapture is not installed (gst-inspect-1.0 vqasicapture; GST_PLUGIN_PATH)";
        return false;
    }
    m_tee = gst_element_factory_make("tee", "tee");
    gst_bin_add_many(GST_BIN(m_pipeline), m_source, m_tee, nullptr);
    if (!gst_element_link(m_source, m_tee)) {
        error = "port " + m_options.name + ": cannot link vqasicapture to tee";
        return false;
    }
    if (!m_options.output.empty()) {
        GstElement* sink = make_output("filesink", "file");
        if (sink)
            g_object_set(sink, "location", m_options.output.c_str(), nullptr);
        if (!add_branch(sink, error))
            return false;
    }
    if (!m_options.udp.empty()) {
        std::string host;
        int number = 0;
        split_host_port(m_options.udp, host, number);
        GstElement* sink = make_output("udpsink", "udp");
        if (sink)
            g_object_set(sink, "host", host.c_str(), "port", number, nullptr);
        if (!add_branch(sink, error))
            return false;
    }
    if (!m_options.srt.empty()) {
        GstElement* sink = make_output("srtsink", "srt");
        if (sink)
            g_object_set(sink, "uri", m_options.srt.c_str(), "wait-for-connection", FALSE, nullptr);
        if (!add_branch(sink, error))
            return false;
    }
    if (m_options.output.empty() && m_options.udp.empty() && m_options.srt.empty() && !add_discard(error))
        return false;
    const std::string source = m_options.sourceName.empty() ? m_options.name : m_options.sourceName;
    g_object_set(m_source, "v4l2", m_options.device.c_str(), "input_type", m_options.inputType, "plp", m_options.plp,
                 "alarm-source-name", source.c_str(), "alarm-manager",
                 static_cast<vq_i_alarm_manager*>(&m_alarmManager), nullptr);
    gpointer statistics = nullptr;
    g_object_get(m_source, "statistics", &statistics, nullptr);
    m_statistics = static_cast<const vq_base_statistics*>(statistics);
    GstPad* pad = gst_element_get_static_pad(m_tee, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, &monitor_port::on_buffer, this, nullptr);
    gst_object_unref(pad);
    GstBus* bus = gst_element_get_bus(m_pipeline);
    m_busWatch = gst_bus_add_watch(bus, &monitor_port::on_bus, this);
    gst_object_unref(bus);
    return m_statistics != nullptr;
}

void monitor_port::set_state(const std::string& state, bool up, const std::string& problem) {
    std::lock_guard<std::mutex> hold(m_snapshotLock);
    m_snapshot.state = state;
    m_snapshot.up = up;
    if (!problem.empty())
        m_snapshot.lastProblem = problem;
}

void monitor_port::start() {
    m_retry = 0;
    if (m_stopping)
        return;
    if (gst_element_set_state(m_source, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
        const char* device = m_options.device.c_str();
        fail(std::string("cannot open the ASI device ") + device +
             (access(device, F_OK) != 0          ? " (no such device)"
              : access(device, R_OK | W_OK) != 0 ? " (permission denied: see the video group)"
                                                 : ""));
        return;
    }
    if (gst_element_set_state(m_pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        fail("the pipeline does not start");
        return;
    }
    set_state("capturing", true, std::string());
}

// Stops the port's pipeline and tries again in retry-seconds; other ports go on.
void monitor_port::fail(const std::string& problem) {
    std::fprintf(stderr, "vqasi-monitor: port %s: %s; retrying in %d s\n", m_options.name.c_str(), problem.c_str(),
                 m_retrySeconds);
    gst_element_set_state(m_pipeline, GST_STATE_NULL);
    m_activeAlarms.clear();
    set_state("retrying", false, problem);
    if (!m_retry && !m_stopping)
        m_retry = g_timeout_add_seconds(static_cast<guint>(m_retrySeconds), &monitor_port::on_retry, this);
}

gboolean monitor_port::on_retry(gpointer self) {
    static_cast<monitor_port*>(self)->start();
    return G_SOURCE_REMOVE;
}

// The capture pushes EOS after its last buffer and nothing after it, so every
// output (through the tee) ends with all the data and no push is refused.
void monitor_port::send_eos() {
    m_stopping = true;
    gst_element_send_event(m_source, gst_event_new_eos());
}

void monitor_port::stop() {
    m_stopping = true;
    if (m_retry) {
        g_source_remove(m_retry);
        m_retry = 0;
    }
    if (m_busWatch) {
        g_source_remove(m_busWatch);
        m_busWatch = 0;
    }
    if (m_pipeline)
        gst_element_set_state(m_pipeline, GST_STATE_NULL);
    set_state("stopped", false, std::string());
}

gboolean monitor_port::on_bus(GstBus*, GstMessage* message, gpointer self) {
    auto* port = static_cast<monitor_port*>(self);
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR:
    case GST_MESSAGE_WARNING: {
        GError* error = nullptr;
        gchar* debug = nullptr;
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
            gst_message_parse_error(message, &error, &debug);
        else
            gst_message_parse_warning(message, &error, &debug);
        const std::string text = std::string(GST_OBJECT_NAME(message->src)) + ": " + (error ? error->message : "error");
        g_clear_error(&error);
        g_free(debug);
        // A warning of the capture (the board disappeared) ends its capture too;
        // while a retry is pending the port has already failed.
        if (!port->m_stopping && !port->m_retry &&
            (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR || message->src == GST_OBJECT(port->m_source)))
            port->fail(text);
        break;
    }
    case GST_MESSAGE_ELEMENT:
        if (const GstStructure* s = gst_message_get_structure(message))
            if (gst_structure_has_name(s, "vqasi-alarm"))
                port->on_alarm_message(s);
        break;
    default: break;
    }
    return G_SOURCE_CONTINUE;
}

void monitor_port::on_alarm_message(const GstStructure* s) {
    port_alarm alarm;
    gboolean active = FALSE;
    gst_structure_get(s, "code", G_TYPE_INT, &alarm.code, "level", G_TYPE_INT, &alarm.level, "pid", G_TYPE_INT,
                      &alarm.pid, "active", G_TYPE_BOOLEAN, &active, "count", G_TYPE_UINT, &alarm.count, nullptr);
    alarm.description = gst_structure_get_string(s, "description") ? gst_structure_get_string(s, "description") : "";
    alarm.source = gst_structure_get_string(s, "source") ? gst_structure_get_string(s, "source") : "";
    alarm.regTime = gst_structure_get_string(s, "reg-time") ? gst_structure_get_string(s, "reg-time") : "";
    const auto key = std::make_tuple(alarm.code, alarm.pid, alarm.description);
    if (active)
        m_activeAlarms[key] = alarm;
    else
        m_activeAlarms.erase(key);
}

GstPadProbeReturn monitor_port::on_buffer(GstPad*, GstPadProbeInfo* info, gpointer self) {
    auto* port = static_cast<monitor_port*>(self);
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    GstMapInfo map;
    if (buffer && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        const uint64_t time = GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) : 0;
        std::lock_guard<std::mutex> hold(port->m_analyzerLock);
        for (size_t at = 0; at + mpegcore::kTsPacketSize <= map.size; at += mpegcore::kTsPacketSize)
            port->m_analyzer.push_packet(time, map.data + at);
        gst_buffer_unmap(buffer, &map);
    }
    return GST_PAD_PROBE_OK;
}

void monitor_port::refresh() {
    port_snapshot next;
    next.items = m_statistics->get_items();
    GstStructure* stats = nullptr;
    g_object_get(m_source, "stats", &stats, nullptr);
    for (int i = 0; stats && i < gst_structure_n_fields(stats); ++i) {
        const char* field = gst_structure_nth_field_name(stats, i);
        const GValue* value = gst_structure_get_value(stats, field);
        if (G_VALUE_HOLDS_UINT64(value))
            next.counters[field] = g_value_get_uint64(value);
        else if (G_VALUE_HOLDS_UINT(value))
            next.counters[field] = g_value_get_uint(value);
    }
    if (stats) {
        const char* state = gst_structure_get_string(stats, "signal-state");
        next.signalState = state ? state : "";
        gst_structure_free(stats);
    }
    for (const auto& alarm : m_activeAlarms)
        next.alarms.push_back(alarm.second);
    {
        std::lock_guard<std::mutex> hold(m_analyzerLock);
        // The buffers' times are running times of the pipeline's clock.
        const GstClockTime now = gst_element_get_current_running_time(m_pipeline);
        if (GST_CLOCK_TIME_IS_VALID(now))
            m_analyzer.check_timers(now);
        for (size_t i = 0; i < mpegcore::tr101290_check_count; ++i)
            next.tr101290[i] = m_analyzer.count(static_cast<mpegcore::tr101290_check>(i));
        next.pids = m_analyzer.pid_figures();
        next.ts = m_analyzer.stream_figures();
    }
    std::stable_sort(
        next.pids.begin(), next.pids.end(),
        [](const mpegcore::ts_pid_figures& a, const mpegcore::ts_pid_figures& b) { return a.packets > b.packets; });
    if (next.pids.size() > m_maxPids)
        next.pids.resize(m_maxPids);
    std::lock_guard<std::mutex> hold(m_snapshotLock);
    next.options = m_snapshot.options;
    next.state = m_snapshot.state;
    next.up = m_snapshot.up;
    next.lastProblem = m_snapshot.lastProblem;
    m_snapshot = std::move(next);
}

port_snapshot monitor_port::snapshot() const {
    std::lock_guard<std::mutex> hold(m_snapshotLock);
    return m_snapshot;
}

std::vector<std::string> monitor_port::take_log() {
    std::lock_guard<std::mutex> hold(m_logLock);
    std::vector<std::string> lines;
    lines.swap(m_log);
    return lines;
}
