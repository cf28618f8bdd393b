#pragma once
// Helpers for test programs that run on the simulated board: set the VQASISIM_*
// variables for one test, and read back the summary the simulator writes when
// the last descriptor of a node is closed.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace vqasisim_testing {

// Replaces every VQASISIM_* variable with `vars` until destroyed, then restores
// the previous ones. The simulator reads them when a node is first opened.
class scoped_env {
public:
    explicit scoped_env(const std::map<std::string, std::string>& vars) {
        for (char** e = environ; e && *e; ++e) {
            std::string entry(*e);
            size_t eq = entry.find('=');
            if (entry.rfind("VQASISIM_", 0) == 0 && eq != std::string::npos)
                m_saved.emplace_back(entry.substr(0, eq), entry.substr(eq + 1));
        }
        for (const auto& v : m_saved)
            unsetenv(v.first.c_str());
        for (const auto& v : vars)
            setenv(v.first.c_str(), v.second.c_str(), 1);
        m_set = vars;
    }
    ~scoped_env() {
        for (const auto& v : m_set)
            unsetenv(v.first.c_str());
        for (const auto& v : m_saved)
            setenv(v.first.c_str(), v.second.c_str(), 1);
    }
    scoped_env(const scoped_env&) = delete;
    scoped_env& operator=(const scoped_env&) = delete;

private:
    std::vector<std::pair<std::string, std::string>> m_saved;
    std::map<std::string, std::string> m_set;
};

// A summary file of its own for the running test.
inline std::string test_summary_file() {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return ::testing::TempDir() + "vqasisim-" + std::to_string(getpid()) + "-" + info->test_suite_name() + "-" +
           info->name() + ".txt";
}

// A node fed from `input` as fast as it is read, reporting to test_summary_file();
// `extra` adds or overrides variables.
inline std::map<std::string, std::string> node_settings(const std::string& device, const std::string& input,
                                                        const std::map<std::string, std::string>& extra) {
    std::map<std::string, std::string> vars = {{"VQASISIM_DEVICE", device},
                                               {"VQASISIM_INPUT", input},
                                               {"VQASISIM_PACING", "fast"},
                                               {"VQASISIM_SUMMARY", test_summary_file()}};
    for (const auto& e : extra)
        vars[e.first] = e.second;
    return vars;
}

// "key=value key=value ..." of one summary line.
using fields = std::map<std::string, std::string>;

inline fields parse_fields(const std::string& line) {
    fields f;
    std::istringstream in(line);
    std::string word;
    while (in >> word) {
        size_t eq = word.find('=');
        if (eq != std::string::npos)
            f[word.substr(0, eq)] = word.substr(eq + 1);
    }
    return f;
}

// One node's section of the summary file.
struct summary {
    std::map<std::string, std::string> values;  // single "key=value" lines
    std::vector<fields> ioctls;                 // "ioctl=NAME [type=T] calls=N failed=M"
    std::vector<fields> events;                 // "event=KIND ..."

    uint64_t number(const std::string& key) const {
        auto it = values.find(key);
        return it == values.end() ? UINT64_MAX : std::strtoull(it->second.c_str(), nullptr, 10);
    }
    std::vector<fields> events_of(const std::string& kind) const {
        std::vector<fields> out;
        for (const fields& e : events) {
            if (e.at("event") == kind)
                out.push_back(e);
        }
        return out;
    }
    // Calls (and failures) of an ioctl by name and buffer type (0: any type).
    std::pair<uint64_t, uint64_t> ioctl_calls(const std::string& name, int type = 0) const {
        std::pair<uint64_t, uint64_t> total{0, 0};
        for (const fields& f : ioctls) {
            if (f.at("ioctl") != name)
                continue;
            auto t = f.find("type");
            if (type != 0 && (t == f.end() || std::stoi(t->second) != type))
                continue;
            total.first += std::stoull(f.at("calls"));
            total.second += std::stoull(f.at("failed"));
        }
        return total;
    }
};

// The section of `device` in the summary file; empty when there is none.
inline summary read_summary(const std::string& file, const std::string& device) {
    std::ifstream in(file);
    std::string line;
    summary current;
    bool mine = false;
    while (std::getline(in, line)) {
        if (line.empty()) {
            mine = false;
            continue;
        }
        if (line.rfind("device=", 0) == 0) {
            mine = line.substr(7) == device;
            if (mine)
                current = summary{};
        }
        if (!mine)
            continue;
        if (line.rfind("ioctl=", 0) == 0)
            current.ioctls.push_back(parse_fields(line));
        else if (line.rfind("event=", 0) == 0)
            current.events.push_back(parse_fields(line));
        else if (line.find('=') != std::string::npos)
            current.values[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
    }
    return current;
}

}  // namespace vqasisim_testing
