#include "vq_asi_capture/vq_alarms_dispatcher.h"

#include "vq_asi_capture/vq_alarm_counter.h"

namespace {

constexpr std::chrono::seconds kInputAlarmDuration{1};
constexpr std::chrono::seconds kPidAlarmDuration{5};
constexpr std::chrono::seconds kOwnPollInterval{1};

// Called for every packet: no copy of the pointer (two atomic operations),
// since only start() replaces the input alarms and it never runs alongside
// the capture thread.
void feed(const std::shared_ptr<vq_i_alarm_event>& alarm) {
    if (alarm)
        alarm->event(0);
}

}  // namespace

vq_alarms_dispatcher::~vq_alarms_dispatcher() { stop_polling(); }

void vq_alarms_dispatcher::set_transition_observer(vq_i_alarm_event::transition_observer observer) {
    std::lock_guard<std::mutex> lock(m_cs);
    m_pObserver = std::make_shared<const vq_i_alarm_event::transition_observer>(std::move(observer));
}

void vq_alarms_dispatcher::start_polling() {
    stop_polling();
    m_fPollExit = std::make_shared<std::promise<void>>();
    m_pollThread = std::thread(
        [this](std::future<void> exit) {
            while (exit.wait_for(kOwnPollInterval) == std::future_status::timeout)
                check_alarms_without_manager();
        },
        m_fPollExit->get_future());
}

void vq_alarms_dispatcher::stop_polling() {
    if (!m_pollThread.joinable())
        return;
    m_fPollExit->set_value();
    m_pollThread.join();
    m_fPollExit.reset();
}

void vq_alarms_dispatcher::check_alarms_without_manager() {
    if (m_alarm_helper.has_alarm_manager())
        return;
    // Checked outside the locks: a transition posts a message, whose handlers may
    // come back to the element.
    for (const auto& alarm : current_alarms())
        alarm->check();
}

std::vector<std::shared_ptr<vq_i_alarm_event>> vq_alarms_dispatcher::current_alarms() const {
    std::lock_guard<std::mutex> lock(m_cs);
    std::vector<std::shared_ptr<vq_i_alarm_event>> alarms;
    for (const auto& alarm : {m_aSyncLost, m_aNoRawInput, m_aNoInput})
        if (alarm)
            alarms.push_back(alarm);
    for (const pid_alarm_map* map : {&m_mapAlarmCC, &m_mapAlarmPIDScrambled, &m_mapAlarmTEIError})
        for (const auto& entry : *map)
            alarms.push_back(entry.second);
    return alarms;
}

void vq_alarms_dispatcher::set_source_name(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_cs);
    m_strSourceName = name;
}

std::string vq_alarms_dispatcher::get_source_name() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_strSourceName;
}

void vq_alarms_dispatcher::set_alarm_manager(vq_i_alarm_manager* manager) { m_alarm_helper.set_alarm_manager(manager); }

void vq_alarms_dispatcher::start() {
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_strSourceName.empty())
        return;
    add_alarm(kInputAlarmDuration, eAlarmASIInputSyncLost, vq_error_alarm, m_strSourceName, "Sync lost ", m_aSyncLost);
    add_alarm(kInputAlarmDuration, eAlarmASIInputRawNoInputData, vq_error_alarm, m_strSourceName, "No raw input data ",
              m_aNoRawInput);
    add_alarm(kInputAlarmDuration, eAlarmASIInputNoInputData, vq_error_alarm, m_strSourceName, "No input data ",
              m_aNoInput);
    m_alarm_helper.start();
}

void vq_alarms_dispatcher::stop() {
    std::lock_guard<std::mutex> lock(m_cs);
    for (const auto& alarm : {m_aSyncLost, m_aNoRawInput, m_aNoInput}) {
        if (alarm) {
            m_alarm_helper.unreg_alarm(alarm);
            alarm->reset();
        }
    }
    for (pid_alarm_map* alarms : {&m_mapAlarmCC, &m_mapAlarmPIDScrambled, &m_mapAlarmTEIError}) {
        for (const auto& entry : *alarms)
            m_alarm_helper.unreg_alarm(entry.second);
        alarms->clear();
    }
    m_alarm_helper.stop();
}

void vq_alarms_dispatcher::sync_lost_event() { feed(m_aSyncLost); }

void vq_alarms_dispatcher::raw_input_data_event() { feed(m_aNoRawInput); }

void vq_alarms_dispatcher::input_data_event() { feed(m_aNoInput); }

void vq_alarms_dispatcher::cc_event(uint16_t pid) {
    pid_event(m_mapAlarmCC, pid, eAlarmRemuxerInputCC, "CC error on PID ");
}

void vq_alarms_dispatcher::tei_event(uint16_t pid) {
    pid_event(m_mapAlarmPIDScrambled, pid, eAlarmRemuxerInputScrambler, "Packet is scrambled on PID ");
}

void vq_alarms_dispatcher::scrambled_event(uint16_t pid) {
    pid_event(m_mapAlarmTEIError, pid, eAlarmRemuxerInputTEI, "TEI error on PID ");
}

void vq_alarms_dispatcher::pid_event(pid_alarm_map& alarms, uint16_t pid, VQAlarmCode code, const char* text) {
    std::lock_guard<std::mutex> lock(m_cs);
    auto found = alarms.find(pid);
    if (found == alarms.end()) {
        auto alarm = std::make_shared<vq_alarm_counter>(kPidAlarmDuration, code, vq_error_alarm, m_strSourceName,
                                                        text + std::to_string(pid), 0, pid);
        alarm->set_transition_observer(m_pObserver);
        m_alarm_helper.reg_alarm(alarm);
        found = alarms.emplace(pid, std::move(alarm)).first;
    }
    found->second->event(1);
}

bool vq_alarms_dispatcher::reuse_alarm(const std::string& source, std::shared_ptr<vq_i_alarm_event>& out) {
    if (!out)
        return false;
    if (out->get_data().source == source) {
        out->reset();
        return true;
    }
    m_alarm_helper.remove_alarm(out);
    out.reset();
    return false;
}

void vq_alarms_dispatcher::add_alarm(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level,
                                     const std::string& source, const std::string& description,
                                     std::shared_ptr<vq_i_alarm_event>& out) {
    if (!reuse_alarm(source, out)) {
        out = m_alarm_helper.add_alarm(duration, code, level, source, description, 0, 0);
        out->set_transition_observer(m_pObserver);
    }
}

void vq_alarms_dispatcher::add_alarm_counter(std::chrono::seconds duration, VQAlarmCode code, VQAlarmLevel level,
                                             const std::string& source, const std::string& description,
                                             std::shared_ptr<vq_i_alarm_event>& out) {
    if (!reuse_alarm(source, out)) {
        out = m_alarm_helper.add_alarm_counter(duration, code, level, source, description, 0, 0);
        out->set_transition_observer(m_pObserver);
    }
}
