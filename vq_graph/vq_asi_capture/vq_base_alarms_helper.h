#pragma once
// Registry of the alarms of one element, keyed by hash, and their registration
// with the current alarm manager.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vq_asi_capture/vq_i_alarm_event.h"
#include "vq_asi_capture/vq_i_alarm_manager.h"

class vq_base_alarms_helper {
public:
    vq_base_alarms_helper() = default;
    vq_base_alarms_helper(const vq_base_alarms_helper&) = delete;
    vq_base_alarms_helper& operator=(const vq_base_alarms_helper&) = delete;

    // Hands the registry to the manager unless done already; marks it registered
    // even without a manager.
    void start();
    // Withdraws the registry from the manager if it was handed over.
    void stop();

    // A watchdog (add_alarm) or counter (add_alarm_counter) alarm; when one with the
    // same hash is registered already, that one is returned instead.
    std::shared_ptr<vq_i_alarm_event> add_alarm(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level,
                                                const std::string& source, const std::string& description,
                                                uint32_t stream_type, uint32_t stream_pid);
    std::shared_ptr<vq_i_alarm_event> add_alarm_counter(std::chrono::seconds duration, VQAlarmCode code,
                                                        VQAlarmLevel level, const std::string& source,
                                                        const std::string& description, uint32_t stream_type,
                                                        uint32_t stream_pid);
    // Withdraws the alarm from the manager (when registered) and drops it.
    void remove_alarm(const std::shared_ptr<vq_i_alarm_event>& alarm);

    // Moves the registry from the current manager to the given one (null detaches).
    void set_alarm_manager(vq_i_alarm_manager* manager);
    bool has_alarm_manager();
    // Pass one alarm to the manager, if any; the registry itself is not changed.
    void reg_alarm(const std::shared_ptr<vq_i_alarm_event>& alarm);
    void unreg_alarm(const std::shared_ptr<vq_i_alarm_event>& alarm);

    // The log lines of the registered alarms, in hash order.
    std::vector<std::string> get_log();

protected:
    // Both expect m_cs held.
    void reg_alarms();
    void unreg_alarms();

private:
    std::shared_ptr<vq_i_alarm_event> insert_alarm(std::shared_ptr<vq_i_alarm_event> alarm);

    std::mutex m_cs;
    std::map<std::string, std::shared_ptr<vq_i_alarm_event>> m_mapAlarms;
    bool m_bRegistered = false;
    vq_i_alarm_manager* m_p_alarm_manager = nullptr;
};
