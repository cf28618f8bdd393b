#pragma once
// Statistics of the ASI capture: frame and byte counters, bit rates, delays,
// signal state and the last error, presented as fifteen named text items.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "vq_asi_capture/vq_base_statistics.h"
#include "vq_asi_capture/vq_data_counter.h"
#include "vq_asi_capture/vq_min_max_evr.h"
#include "vq_asi_capture/vq_signal_state.h"

// Written by the capture thread without a lock and read by the application at any
// time. The numeric fields are atomics (relaxed: a snapshot may mix two iterations);
// only the last-error text needs the mutex.
struct vq_video_statistics {
    std::atomic<uint64_t> nPushIndexFrame{0};
    std::atomic<uint64_t> nSeqFromDevice{0};
    std::atomic<uint64_t> nDroppedFrame{0};
    std::atomic<uint64_t> nFakeFrames{0};
    std::atomic<uint64_t> nLastFrameTime{0};
    vq_min_max_evr<unsigned long> m_push_delay;
    vq_min_max_evr<unsigned long> m_delay_between_frame;
    vq_min_max_evr<unsigned long> m_map_delay;
    std::atomic<vq_signal_state> signal_state{vq_ok};
    std::atomic<uint64_t> nSignalNoData{0};
    std::atomic<uint64_t> nSignalNoLink{0};
    std::atomic<uint64_t> nSignalNoLock{0};
    std::atomic<uint64_t> nSignalRange{0};
    std::atomic<uint64_t> nSignalUnknown{0};
    std::atomic<uint64_t> nBadBytesCount{0};
    vq_data_counter nDataCount;
    vq_data_counter nRawDataCount;
    mutable std::mutex m_cs;
    std::string strLastError;

    void set_data_count(uint64_t bytes) { nDataCount.add_data_count(bytes); }
    uint64_t get_data_counter() const { return nDataCount.get_data_count(); }
    void set_raw_data_count(uint64_t bytes) { nRawDataCount.add_data_count(bytes); }
    uint64_t get_raw_data_count() const { return nRawDataCount.get_data_count(); }
    uint64_t get_bit_rate() const { return nDataCount.get_bit_rate(); }
    uint64_t get_raw_bit_rate() const { return nRawDataCount.get_bit_rate(); }
    // A copy of the synchroniser's running total, not a sum.
    void set_bad_bytes(uint64_t total) { nBadBytesCount.store(total, std::memory_order_relaxed); }
    uint64_t get_bad_bytes() const { return nBadBytesCount; }

    // Records the driver's frame sequence number; a gap (either way) counts as dropped frames.
    void set_seq_index(uint64_t sequence);
    // Counts a change into a bad state once, on entry; stores any value.
    void set_signal_state(vq_signal_state state);
    // "Ok", "No data", ... for the current state; empty for an unknown value.
    std::string get_state_string() const;
    // The five bad-state counters joined by "/".
    std::string get_state_counter() const;

    void set_error(const std::string& error);
    std::string get_errors() const;

    // Zeroes counters and delays; keeps the bit-rate clocks and the last error.
    // Not to be called while the capture thread updates the record.
    void reset();
};

class vq_asi_statistics : public vq_base_statistics {
public:
    vq_asi_statistics() = default;

    std::vector<std::pair<std::string, std::string>> get_items() const override;
    // Resets the frame record; the system time and the last error are kept.
    void reset();
    vq_video_statistics& asi() { return m_asi; }
    const vq_video_statistics& asi() const { return m_asi; }
    void set_system_time(uint64_t nanoseconds) { m_nSystemTime = nanoseconds; }

    std::atomic<uint64_t> m_nSystemTime{0};
    vq_video_statistics m_asi;
};
