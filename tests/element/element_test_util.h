#pragma once
// Helpers of the vqasicapture element suites: GStreamer set-up, capture of the
// element's g_print lines and of GLib warnings, and small pipeline utilities.

#include <gst/gst.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vq_element_test {

inline void init_gstreamer() {
    static std::once_flag once;
    std::call_once(once, [] { gst_init(nullptr, nullptr); });
}

// Everything the element prints with g_print while an instance is alive.
class print_capture {
public:
    print_capture() {
        std::lock_guard<std::mutex> lock(mutex());
        text().clear();
        m_previous = g_set_print_handler(&print_capture::on_print);
    }
    ~print_capture() { g_set_print_handler(m_previous); }
    print_capture(const print_capture&) = delete;
    print_capture& operator=(const print_capture&) = delete;

    std::string str() const {
        std::lock_guard<std::mutex> lock(mutex());
        return text();
    }

private:
    static void on_print(const gchar* line) {
        std::lock_guard<std::mutex> lock(mutex());
        text() += line;
    }
    static std::mutex& mutex() {
        static std::mutex m;
        return m;
    }
    static std::string& text() {
        static std::string t;
        return t;
    }
    GPrintFunc m_previous;
};

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

}  // namespace vq_element_test
