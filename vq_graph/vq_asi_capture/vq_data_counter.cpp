#include "vq_asi_capture/vq_data_counter.h"

vq_data_counter::vq_data_counter() : m_tLast(std::chrono::steady_clock::now()) {}

void vq_data_counter::add_data_count(uint64_t bytes) {
    // One writer, once per packet: a plain load and store instead of a locked add.
    m_nDataCounter.store(m_nDataCounter.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
}

void vq_data_counter::clear() {
    m_nDataCounter = 0;
    m_nBitrate = 0;
    m_nBDC = 0;
}

uint64_t vq_data_counter::get_data_count() const { return m_nDataCounter.load(std::memory_order_relaxed); }

uint64_t vq_data_counter::get_bit_rate() const {
    const auto now = std::chrono::steady_clock::now();
    auto last = m_tLast.load();
    const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(now - last);
    if (elapsed.count() <= 999999)
        return m_nBitrate;
    const auto elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed);
    if (elapsedMs <= m_distance)
        return m_nBitrate;
    // Only the reader that moves the clock computes; a concurrent one keeps the old rate.
    if (!m_tLast.compare_exchange_strong(last, now))
        return m_nBitrate;
    const uint64_t count = m_nDataCounter.load(std::memory_order_relaxed);
    const uint64_t previous = m_nBDC.exchange(count);
    // A clear() racing with this computation may leave the count below its mark.
    const uint64_t delta = count >= previous ? count - previous : count;
    const uint64_t rate = delta * 8000 / static_cast<uint64_t>(elapsedMs.count());
    m_nBitrate = rate;
    return rate;
}
