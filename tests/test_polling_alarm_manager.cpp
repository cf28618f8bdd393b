#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vq_asi_capture/vq_alarm_counter.h"
#include "vq_asi_capture/vq_alarm_event.h"
#include "vq_polling_alarm_manager.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Collects the manager's lines; waits for a given number of them.
class line_collector {
public:
    vq_polling_alarm_manager::line_sink sink() {
        return [this](const std::string& line) {
            std::lock_guard<std::mutex> lock(m_cs);
            m_lines.push_back(line);
            m_changed.notify_all();
        };
    }

    std::vector<std::string> wait_for(size_t count, milliseconds timeout = milliseconds(5000)) {
        std::unique_lock<std::mutex> lock(m_cs);
        m_changed.wait_for(lock, timeout, [&] { return m_lines.size() >= count; });
        return m_lines;
    }

private:
    std::mutex m_cs;
    std::condition_variable m_changed;
    std::vector<std::string> m_lines;
};

std::shared_ptr<vq_alarm_counter> makeCounter(seconds duration) {
    return std::make_shared<vq_alarm_counter>(duration, eAlarmRemuxerInputCC, vq_error_alarm, "cam1",
                                              "CC error on PID 100", 0, 100);
}

}  // namespace

TEST(PollingAlarmManager, ReportsActivationAndClearanceOnItsThread) {
    line_collector lines;
    vq_polling_alarm_manager manager(milliseconds(10), lines.sink());
    const auto alarm = makeCounter(seconds(0));
    manager.reg_alarm(alarm);
    EXPECT_EQ(manager.alarm_count(), 1u);

    alarm->event(1);
    auto seen = lines.wait_for(1);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], std::string(vq_polling_alarm_manager::kActivePrefix) + alarm->get_log_message());

    // A counter with duration 0 clears one second after its last occurrence.
    seen = lines.wait_for(2);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1], std::string(vq_polling_alarm_manager::kClearedPrefix) + alarm->get_log_message());
    EXPECT_FALSE(alarm->active());
}

TEST(PollingAlarmManager, ReportsEachChangeOnceAcrossRounds) {
    std::vector<std::string> lines;
    vq_polling_alarm_manager manager(seconds(3600), [&](const std::string& line) { lines.push_back(line); });
    const auto alarm = makeCounter(seconds(5));
    manager.reg_alarm(alarm);
    // The thread polled once at start (nothing to report) and now sleeps; poll by hand.
    manager.poll();
    alarm->event(2);
    manager.poll();
    manager.poll();
    alarm->event(1);
    manager.poll();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind(vq_polling_alarm_manager::kActivePrefix, 0), 0u);
    EXPECT_NE(lines[0].find("count=2"), std::string::npos);
}

TEST(PollingAlarmManager, UnregisteringForgetsTheAlarmAndAcceptsUnknownOnes) {
    std::vector<std::string> lines;
    vq_polling_alarm_manager manager(seconds(3600), [&](const std::string& line) { lines.push_back(line); });
    const auto alarm = makeCounter(seconds(5));
    const auto stranger = makeCounter(seconds(5));
    manager.reg_alarm(alarm);
    manager.unreg_alarm(stranger);
    EXPECT_EQ(manager.alarm_count(), 1u);
    manager.unreg_alarm(alarm);
    manager.unreg_alarm(alarm);
    EXPECT_EQ(manager.alarm_count(), 0u);
    EXPECT_TRUE(manager.alarms().empty());
    alarm->event(1);
    manager.poll();
    EXPECT_TRUE(lines.empty());
}

TEST(PollingAlarmManager, WatchdogActivationIsReported) {
    line_collector lines;
    vq_polling_alarm_manager manager(milliseconds(10), lines.sink());
    const auto watchdog = std::make_shared<vq_alarm_event>(seconds(0), eAlarmASIInputNoInputData, vq_error_alarm,
                                                           "cam1", "No input data ", 0, 0);
    manager.reg_alarm(watchdog);
    const auto seen = lines.wait_for(1);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].rfind(vq_polling_alarm_manager::kActivePrefix, 0), 0u);
    EXPECT_NE(seen[0].find("description=No input data , count=1"), std::string::npos);
}
