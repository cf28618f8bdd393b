#pragma once
// Watchdog alarm: each event says all is well; active once no event has come
// for longer than the duration.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "vq_asi_capture/vq_i_alarm_event.h"

class vq_alarm_event : public vq_i_alarm_event {
public:
    vq_alarm_event(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level, const std::string& source,
                   const std::string& description, uint32_t stream_type, uint32_t stream_pid);

    // Active when more than the duration (whole seconds, truncated) has passed since
    // the last event; each activation counts once and stamps reg_time.
    bool check() override;
    // event(0) through the virtual slot, then count 0 and the sticky flag cleared.
    void reset() override;
    // Feeds the watchdog; the argument is ignored. Lock-free unless the alarm is
    // active at that moment.
    void event(long n) override;

    bool is_alarm() const { return m_bAlarm; }
    std::chrono::seconds duration() const { return m_duration; }

protected:
    std::atomic<std::chrono::steady_clock::time_point> m_time_point;
    std::chrono::seconds m_duration;
    std::atomic<bool> m_bAlarm{false};
    // Mirrors m_data.active (written with it, under m_csData), so that the feed,
    // called for every packet, takes the lock only to clear an active alarm.
    std::atomic<bool> m_bActive{false};
};
