#pragma once
// Signal state of the ASI input, as reported by the device and counted by the statistics.

#include <cstdint>

enum vq_signal_state : int32_t {
    vq_ok = 0,
    vq_no_data = 1,
    vq_no_link = 2,
    vq_no_lock = 3,
    vq_range = 4,
    vq_unknown = 5,
};
