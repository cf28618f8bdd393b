#pragma once
// Capture of g_print output for the suites that check printed messages.

#include <glib.h>

#include <mutex>
#include <string>

namespace vq_test {

// Everything g_print writes while an instance is alive.
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

}  // namespace vq_test
