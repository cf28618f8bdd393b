#include "vqasisim_config.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace vqasisim {
namespace {

constexpr uint64_t kFrameNs = 20000000;  // one frame per 20 ms of stream
constexpr uint64_t kFramesPerSecond = 50;

const char* env_exact(const std::string& name) {
    const char* v = std::getenv(name.c_str());
    return v && *v ? v : nullptr;
}

// A setting of one device: NAME_<index> overrides NAME, so that one board of
// several can carry its own faults.
const char* env(const char* name, size_t device) {
    const char* v = env_exact(std::string(name) + "_" + std::to_string(device));
    return v ? v : env_exact(name);
}

bool parse_uint(const std::string& text, uint64_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    value = v;
    return true;
}

void warn(std::string& warnings, const char* name, const std::string& value, const char* expected) {
    warnings += std::string(name) + "='" + value + "' ignored: expected " + expected + "\n";
}

void read_uint(const char* name, size_t device, uint64_t min, uint64_t max, uint64_t& target, std::string& warnings) {
    const char* v = env(name, device);
    if (!v)
        return;
    uint64_t value = 0;
    if (parse_uint(v, value) && value >= min && value <= max)
        target = value;
    else
        warn(warnings, name, v, ("a whole number from " + std::to_string(min) + " to " + std::to_string(max)).c_str());
}

void read_every_count(const char* name, size_t device, every_count& target, std::string& warnings) {
    const char* v = env(name, device);
    if (!v)
        return;
    std::string text(v);
    size_t colon = text.find(':');
    every_count ec;
    if (colon != std::string::npos && parse_uint(text.substr(0, colon), ec.every) &&
        parse_uint(text.substr(colon + 1), ec.count) && ec.every > 0 && ec.count > 0)
        target = ec;
    else
        warn(warnings, name, text, "EVERY:COUNT, both above 0");
}

bool parse_signal_kind(const std::string& name, signal_kind& kind) {
    static const signal_kind kinds[] = {signal_kind::ok,      signal_kind::no_data, signal_kind::no_link,
                                        signal_kind::no_lock, signal_kind::range,   signal_kind::unknown};
    for (signal_kind k : kinds) {
        if (name == signal_name(k)) {
            kind = k;
            return true;
        }
    }
    return false;
}

// A positive, finite number of seconds.
bool parse_seconds(const std::string& text, double& seconds) {
    char* end = nullptr;
    seconds = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && seconds > 0 && std::isfinite(seconds);
}

bool parse_packet_size(const std::string& text, unsigned& size) {
    uint64_t value = 0;
    if (!parse_uint(text, value) || (value != mpegcore::kTsPacketSize && value != mpegcore::kRsPacketSize))
        return false;
    size = unsigned(value);
    return true;
}

// VALUE[:SECONDS],... with `parse_value` reading each VALUE.
template <typename T, typename Parse>
bool parse_script(const std::string& text, std::vector<timed_step<T>>& steps, Parse parse_value) {
    for (const std::string& item : split(text, ',')) {
        timed_step<T> step;
        size_t colon = item.find(':');
        if (!parse_value(item.substr(0, colon), step.value))
            return false;
        if (colon != std::string::npos && !parse_seconds(item.substr(colon + 1), step.seconds))
            return false;
        steps.push_back(step);
    }
    return !steps.empty();
}

struct errno_name {
    const char* name;
    int value;
};
const errno_name kErrnoNames[] = {{"EINVAL", EINVAL}, {"EBUSY", EBUSY},   {"EIO", EIO},       {"ENOMEM", ENOMEM},
                                  {"ENODEV", ENODEV}, {"ENOTTY", ENOTTY}, {"EAGAIN", EAGAIN}, {"EPERM", EPERM},
                                  {"EACCES", EACCES}, {"ENOENT", ENOENT}, {"EFAULT", EFAULT}, {"ENOSPC", ENOSPC}};

bool parse_errno(const std::string& text, int& error) {
    for (const errno_name& e : kErrnoNames) {
        if (text == e.name) {
            error = e.value;
            return true;
        }
    }
    uint64_t value = 0;
    if (!parse_uint(text, value) || value == 0 || value > 4095)
        return false;
    error = int(value);
    return true;
}

// NAME[@N][=ERRNO], NAME with or without its VIDIOC_ prefix.
bool parse_fail_rule(const std::string& item, fail_rule& rule) {
    std::string text = item;
    rule.error = EINVAL;
    size_t eq = text.find('=');
    if (eq != std::string::npos) {
        if (!parse_errno(text.substr(eq + 1), rule.error))
            return false;
        text.resize(eq);
    }
    size_t at = text.find('@');
    if (at != std::string::npos) {
        if (!parse_uint(text.substr(at + 1), rule.from_call) || rule.from_call == 0)
            return false;
        text.resize(at);
    }
    for (char& c : text)
        c = char(std::toupper(static_cast<unsigned char>(c)));
    if (text.rfind("VIDIOC_", 0) == 0)
        text.erase(0, 7);
    rule.name = text;
    return !rule.name.empty();
}

}  // namespace

