#include "vq_asi_capture/vq_i_alarm_event.h"

#include <ctime>
#include <functional>

#include "mpegcore/VQStringUtils.h"

vq_i_alarm_event::vq_i_alarm_event(VQAlarmCode code, VQAlarmLevel level, const std::string& source,
                                   const std::string& description, uint32_t stream_type, uint32_t stream_pid) {
    // The identity: equal code, level, source and description make one alarm.
    const std::string identity = std::to_string(code) + std::to_string(level) + source + description;
    m_data.hash = std::to_string(std::hash<std::string>{}(identity));
    m_data.code = code;
    m_data.level = level;
    m_data.source = source;
    m_data.description = description;
    m_data.stream_type = stream_type;
    m_data.stream_pid = stream_pid;
}

vq_alarm_data vq_i_alarm_event::get_data() {
    std::lock_guard<std::mutex> lock(m_csData);
    return m_data;
}

bool vq_i_alarm_event::active() {
    std::lock_guard<std::mutex> lock(m_csData);
    return m_data.active;
}

std::string vq_i_alarm_event::hash() const { return m_data.hash; }

std::string vq_i_alarm_event::get_log_message() const {
    std::lock_guard<std::mutex> lock(m_csData);
    return "code=" + std::to_string(m_data.code) + ", level=" + std::to_string(m_data.level) +
           ", reg_time=" + m_data.reg_time + ", source=" + m_data.source + ", description=" + m_data.description +
           ", count=" + std::to_string(m_data.count);
}

std::string vq_i_alarm_event::current_reg_time() {
    return VQSDK::toString("dd.MM.yyyy hh:mm:ss", std::time(nullptr), true);
}

void vq_i_alarm_event::set_transition_observer(std::weak_ptr<const transition_observer> observer) {
    std::lock_guard<std::mutex> lock(m_csData);
    m_observer = std::move(observer);
}

bool vq_i_alarm_event::set_active(bool active) {
    const bool changed = m_data.active != active;
    m_data.active = active;
    return changed;
}

void vq_i_alarm_event::notify_transition(const vq_alarm_data& data) const {
    std::shared_ptr<const transition_observer> observer;
    {
        std::lock_guard<std::mutex> lock(m_csData);
        observer = m_observer.lock();
    }
    if (observer && *observer)
        (*observer)(data);
}
