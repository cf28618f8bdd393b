#pragma once
// Minimum and maximum since the last reset, and the average of the last values.

#include <atomic>
#include <cstdint>
#include <limits>
#include <list>
#include <string>

// set_value() and reset() come from one writer thread; min(), max(), avr() and
// to_string() may be called from any thread at the same time (the three shown
// values are atomics, so a reader never sees a torn or racing word).
template <typename T>
class vq_min_max_evr {
public:
    vq_min_max_evr() = default;

    void reset() {
        m_min = std::numeric_limits<T>::max();
        m_max = 0;
        m_avr = 0;
        m_accum = 0;
        m_list.clear();
    }

    void set_value(T value) {
        if (value < m_min.load(std::memory_order_relaxed))
            m_min.store(value, std::memory_order_relaxed);
        if (value > m_max.load(std::memory_order_relaxed))
            m_max.store(value, std::memory_order_relaxed);
        if (m_list.size() >= m_count_for_avr) {
            m_accum -= static_cast<int64_t>(m_list.front());
            m_list.pop_front();
        }
        m_list.push_back(value);
        m_accum += static_cast<int64_t>(value);
        m_avr.store(static_cast<T>(m_accum / static_cast<int64_t>(m_list.size())), std::memory_order_relaxed);
    }

    // "min/avr/max"; before the first value the minimum shows its initial all-ones value.
    std::string to_string() const {
        return std::to_string(min()) + "/" + std::to_string(avr()) + "/" + std::to_string(max());
    }

    T min() const { return m_min.load(std::memory_order_relaxed); }
    T max() const { return m_max.load(std::memory_order_relaxed); }
    T avr() const { return m_avr.load(std::memory_order_relaxed); }

private:
    std::atomic<T> m_min{std::numeric_limits<T>::max()};
    std::atomic<T> m_max{0};
    std::atomic<T> m_avr{0};
    int64_t m_accum = 0;
    std::list<T> m_list;
    uint32_t m_count_for_avr = 500;
};
