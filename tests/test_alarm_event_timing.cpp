#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <thread>

#include "mpegcore/VQStringUtils.h"
#include "vq_asi_capture/vq_alarm_counter.h"
#include "vq_asi_capture/vq_alarm_event.h"

// Alarm time-outs are whole seconds compared strictly; a duration of 0 turns
// over after one second, which keeps most of these sleeps near one second.
namespace {

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kMargin{50};

std::shared_ptr<vq_alarm_event> makeWatchdog(seconds duration) {
    return std::make_shared<vq_alarm_event>(duration, eAlarmASIInputNoInputData, vq_error_alarm, "cam1",
                                            "No input data ", 0, 0);
}

std::shared_ptr<vq_alarm_counter> makeCounter(seconds duration) {
    return std::make_shared<vq_alarm_counter>(duration, eAlarmRemuxerInputCC, vq_error_alarm, "cam1",
                                              "CC error on PID 100", 0, 100);
}

}  // namespace

TEST(AlarmWatchdogTiming, OneSecondDurationTurnsActiveOnlyTwoSecondsAfterTheLastEvent) {
    const auto before = clock_type::now();
    const auto alarm = makeWatchdog(seconds(1));
    const auto after = clock_type::now();
    std::this_thread::sleep_until(after + milliseconds(1500));
    const bool early = alarm->check();
    if (clock_type::now() - before < seconds(2)) {
        EXPECT_FALSE(early);
        EXPECT_FALSE(alarm->active());
    }
    std::this_thread::sleep_until(after + seconds(2) + kMargin);
    EXPECT_TRUE(alarm->check());
    EXPECT_TRUE(alarm->active());
    EXPECT_EQ(alarm->get_data().count, 1u);
}

TEST(AlarmWatchdogTiming, NeverFedWatchdogBecomesActiveWithCountOne) {
    const auto alarm = makeWatchdog(seconds(0));
    std::this_thread::sleep_for(seconds(1) + kMargin);
    EXPECT_TRUE(alarm->check());
    const vq_alarm_data data = alarm->get_data();
    EXPECT_TRUE(data.active);
    EXPECT_EQ(data.count, 1u);
    EXPECT_FALSE(data.reg_time.empty());
}

TEST(AlarmWatchdogTiming, RepeatedChecksKeepCountAndRegTimeAndAnEventEndsTheAlarm) {
    const auto alarm = makeWatchdog(seconds(0));
    std::this_thread::sleep_for(seconds(1) + kMargin);
    ASSERT_TRUE(alarm->check());
    const std::string firstRegTime = alarm->get_data().reg_time;
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(alarm->check());
    EXPECT_EQ(alarm->get_data().count, 1u);
    EXPECT_EQ(alarm->get_data().reg_time, firstRegTime);

    alarm->event(0);
    EXPECT_FALSE(alarm->active());
    EXPECT_TRUE(alarm->check());  // sticky until reset
    EXPECT_FALSE(alarm->get_data().active);

    std::this_thread::sleep_for(seconds(1) + kMargin);
    EXPECT_TRUE(alarm->check());
    const vq_alarm_data data = alarm->get_data();
    EXPECT_TRUE(data.active);
    EXPECT_EQ(data.count, 2u);
    EXPECT_FALSE(data.reg_time.empty());
}

TEST(AlarmWatchdogTiming, ResetReturnsAnActiveWatchdogToQuiet) {
    const auto alarm = makeWatchdog(seconds(0));
    std::this_thread::sleep_for(seconds(1) + kMargin);
    ASSERT_TRUE(alarm->check());
    alarm->reset();
    EXPECT_FALSE(alarm->active());
    EXPECT_FALSE(alarm->is_alarm());
    EXPECT_EQ(alarm->get_data().count, 0u);
    EXPECT_FALSE(alarm->check());
}

TEST(AlarmCounterTiming, ClearsAfterTheDurationButCheckStaysTrue) {
    const auto alarm = makeCounter(seconds(0));
    alarm->event(1);
    alarm->event(1);
    alarm->event(1);
    EXPECT_TRUE(alarm->check());
    EXPECT_TRUE(alarm->active());
    std::this_thread::sleep_for(seconds(1) + kMargin);
    EXPECT_TRUE(alarm->check());
    const vq_alarm_data data = alarm->get_data();
    EXPECT_FALSE(data.active);
    EXPECT_EQ(data.count, 3u);

    // A new occurrence re-activates it, counting on.
    alarm->event(1);
    EXPECT_TRUE(alarm->active());
    EXPECT_EQ(alarm->get_data().count, 4u);
}

TEST(AlarmCounterTiming, LaterOccurrencesKeepTheActivationTime) {
    const auto alarm = makeCounter(seconds(5));
    alarm->event(1);
    const std::string regTime = alarm->get_data().reg_time;
    std::this_thread::sleep_for(seconds(1) + kMargin);
    alarm->event(1);
    const vq_alarm_data data = alarm->get_data();
    EXPECT_EQ(data.reg_time, regTime);
    EXPECT_EQ(data.count, 2u);
    // The clock has moved on, so a fresh stamp would have differed.
    EXPECT_NE(VQSDK::toString("dd.MM.yyyy hh:mm:ss", std::time(nullptr), true), regTime);
}
