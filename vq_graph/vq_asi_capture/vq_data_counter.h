#pragma once
// Byte counter with a bit rate computed lazily, at most once per interval, when read.

#include <atomic>
#include <chrono>
#include <cstdint>

// add_data_count() is called by one thread at a time (the capture thread);
// get_bit_rate() by readers. All fields are atomics, so readers may run
// alongside the writer and each other.
class vq_data_counter {
public:
    vq_data_counter();

    void add_data_count(uint64_t bytes);
    // Zeroes the count and the rate; the rate clock keeps running.
    void clear();
    uint64_t get_data_count() const;
    // Bit/s averaged over the time since the previous computation; the previous
    // value while less than m_distance has passed.
    uint64_t get_bit_rate() const;

private:
    std::atomic<uint64_t> m_nDataCounter{0};
    mutable std::atomic<uint64_t> m_nBitrate{0};
    mutable std::atomic<uint64_t> m_nBDC{0};
    std::chrono::milliseconds m_distance{1000};
    mutable std::atomic<std::chrono::steady_clock::time_point> m_tLast;
};
