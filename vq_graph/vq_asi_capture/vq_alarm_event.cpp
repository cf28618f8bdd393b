#include "vq_asi_capture/vq_alarm_event.h"

vq_alarm_event::vq_alarm_event(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level,
                               const std::string& source, const std::string& description, uint32_t stream_type,
                               uint32_t stream_pid)
    : vq_i_alarm_event(code, level, source, description, stream_type, stream_pid),
      m_time_point(std::chrono::steady_clock::now()),
      m_duration(duration) {}

bool vq_alarm_event::check() {
    vq_alarm_data changed;
    bool transition = false;
    {
        std::lock_guard<std::mutex> lock(m_csData);
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - m_time_point.load());
        if (elapsed > m_duration) {
            m_bAlarm = true;
            if (!m_data.active) {
                m_data.reg_time = current_reg_time();
                ++m_data.count;
            }
            transition = set_active(true);
        } else {
            transition = set_active(false);
        }
        m_bActive = m_data.active;
        if (transition)
            changed = m_data;
    }
    if (transition)
        notify_transition(changed);
    return m_bAlarm;
}

void vq_alarm_event::reset() {
    event(0);
    std::lock_guard<std::mutex> lock(m_csData);
    m_data.count = 0;
    // Cleared together with the sticky flag: event() relies on "not raised" meaning "not active".
    m_data.active = false;
    m_bActive = false;
    m_bAlarm = false;
}

void vq_alarm_event::event(long) {
    m_time_point = std::chrono::steady_clock::now();
    // Only check() sets active, under the lock, after reading the time stored above;
    // one that read an older time is corrected by the next event.
    if (m_bActive) {
        vq_alarm_data changed;
        {
            std::lock_guard<std::mutex> lock(m_csData);
            m_bActive = false;
            if (!set_active(false))
                return;
            changed = m_data;
        }
        notify_transition(changed);
    }
}
