#pragma once
// Settings of the simulated capture board, read from the VQASISIM_* variables.

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "mpegcore/MpegConstants.h"

namespace vqasisim {

// "after every `every` units, `count` of something"; off when either is 0.
struct every_count {
    uint64_t every = 0;
    uint64_t count = 0;
    bool enabled() const { return every != 0 && count != 0; }
};

// Receiver states, answered through VIDIOC_QUERY_DV_TIMINGS.
enum class signal_kind { ok, no_data, no_link, no_lock, range, unknown };

const char* signal_name(signal_kind kind);

// One step of a script over time: `value` for `seconds` (negative: for ever).
// A script whose steps all have a length repeats.
template <typename T>
struct timed_step {
    T value{};
    double seconds = -1;
};

// The value of `script` `seconds` after its start; `fallback` for an empty script.
template <typename T>
T value_at(const std::vector<timed_step<T>>& script, double seconds, T fallback) {
    double total = 0;
    for (const timed_step<T>& step : script) {
        if (step.seconds < 0)
            break;
        total += step.seconds;
    }
    for (;;) {
        for (const timed_step<T>& step : script) {
            if (step.seconds < 0 || seconds < step.seconds)
                return step.value;
            seconds -= step.seconds;
        }
        if (script.empty() || !(total > 0))
            return fallback;
        seconds = std::fmod(seconds, total);
    }
}

using signal_step = timed_step<signal_kind>;
using packet_size_step = timed_step<unsigned>;

// "every `every` seconds, `length` seconds of something"; off when either is 0.
struct every_length {
    double every = 0;
    double length = 0;
    bool enabled() const { return every > 0 && length > 0; }
    // Inside a span: from `every` to `every` + `length` of each period.
    bool inside(double seconds) const { return enabled() && std::fmod(seconds, every + length) >= every; }
};

// Refuse an ioctl (or the buffer mapping, name "MMAP") from its n-th call on.
struct fail_rule {
    std::string name;
    uint64_t from_call = 1;
    int error = 0;
};

struct config {
    std::vector<std::string> devices;
    std::vector<std::string> inputs;
    uint32_t frame_size = 26320;
    uint64_t bitrate = 0;  // bits per second; 0: one frame per 20 ms
    bool realtime = true;
    bool prefilled = false;  // buffers filled once at stream-on, then served in turn without copying
    bool multi_planar = false;
    uint32_t max_buffers = 32;
    std::vector<signal_step> signal;
    every_count seq_gap;
    every_count garbage;
    every_count empty;
    uint64_t cc_every = 0;
    unsigned packet_size = mpegcore::kTsPacketSize;  // the first (or only) packet size
    std::vector<packet_size_step> packet_sizes;      // a switching script; empty: packet_size for ever
    every_length data_gap;
    double remove_after = -1;  // seconds after the open when the device disappears; negative: never
    std::vector<fail_rule> fails;
    std::string summary_path;

    // Nanoseconds between two frames under real-time pacing.
    uint64_t frame_interval_ns() const;
    // The input file of the i-th configured device ("" for generated null packets).
    std::string input_for(size_t device_index) const;
    // State of the receiver `seconds` after the device was opened.
    signal_kind signal_at(double seconds) const;
    // Packet size `seconds` after the device was opened.
    unsigned packet_size_at(double seconds) const;
    // True when any packet is not a plain 188-byte one.
    bool mixed_packet_sizes() const;
};

// Reads every VQASISIM_* variable for the device at `device_index` in
// VQASISIM_DEVICE (VQASISIM_NAME_<index> before VQASISIM_NAME); problems are
// described in `warnings`, one per line, and the setting keeps its default.
config read_config(std::string& warnings, size_t device_index);

// Device paths only: cheap enough to check on every open().
std::vector<std::string> configured_devices();

// Splits on `separator`, dropping empty pieces.
std::vector<std::string> split(const std::string& text, char separator);

}  // namespace vqasisim
