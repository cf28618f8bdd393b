#pragma once
// One port of vqasi-monitor: its own pipeline (vqasicapture ! tee ! outputs),
// the stream analysis of everything the board delivers, its alarms, and the
// retry of a board that cannot be opened or disappears. Everything but the
// analyzer tap runs on the main loop's thread; snapshot() is safe from any.

#include <gst/gst.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "mpegcore/TsAnalyzer.h"
#include "port_options.h"
#include "vq_polling_alarm_manager.h"

class vq_base_statistics;

struct port_alarm {
    int code = 0;
    int level = 0;
    int pid = -1;  // -1: an input alarm
    std::string description;
    std::string source;
    unsigned count = 0;
    std::string regTime;
};

struct port_snapshot {
    port_options options;
    std::string state;  // "starting", "capturing", "retrying"
    bool up = false;
    std::string lastProblem;
    std::vector<std::pair<std::string, std::string>> items;  // the element's statistics items
    std::map<std::string, uint64_t> counters;                // the numeric fields of its stats structure
    std::string signalState;
    std::vector<port_alarm> alarms;  // the active ones
    std::array<uint64_t, mpegcore::tr101290_check_count> tr101290{};
    std::vector<mpegcore::ts_pid_figures> pids;  // busiest first, at most max-pids
    mpegcore::ts_stream_figures ts;              // the analysis's packets, rate, duration
};

class monitor_port {
public:
    monitor_port(port_options options, int retrySeconds, size_t maxPids);
    ~monitor_port();
    monitor_port(const monitor_port&) = delete;
    monitor_port& operator=(const monitor_port&) = delete;

    // Builds the pipeline; false with error (a missing element, a bad output).
    bool build(std::string& error);
    // Opens the board and plays; a failure is retried every retry-seconds.
    void start();
    // Sends EOS to the outputs (a file keeps every byte), then stops.
    void send_eos();
    void stop();
    // Refreshes the snapshot from the element and the analyzer.
    void refresh();
    port_snapshot snapshot() const;
    // Alarm log lines since the previous call.
    std::vector<std::string> take_log();
    const port_options& options() const { return m_options; }

private:
    static gboolean on_bus(GstBus*, GstMessage* message, gpointer self);
    static gboolean on_retry(gpointer self);
    static GstPadProbeReturn on_buffer(GstPad*, GstPadProbeInfo* info, gpointer self);
    GstElement* make_output(const char* factory, const std::string& name);
    bool add_branch(GstElement* sink, std::string& error);
    bool add_discard(std::string& error);
    void fail(const std::string& problem);
    void on_alarm_message(const GstStructure* s);
    void set_state(const std::string& state, bool up, const std::string& problem);

    const port_options m_options;
    const int m_retrySeconds;
    const size_t m_maxPids;
    GstElement* m_pipeline = nullptr;
    GstElement* m_source = nullptr;
    GstElement* m_tee = nullptr;
    const vq_base_statistics* m_statistics = nullptr;
    guint m_busWatch = 0;
    guint m_retry = 0;
    bool m_stopping = false;

    std::mutex m_logLock;
    std::vector<std::string> m_log;
    vq_polling_alarm_manager m_alarmManager;

    std::mutex m_analyzerLock;  // the capture thread feeds, the main thread reads
    mpegcore::CTsAnalyzer m_analyzer;

    std::map<std::tuple<int, int, std::string>, port_alarm> m_activeAlarms;  // main thread

    mutable std::mutex m_snapshotLock;
    port_snapshot m_snapshot;
};
