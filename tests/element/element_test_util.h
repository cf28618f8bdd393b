#pragma once
// Helpers of the vqasicapture element suites: GStreamer set-up, capture of the
// element's g_print lines and of GLib warnings, and small pipeline utilities.

#include <gst/gst.h>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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
