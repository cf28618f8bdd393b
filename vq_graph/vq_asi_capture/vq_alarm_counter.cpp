#include "vq_asi_capture/vq_alarm_counter.h"

vq_alarm_counter::vq_alarm_counter(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level,
                                   const std::string& source, const std::string& description, uint32_t stream_type,
                                   uint32_t stream_pid)
    : vq_i_alarm_event(code, level, source, description, stream_type, stream_pid),
      m_time_point(std::chrono::steady_clock::now()),
      m_duration(duration) {}

bool vq_alarm_counter::check() {
    if (!m_bAlarm)
        return false;
    vq_alarm_data changed;
    {
        std::lock_guard<std::mutex> lock(m_csData);
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - m_time_point.load());
        if (elapsed <= m_duration || !set_active(false))
            return m_bAlarm;
        changed = m_data;
    }
    notify_transition(changed);
    return m_bAlarm;
}

void vq_alarm_counter::reset() {
    m_time_point = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(m_csData);
    m_data.active = false;
    m_data.count = 0;
    m_bAlarm = false;
}

void vq_alarm_counter::event(long n) {
    m_time_point = std::chrono::steady_clock::now();
    vq_alarm_data changed;
    {
        std::lock_guard<std::mutex> lock(m_csData);
        m_bAlarm = true;
        if (!m_data.active)
            m_data.reg_time = current_reg_time();
        m_data.count += static_cast<uint32_t>(n);
        if (!set_active(true))
            return;
        changed = m_data;
    }
    notify_transition(changed);
}
