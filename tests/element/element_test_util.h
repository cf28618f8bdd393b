#pragma once
// Helpers of the vqasicapture element suites: GStreamer set-up, capture of the
// element's g_print lines and of GLib warnings, and small pipeline utilities.

#include <gst/gst.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mpegcore/T2MIToTS.h"
#include "support/print_capture.h"
#include "vq_asi_capture/vq_base_statistics.h"
#include "vqasisim_testing.h"

namespace vq_element_test {

inline void init_gstreamer() {
    static std::once_flag once;
    std::call_once(once, [] { gst_init(nullptr, nullptr); });
}

using vq_test::print_capture;

// Messages GLib logs at warning or critical level under one domain, kept instead of printed.
class log_capture {
public:
    explicit log_capture(const char* domain) : m_domain(domain) {
        m_id = g_log_set_handler(domain, static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL),
                                 &log_capture::on_log, this);
    }
    ~log_capture() { g_log_remove_handler(m_domain, m_id); }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::vector<std::string> messages() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

private:
    static void on_log(const gchar*, GLogLevelFlags, const gchar* message, gpointer self) {
        auto* capture = static_cast<log_capture*>(self);
        std::lock_guard<std::mutex> lock(capture->m_mutex);
        capture->m_messages.emplace_back(message);
    }
    const char* m_domain;
    guint m_id = 0;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_messages;
};

inline GstElement* make_capture_element() {
    init_gstreamer();
    return gst_element_factory_make("vqasicapture", nullptr);
}

