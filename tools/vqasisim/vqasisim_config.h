#pragma once
// Settings of the simulated capture board, read from the VQASISIM_* variables.

#include <cstdint>
#include <string>
#include <vector>

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

struct signal_step {
    signal_kind kind = signal_kind::ok;
    double seconds = -1;  // negative: for ever
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
    bool multi_planar = false;
    uint32_t max_buffers = 32;
    std::vector<signal_step> signal;
    every_count seq_gap;
    every_count garbage;
    every_count empty;
    uint64_t cc_every = 0;
    unsigned packet_size = 188;
    std::vector<fail_rule> fails;
    std::string summary_path;

    // Nanoseconds between two frames under real-time pacing.
    uint64_t frame_interval_ns() const;
    // The input file of the i-th configured device ("" for generated null packets).
    std::string input_for(size_t device_index) const;
    // State of the receiver `seconds` after the device was opened.
    signal_kind signal_at(double seconds) const;
};

// Reads every VQASISIM_* variable; problems are described in `warnings`, one per line,
// and the setting keeps its default.
config read_config(std::string& warnings);

// Device paths only: cheap enough to check on every open().
std::vector<std::string> configured_devices();

// Splits on `separator`, dropping empty pieces.
std::vector<std::string> split(const std::string& text, char separator);

}  // namespace vqasisim
