#pragma once
// Turns what the capture observes into alarms and registers them with the
// application's alarm manager under the element's source name.

#include <chrono>
#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vq_asi_capture/vq_base_alarms_helper.h"
#include "vq_asi_capture/vq_i_alarm_event.h"
#include "vq_asi_capture/vq_i_alarm_manager.h"

class vq_alarms_dispatcher {
public:
    vq_alarms_dispatcher() = default;
    ~vq_alarms_dispatcher();
    vq_alarms_dispatcher(const vq_alarms_dispatcher&) = delete;
    vq_alarms_dispatcher& operator=(const vq_alarms_dispatcher&) = delete;

    // May change at any time; alarms created from then on carry the new name,
    // the input alarms from the next start().
    void set_source_name(const std::string& name);
    std::string get_source_name() const;
    // Non-owning; null detaches the current manager.
    void set_alarm_manager(vq_i_alarm_manager* manager);

    // Creates (or resets and reuses) the three input alarms and registers them;
    // does nothing without a source name.
    void start();
    // Withdraws every alarm from the manager, resets the input alarms and drops
    // the per-PID ones.
    void stop();

    // Every alarm made from now on, and the input alarms already made, tell this
    // observer their transitions; set once, before the first start().
    void set_transition_observer(vq_i_alarm_event::transition_observer observer);
    // While no manager is set, a thread of ours checks every alarm once a second, so
    // that the alarms still rise and clear; with a manager its polling does that.
    void start_polling();
    void stop_polling();
    // One such round: checks every alarm unless a manager is set.
    void check_alarms_without_manager();

    // Watchdog feeds from the capture thread: lock-free. The input alarms are only
    // replaced by start(), which runs before the capture thread does.
    void sync_lost_event();
    void raw_input_data_event();
    void input_data_event();

    // One occurrence on a PID; the alarm is created on the first one.
    void cc_event(uint16_t pid);
    // Keeps the scrambling alarms (code 114) although named after TEI; callers rely on it.
    void tei_event(uint16_t pid);
    // Keeps the TEI alarms (code 113) although named after scrambling; callers rely on it.
    void scrambled_event(uint16_t pid);

protected:
    // Reuses out (reset) when it belongs to the current source; otherwise replaces it.
    void add_alarm(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level, const std::string& source,
                   const std::string& description, std::shared_ptr<vq_i_alarm_event>& out);
    // Kept for the interface; nothing uses it (per-PID counters are made by pid_event).
    void add_alarm_counter(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level,
                           const std::string& source, const std::string& description,
                           std::shared_ptr<vq_i_alarm_event>& out);

private:
    using pid_alarm_map = std::map<uint16_t, std::shared_ptr<vq_i_alarm_event>>;

    // Drops out unless it belongs to source; true when out can be reused as it is.
    bool reuse_alarm(const std::string& source, std::shared_ptr<vq_i_alarm_event>& out);
    void pid_event(pid_alarm_map& alarms, uint16_t pid, VQAlarmCode code, const char* text);
    // The input and per-PID alarms as they are now.
    std::vector<std::shared_ptr<vq_i_alarm_event>> current_alarms() const;

    std::string m_strSourceName;
    vq_base_alarms_helper m_alarm_helper;
    std::shared_ptr<vq_i_alarm_event> m_aSyncLost;
    std::shared_ptr<vq_i_alarm_event> m_aNoRawInput;
    std::shared_ptr<vq_i_alarm_event> m_aNoInput;
    pid_alarm_map m_mapAlarmCC;
    pid_alarm_map m_mapAlarmPIDScrambled;
    pid_alarm_map m_mapAlarmTEIError;
    mutable std::mutex m_cs;
    std::shared_ptr<const vq_i_alarm_event::transition_observer> m_pObserver;
    std::thread m_pollThread;
    std::shared_ptr<std::promise<void>> m_fPollExit;
};