const char* signal_name(signal_kind kind) {
    switch (kind) {
    case signal_kind::ok: return "ok";
    case signal_kind::no_data: return "nodata";
    case signal_kind::no_link: return "nolink";
    case signal_kind::no_lock: return "nolock";
    case signal_kind::range: return "range";
    case signal_kind::unknown: return "unknown";
    }
    return "unknown";
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(separator, start);
        if (end == std::string::npos)
            end = text.size();
        if (end > start)
            parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

uint64_t config::frame_interval_ns() const {
    if (bitrate == 0)
        return kFrameNs;
    return uint64_t((unsigned __int128)frame_size * 8 * 1000000000u / bitrate);
}

std::string config::input_for(size_t device_index) const {
    if (inputs.empty())
        return std::string();
    return device_index < inputs.size() ? inputs[device_index] : inputs.front();
}

signal_kind config::signal_at(double seconds) const { return value_at(signal, seconds, signal_kind::ok); }

unsigned config::packet_size_at(double seconds) const { return value_at(packet_sizes, seconds, packet_size); }

bool config::mixed_packet_sizes() const {
    if (packet_size != mpegcore::kTsPacketSize)
        return true;
    for (const packet_size_step& step : packet_sizes) {
        if (step.value != mpegcore::kTsPacketSize)
            return true;
    }
    return false;
}

std::vector<std::string> configured_devices() {
    const char* v = env_exact("VQASISIM_DEVICE");
    return v ? split(v, ',') : std::vector<std::string>();
}

config read_config(std::string& warnings, size_t device_index) {
    config c;
    c.devices = configured_devices();
    if (const char* v = env("VQASISIM_INPUT", device_index))
        c.inputs = split(v, ',');

    uint64_t value = 0;
    read_uint("VQASISIM_BITRATE", device_index, 8000, 10000000000ull, c.bitrate, warnings);
    value = 0;
    read_uint("VQASISIM_FRAME_SIZE", device_index, 1, 64u << 20, value, warnings);
    if (value != 0)
        c.frame_size = uint32_t(value);
    else if (c.bitrate != 0)
        c.frame_size = uint32_t(std::max<uint64_t>(1, c.bitrate / 8 / kFramesPerSecond));

    if (const char* v = env("VQASISIM_PACING", device_index)) {
        if (std::strcmp(v, "realtime") == 0 || std::strcmp(v, "fast") == 0)
            c.realtime = std::strcmp(v, "realtime") == 0;
        else
            warn(warnings, "VQASISIM_PACING", v, "realtime or fast");
    }
    value = c.prefilled;
    read_uint("VQASISIM_PREFILLED", device_index, 0, 1, value, warnings);
    c.prefilled = value != 0;
    value = c.multi_planar;
    read_uint("VQASISIM_MPLANE", device_index, 0, 1, value, warnings);
    c.multi_planar = value != 0;
    value = c.max_buffers;
    read_uint("VQASISIM_BUFFERS", device_index, 1, 64, value, warnings);
    c.max_buffers = uint32_t(value);

    if (const char* v = env("VQASISIM_SIGNAL", device_index)) {
        if (!parse_script(v, c.signal, parse_signal_kind)) {
            c.signal.clear();
            warn(warnings, "VQASISIM_SIGNAL", v,
                 "STATE[:SECONDS],... with states ok nodata nolink nolock range unknown");
        }
    }
    read_every_count("VQASISIM_SEQ_GAP", device_index, c.seq_gap, warnings);
    read_every_count("VQASISIM_GARBAGE", device_index, c.garbage, warnings);
    read_every_count("VQASISIM_EMPTY", device_index, c.empty, warnings);
    read_uint("VQASISIM_CC_ERRORS", device_index, 2, UINT64_MAX, c.cc_every, warnings);
    if (const char* v = env("VQASISIM_PACKET_SIZE", device_index)) {
        if (parse_script(v, c.packet_sizes, parse_packet_size)) {
            c.packet_size = c.packet_sizes.front().value;
        } else {
            c.packet_sizes.clear();
            warn(warnings, "VQASISIM_PACKET_SIZE", v, "188, 204 or SIZE[:SECONDS],... with sizes 188 and 204");
        }
    }
    if (const char* v = env("VQASISIM_DATA_GAP", device_index)) {
        std::string text(v);
        size_t colon = text.find(':');
        every_length gap;
        if (colon != std::string::npos && parse_seconds(text.substr(0, colon), gap.every) &&
            parse_seconds(text.substr(colon + 1), gap.length))
            c.data_gap = gap;
        else
            warn(warnings, "VQASISIM_DATA_GAP", text, "EVERY:LENGTH in seconds, both above 0");
    }
    if (const char* v = env("VQASISIM_REMOVE_AFTER", device_index)) {
        double seconds = 0;
        if (std::strcmp(v, "0") == 0 || parse_seconds(v, seconds))
            c.remove_after = seconds;
        else
            warn(warnings, "VQASISIM_REMOVE_AFTER", v, "a number of seconds, 0 or more");
    }

    if (const char* v = env("VQASISIM_FAIL", device_index)) {
        for (const std::string& item : split(v, ',')) {
            fail_rule rule;
            if (parse_fail_rule(item, rule))
                c.fails.push_back(rule);
            else
                warn(warnings, "VQASISIM_FAIL", item, "NAME[@N][=ERRNO]");
        }
    }
    if (const char* v = env_exact("VQASISIM_SUMMARY"))
        c.summary_path = v;
    return c;
}

}  // namespace vqasisim
