#pragma once
// An alarm manager that polls its alarms on its own thread and reports, through
// a line sink, each alarm's log line when it becomes active and when it clears.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vq_asi_capture/vq_i_alarm_manager.h"

class vq_polling_alarm_manager : public vq_i_alarm_manager {
public:
    using line_sink = std::function<void(const std::string& line)>;

    // Prefixes of the reported lines, followed by the alarm's log line.
    static constexpr const char* kActivePrefix = "ALARM ";
    static constexpr const char* kClearedPrefix = "CLEAR ";

    // Starts polling every interval; lines go to sink (standard output when empty).
    // The sink runs on the polling thread, never with the manager's lock held.
    explicit vq_polling_alarm_manager(std::chrono::milliseconds interval = std::chrono::milliseconds(500),
                                      line_sink sink = line_sink());
    ~vq_polling_alarm_manager() override;

    vq_polling_alarm_manager(const vq_polling_alarm_manager&) = delete;
    vq_polling_alarm_manager& operator=(const vq_polling_alarm_manager&) = delete;

    void reg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) override;
    // An alarm that is not held is ignored.
    void unreg_alarm(std::shared_ptr<vq_i_alarm_event> alarm) override;

    // One polling round: check() every alarm and report the changes of activity.
    // The polling thread calls it; callers may too.
    void poll();

    std::size_t alarm_count() const;
    // The alarms held now.
    std::vector<std::shared_ptr<vq_i_alarm_event>> alarms() const;

private:
    struct watched_alarm {
        std::shared_ptr<vq_i_alarm_event> alarm;
        bool reported_active = false;
    };

    void run();

    std::chrono::milliseconds m_interval;
    line_sink m_sink;
    mutable std::mutex m_cs;
    std::map<const vq_i_alarm_event*, watched_alarm> m_alarms;
    // Serialises polling rounds so that each change is reported exactly once.
    std::mutex m_csPoll;
    std::mutex m_csExit;
    std::condition_variable m_exitCondition;
    bool m_bExit = false;
    std::thread m_thread;
};