// Polls cond every 10 ms until it holds or the time is up; true when it held.
template <typename Cond>
bool wait_until(Cond cond, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// fakesink's "handoff" handler counting into a std::atomic<size_t>.
inline void count_handoff(GstElement*, GstBuffer*, GstPad*, gpointer counter) {
    ++*static_cast<std::atomic<size_t>*>(counter);
}

// A file name of this process in the build tree (the temporary folder without one).
inline std::string scratch_file(const std::string& stem) {
    const char* dir = std::getenv("VQ_TEST_BINARY_DIR");
    return std::string(dir ? dir : "/tmp") + "/" + stem + "-" + std::to_string(::getpid());
}

// Simulator settings of one test on /dev/video0, with a summary file of their own.
class sim_settings {
public:
    explicit sim_settings(std::map<std::string, std::string> values)
        : m_summary(scratch_file("vqasisim-summary") + ".txt"), m_env(with_defaults(std::move(values), m_summary)) {
        std::remove(m_summary.c_str());
    }
    ~sim_settings() { std::remove(m_summary.c_str()); }
    sim_settings(const sim_settings&) = delete;
    sim_settings& operator=(const sim_settings&) = delete;

    // The simulator's account, written when the device was closed.
    vqasisim_testing::summary account() const { return vqasisim_testing::read_summary(m_summary, "/dev/video0"); }
    // Its numeric lines.
    std::map<std::string, uint64_t> summary() const {
        std::map<std::string, uint64_t> out;
        for (const auto& value : account().values)
            if (!value.second.empty() && value.second.find_first_not_of("0123456789") == std::string::npos)
                out[value.first] = std::stoull(value.second);
        return out;
    }

private:
    static std::map<std::string, std::string> with_defaults(std::map<std::string, std::string> values,
                                                            const std::string& summary) {
        values["VQASISIM_SUMMARY"] = summary;
        values["VQASISIM_DEVICE"] = "/dev/video0";
        return values;
    }
    std::string m_summary;
    vqasisim_testing::scoped_env m_env;
};

// The element's statistics items by name.
inline std::map<std::string, std::string> items_of(GstElement* capture) {
    gpointer pointer = nullptr;
    g_object_get(capture, "statistics", &pointer, nullptr);
    std::map<std::string, std::string> items;
    for (auto& item : static_cast<vq_base_statistics*>(pointer)->get_items())
        items[item.first] = item.second;
    return items;
}

inline uint64_t item_number(GstElement* capture, const char* name) { return std::stoull(items_of(capture)[name]); }

// A pipeline from a gst-launch description whose vqasicapture is named "cap".
struct pipeline {
    GstElement* bin = nullptr;
    GstElement* capture = nullptr;
    explicit pipeline(const std::string& description) {
        init_gstreamer();
        bin = gst_parse_launch(description.c_str(), nullptr);
        if (bin)
            capture = gst_bin_get_by_name(GST_BIN(bin), "cap");
    }
    ~pipeline() {
        if (capture)
            gst_object_unref(capture);
        if (bin) {
            gst_element_set_state(bin, GST_STATE_NULL);
            gst_object_unref(bin);
        }
    }
    pipeline(const pipeline&) = delete;
    pipeline& operator=(const pipeline&) = delete;
    GstElement* by_name(const char* name) const { return gst_bin_get_by_name(GST_BIN(bin), name); }
};

// A gst-launch-1.0 run: how it ended, how long it took and what it printed.
struct launch_result {
    bool ended = false;  // false: still running at the limit, then killed
    int status = 0;      // waitpid status
    std::chrono::milliseconds elapsed{0};
    std::string output;  // standard output and error
    bool exited_with(int code) const { return ended && WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

// Runs gst-launch-1.0 with args (the simulator and the plug-in path come from this
// process's environment); with interruptAfter, sends SIGINT after that time. Waits
// up to limit.
inline launch_result run_gst_launch(const std::vector<std::string>& args,
                                    std::chrono::milliseconds interruptAfter = std::chrono::milliseconds(0),
                                    std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const std::string log = scratch_file("gst-launch") + ".log";
    std::vector<char*> argv;
    static char program[] = "gst-launch-1.0";
    argv.push_back(program);
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    launch_result result;
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0)
        return result;
    if (child == 0) {
        signal(SIGINT, SIG_DFL);
        if (std::freopen(log.c_str(), "w", stdout) && dup2(fileno(stdout), STDERR_FILENO) >= 0)
            execvp(argv[0], argv.data());
        _exit(127);
    }
    if (interruptAfter.count() > 0) {
        if (!wait_until([&] { return waitpid(child, &result.status, WNOHANG) == child; }, interruptAfter))
            kill(child, SIGINT);
        else
            result.ended = true;
    }
    if (!result.ended)
        result.ended = wait_until([&] { return waitpid(child, &result.status, WNOHANG) == child; },
                                  limit - std::min(limit, interruptAfter));
    result.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    if (!result.ended) {
        kill(child, SIGKILL);
        waitpid(child, &result.status, 0);
    }
    std::ifstream printed(log);
    result.output.assign(std::istreambuf_iterator<char>(printed), std::istreambuf_iterator<char>());
    std::remove(log.c_str());
    return result;
}

// Errors and warnings a pipeline's bus carried, as "domain code: text (debug)" lines.
class bus_problems {
public:
    explicit bus_problems(GstElement* bin) : m_bus(gst_element_get_bus(bin)) {}
    ~bus_problems() { gst_object_unref(m_bus); }
    bus_problems(const bus_problems&) = delete;
    bus_problems& operator=(const bus_problems&) = delete;

    // Takes the error and warning messages queued so far.
    std::vector<std::string> take() {
        std::vector<std::string> lines;
        while (GstMessage* msg =
                   gst_bus_pop_filtered(m_bus, static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING))) {
            GError* error = nullptr;
            gchar* debug = nullptr;
            if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR)
                gst_message_parse_error(msg, &error, &debug);
            else
                gst_message_parse_warning(msg, &error, &debug);
            lines.push_back(std::string(g_quark_to_string(error->domain)) + " " + std::to_string(error->code) + ": " +
                            error->message + " (" + (debug ? debug : "") + ")");
            g_error_free(error);
            g_free(debug);
            gst_message_unref(msg);
        }
        return lines;
    }

private:
    GstBus* m_bus;
};

// The decapsulator's output for a run of carrier bytes, with the sync bytes put back.
class plp_extractor : public mpegcore::CT2MIToTS {
public:
    explicit plp_extractor(uint8_t plp) : CT2MIToTS(true) { SetPLPID(plp); }
    std::vector<uint8_t> out;
    using CT2MIToTS::Process;

protected:
    void OnTS(unsigned char, unsigned char* data, unsigned long size) override {
        out.push_back(0x47);
        out.insert(out.end(), data, data + size);
    }
};

}  // namespace vq_element_test
