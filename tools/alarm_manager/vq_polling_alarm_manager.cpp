#include "vq_polling_alarm_manager.h"

#include <cstdio>
#include <utility>

vq_polling_alarm_manager::vq_polling_alarm_manager(std::chrono::milliseconds interval, line_sink sink)
    : m_interval(interval), m_sink(std::move(sink)) {
    if (!m_sink) {
        m_sink = [](const std::string& line) {
            std::printf("%s\n", line.c_str());
            std::fflush(stdout);
        };
    }
    m_thread = std::thread(&vq_polling_alarm_manager::run, this);
}

vq_polling_alarm_manager::~vq_polling_alarm_manager() {
    {
        std::lock_guard<std::mutex> lock(m_csExit);
        m_bExit = true;
    }
    m_exitCondition.notify_all();
    m_thread.join();
}

void vq_polling_alarm_manager::reg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) {
    if (!alarm)
        return;
    std::lock_guard<std::mutex> lock(m_cs);
    const vq_i_alarm_event* key = alarm.get();
    m_alarms.emplace(key, watched_alarm{std::move(alarm), false});
}

void vq_polling_alarm_manager::unreg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) {
    std::lock_guard<std::mutex> lock(m_cs);
    m_alarms.erase(alarm.get());
}

void vq_polling_alarm_manager::poll() {
    std::lock_guard<std::mutex> pollLock(m_csPoll);
    // Snapshot first: the alarms are checked without m_cs, so the element's
    // registry (which calls reg/unreg with its own lock held) never waits on a poll.
    std::vector<watched_alarm> snapshot;
    {
        std::lock_guard<std::mutex> lock(m_cs);
        snapshot.reserve(m_alarms.size());
        for (const auto& entry : m_alarms)
            snapshot.push_back(entry.second);
    }
    std::vector<std::string> lines;
    std::vector<std::pair<const vq_i_alarm_event*, bool>> changes;
    for (const auto& watched : snapshot) {
        watched.alarm->check();
        const bool active = watched.alarm->active();
        if (active == watched.reported_active)
            continue;
        lines.push_back((active ? kActivePrefix : kClearedPrefix) + watched.alarm->get_log_message());
        changes.emplace_back(watched.alarm.get(), active);
    }
    {
        std::lock_guard<std::mutex> lock(m_cs);
        for (const auto& change : changes) {
            const auto found = m_alarms.find(change.first);
            if (found != m_alarms.end())
                found->second.reported_active = change.second;
        }
    }
    for (const auto& line : lines)
        m_sink(line);
}

std::size_t vq_polling_alarm_manager::alarm_count() const {
    std::lock_guard<std::mutex> lock(m_cs);
    return m_alarms.size();
}

std::vector<std::shared_ptr<vq_i_alarm_event>> vq_polling_alarm_manager::alarms() const {
    std::lock_guard<std::mutex> lock(m_cs);
    std::vector<std::shared_ptr<vq_i_alarm_event>> result;
    result.reserve(m_alarms.size());
    for (const auto& entry : m_alarms)
        result.push_back(entry.second.alarm);
    return result;
}

void vq_polling_alarm_manager::run() {
    std::unique_lock<std::mutex> lock(m_csExit);
    while (!m_bExit) {
        lock.unlock();
        poll();
        lock.lock();
        m_exitCondition.wait_for(lock, m_interval, [this] { return m_bExit; });
    }
}
