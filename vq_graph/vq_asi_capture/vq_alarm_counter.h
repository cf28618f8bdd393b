#pragma once
// Error-counter alarm: each event is one or more occurrences; active from the
// first occurrence until none has come for longer than the duration.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "vq_asi_capture/vq_i_alarm_event.h"

class vq_alarm_counter : public vq_i_alarm_event {
public:
    vq_alarm_counter(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level, const std::string& source,
                     const std::string& description, uint32_t stream_type, uint32_t stream_pid);

    // Clears the activity once more than the duration has passed since the last
    // occurrence; returns whether anything occurred since the last reset.
    bool check() override;
    void reset() override;
    // Counts n occurrences; reg_time marks the start of an activation only.
    void event(long n) override;

    bool is_alarm() const { return m_bAlarm; }
    std::chrono::seconds duration() const { return m_duration; }

protected:
    std::atomic<std::chrono::steady_clock::time_point> m_time_point;
    std::chrono::seconds m_duration;
    std::atomic<bool> m_bAlarm{false};
};
