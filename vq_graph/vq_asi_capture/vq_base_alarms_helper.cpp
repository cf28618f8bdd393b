#include "vq_asi_capture/vq_base_alarms_helper.h"

#include "vq_asi_capture/vq_alarm_counter.h"
#include "vq_asi_capture/vq_alarm_event.h"

void vq_base_alarms_helper::start() {
    std::lock_guard<std::mutex> lock(m_cs);
    if (!m_bRegistered && m_p_alarm_manager)
        reg_alarms();
    m_bRegistered = true;
}

void vq_base_alarms_helper::stop() {
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_bRegistered) {
        unreg_alarms();
        m_bRegistered = false;
    }
}

std::shared_ptr<vq_i_alarm_event> vq_base_alarms_helper::add_alarm(std::chrono::seconds duration, VQAlarmCode code,
                                                                   VQAlarmLevel level, const std::string& source,
                                                                   const std::string& description, uint32_t stream_type,
                                                                   uint32_t stream_pid) {
    return insert_alarm(
        std::make_shared<vq_alarm_event>(duration, code, level, source, description, stream_type, stream_pid));
}

std::shared_ptr<vq_i_alarm_event> vq_base_alarms_helper::add_alarm_counter(std::chrono::seconds duration,
                                                                           VQAlarmCode code, VQAlarmLevel level,
                                                                           const std::string& source,
                                                                           const std::string& description,
                                                                           uint32_t stream_type, uint32_t stream_pid) {
    return insert_alarm(
        std::make_shared<vq_alarm_counter>(duration, code, level, source, description, stream_type, stream_pid));
}

std::shared_ptr<vq_i_alarm_event> vq_base_alarms_helper::insert_alarm(std::shared_ptr<vq_i_alarm_event> alarm) {
    std::lock_guard<std::mutex> lock(m_cs);
    const auto found = m_mapAlarms.find(alarm->hash());
    if (found != m_mapAlarms.end())
        return found->second;
    if (m_bRegistered && m_p_alarm_manager)
        m_p_alarm_manager->reg_alarm(alarm);
    m_mapAlarms.emplace(alarm->hash(), alarm);
    return alarm;
}

void vq_base_alarms_helper::remove_alarm(const std::shared_ptr<vq_i_alarm_event>& alarm) {
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_bRegistered && m_p_alarm_manager)
        m_p_alarm_manager->unreg_alarm(alarm);
    m_mapAlarms.erase(alarm->hash());
}

void vq_base_alarms_helper::set_alarm_manager(vq_i_alarm_manager* manager) {
    std::lock_guard<std::mutex> lock(m_cs);
    if (manager == m_p_alarm_manager)
        return;
    if (m_p_alarm_manager && m_bRegistered) {
        unreg_alarms();
        m_bRegistered = false;
    }
    m_p_alarm_manager = manager;
    if (m_p_alarm_manager && !m_bRegistered) {
        reg_alarms();
        m_bRegistered = true;
    }
}

bool vq_base_alarms_helper::has_alarm_manager() {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_p_alarm_manager != nullptr;
}

void vq_base_alarms_helper::reg_alarm(const std::shared_ptr<vq_i_alarm_event>& alarm) {
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_p_alarm_manager)
        m_p_alarm_manager->reg_alarm(alarm);
}

void vq_base_alarms_helper::unreg_alarm(const std::shared_ptr<vq_i_alarm_event>& alarm) {
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_p_alarm_manager)
        m_p_alarm_manager->unreg_alarm(alarm);
}

std::vector<std::string> vq_base_alarms_helper::get_log() {
    std::lock_guard<std::mutex> lock(m_cs);
    std::vector<std::string> lines;
    lines.reserve(m_mapAlarms.size());
    for (const auto& entry : m_mapAlarms)
        lines.push_back(entry.second->get_log_message());
    return lines;
}

void vq_base_alarms_helper::reg_alarms() {
    for (const auto& entry : m_mapAlarms)
        m_p_alarm_manager->reg_alarm(entry.second);
}

void vq_base_alarms_helper::unreg_alarms() {
    if (!m_p_alarm_manager)
        return;
    for (const auto& entry : m_mapAlarms)
        m_p_alarm_manager->unreg_alarm(entry.second);
}
