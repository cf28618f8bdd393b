#pragma once
// An alarm object polled by an alarm manager and fed events by the capture side.

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "vq_asi_capture/vq_alarm_data.h"

// The changing part of m_data (active, count, reg_time) is guarded by m_csData,
// held only for a few assignments, so neither the capture thread nor a polling
// manager waits for long. hash never changes after construction.
class vq_i_alarm_event {
public:
    virtual ~vq_i_alarm_event() = default;

    vq_i_alarm_event(const vq_i_alarm_event&) = delete;
    vq_i_alarm_event& operator=(const vq_i_alarm_event&) = delete;

    // A copy of the record with the current activity.
    virtual vq_alarm_data get_data();
    // Re-evaluates the condition; true once the alarm has been raised since the last reset.
    virtual bool check() = 0;
    virtual void reset() = 0;
    virtual void event(long n) = 0;
    virtual bool active();
    virtual std::string hash() const;
    // "code=..., level=..., reg_time=..., source=..., description=..., count=..."
    virtual std::string get_log_message() const;

    // Told the record each time the alarm becomes active or clears (not on reset),
    // on the thread that caused it, with no lock held. Held weakly: an alarm the
    // manager still holds outlives its element.
    using transition_observer = std::function<void(const vq_alarm_data&)>;
    void set_transition_observer(std::weak_ptr<const transition_observer> observer);

protected:
    vq_i_alarm_event(VQAlarmCode code, VQAlarmLevel level, const std::string& source, const std::string& description,
                     uint32_t stream_type, uint32_t stream_pid);

    // The current wall-clock time as "dd.MM.yyyy hh:mm:ss" in UTC.
    static std::string current_reg_time();
    // Sets m_data.active (m_csData held); true when that changed it.
    bool set_active(bool active);
    // Tells the observer a record copied when the activity changed; m_csData not held.
    void notify_transition(const vq_alarm_data& data) const;

    vq_alarm_data m_data;
    mutable std::mutex m_csData;
    std::weak_ptr<const transition_observer> m_observer;  // guarded by m_csData
};
