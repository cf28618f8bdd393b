#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "mpegcore/VQStringUtils.h"
#include "vq_asi_capture/vq_alarm_counter.h"
#include "vq_asi_capture/vq_alarm_event.h"

namespace {

using std::chrono::seconds;

std::shared_ptr<vq_alarm_counter> makeCounter(seconds duration = seconds(5)) {
    return std::make_shared<vq_alarm_counter>(duration, eAlarmRemuxerInputCC, vq_error_alarm, "cam1",
                                              "CC error on PID 100", 0, 100);
}

std::shared_ptr<vq_alarm_event> makeWatchdog(seconds duration = seconds(1)) {
    return std::make_shared<vq_alarm_event>(duration, eAlarmASIInputSyncLost, vq_error_alarm, "cam1", "Sync lost ", 0,
                                            0);
}

std::string utcNow() { return VQSDK::toString("dd.MM.yyyy hh:mm:ss", std::time(nullptr), true); }

// Lets a test put a known activation time into the record.
class fixed_time_counter : public vq_alarm_counter {
public:
    using vq_alarm_counter::vq_alarm_counter;
    void set_reg_time(const std::string& text) { m_data.reg_time = text; }
};

// Counts the events that reach the derived kind.
class counting_watchdog : public vq_alarm_event {
public:
    using vq_alarm_event::vq_alarm_event;
    void event(long n) override {
        ++events;
        lastArgument = n;
        vq_alarm_event::event(n);
    }
    int events = 0;
    long lastArgument = -1;
};

}  // namespace

TEST(AlarmRecord, CodesAndLevelsKeepTheirValues) {
    EXPECT_EQ(eAlarmUnknownCode, 0);
    EXPECT_EQ(eAlarmGraphStateLast, 25);
    EXPECT_EQ(eAlarmRemuxerOutputBuferOverflow, 110);
    EXPECT_EQ(eAlarmRemuxerInputCC, 112);
    EXPECT_EQ(eAlarmRemuxerInputTEI, 113);
    EXPECT_EQ(eAlarmRemuxerInputScrambler, 114);
    EXPECT_EQ(eAlarmRemuxerStreamEmpty, 116);
    EXPECT_EQ(eAlarmRemuxerServiceStateIsGOiCHS, 132);
    EXPECT_EQ(eAlarmCaptureInputDrop, 407);
    EXPECT_EQ(eAlarmASIInputSyncLost, 501);
    EXPECT_EQ(eAlarmASIInputRawNoInputData, 502);
    EXPECT_EQ(eAlarmASIInputNoInputData, 503);
    EXPECT_EQ(eAlarmDeviceErrorOnInit, 551);
    EXPECT_EQ(eAlarmIPOutputLinkDown, 702);
    EXPECT_EQ(eAlarmLastCode, 999);
    EXPECT_EQ(vq_info_alarm, 0);
    EXPECT_EQ(vq_warning_alarm, 1);
    EXPECT_EQ(vq_error_alarm, 2);
    EXPECT_EQ(sizeof(VQAlarmCode), 4u);
    EXPECT_EQ(sizeof(VQAlarmLevel), 4u);
}

TEST(AlarmRecord, NewAlarmCarriesItsConstructionArguments) {
    const auto alarm = makeCounter();
    const vq_alarm_data data = alarm->get_data();
    EXPECT_EQ(data.code, eAlarmRemuxerInputCC);
    EXPECT_EQ(data.level, vq_error_alarm);
    EXPECT_EQ(data.source, "cam1");
    EXPECT_EQ(data.description, "CC error on PID 100");
    EXPECT_EQ(data.stream_type, 0u);
    EXPECT_EQ(data.stream_pid, 100u);
    EXPECT_FALSE(data.active);
    EXPECT_EQ(data.count, 0u);
    EXPECT_EQ(data.reg_time, "");
    EXPECT_EQ(data.last_time, "");
    EXPECT_EQ(data.hash, alarm->hash());
    EXPECT_EQ(alarm->duration(), seconds(5));
    EXPECT_FALSE(alarm->is_alarm());
}

TEST(AlarmHash, IsTheStringHashOfCodeLevelSourceAndDescription) {
    const auto alarm = makeCounter();
    EXPECT_EQ(alarm->hash(), std::to_string(std::hash<std::string>{}("1122cam1CC error on PID 100")));
    // 64-bit MurmurHash2 with seed 0xc70f6907 of that text, worked out independently.
    EXPECT_EQ(alarm->hash(), "1507194821877795224");
}

TEST(AlarmHash, SameIdentityGivesSameHashWhateverTheKindOrDuration) {
    const auto counter = makeCounter(seconds(5));
    const auto watchdog = std::make_shared<vq_alarm_event>(seconds(1), eAlarmRemuxerInputCC, vq_error_alarm, "cam1",
                                                           "CC error on PID 100", 7, 9);
    EXPECT_EQ(counter->hash(), watchdog->hash());
    EXPECT_EQ(makeCounter()->hash(), counter->hash());
    const auto otherSource = std::make_shared<vq_alarm_counter>(seconds(5), eAlarmRemuxerInputCC, vq_error_alarm,
                                                                "cam2", "CC error on PID 100", 0, 100);
    EXPECT_NE(otherSource->hash(), counter->hash());
}

TEST(AlarmLogLine, ReadsAsTheDocumentedExample) {
    const auto alarm = std::make_shared<fixed_time_counter>(seconds(5), eAlarmRemuxerInputCC, vq_error_alarm, "cam1",
                                                            "CC error on PID 100", 0, 100);
    alarm->event(7);
    alarm->set_reg_time("15.11.2026 19:40:02");
    EXPECT_EQ(alarm->get_log_message(),
              "code=112, level=2, reg_time=15.11.2026 19:40:02, source=cam1, "
              "description=CC error on PID 100, count=7");
}

TEST(AlarmLogLine, QuietAlarmHasAnEmptyRegTime) {
    EXPECT_EQ(makeWatchdog()->get_log_message(),
              "code=501, level=2, reg_time=, source=cam1, description=Sync lost , count=0");
}

TEST(AlarmCounter, CountsEveryOccurrenceButStampsOnlyTheActivation) {
    const auto alarm = makeCounter();
    EXPECT_FALSE(alarm->check());
    const std::string before = utcNow();
    alarm->event(1);
    const std::string after = utcNow();
    const std::string regTime = alarm->get_data().reg_time;
    EXPECT_TRUE(regTime == before || regTime == after) << regTime;
    alarm->event(1);
    alarm->event(1);
    EXPECT_TRUE(alarm->check());
    const vq_alarm_data data = alarm->get_data();
    EXPECT_TRUE(data.active);
    EXPECT_TRUE(alarm->active());
    EXPECT_EQ(data.count, 3u);
    EXPECT_EQ(data.reg_time, regTime);
}

TEST(AlarmCounter, RegTimeIsUtc) {
    const auto alarm = makeCounter();
    const time_t before = std::time(nullptr);
    alarm->event(1);
    const time_t after = std::time(nullptr);
    const std::string regTime = alarm->get_data().reg_time;
    EXPECT_TRUE(regTime == VQSDK::toString("dd.MM.yyyy hh:mm:ss", before, true) ||
                regTime == VQSDK::toString("dd.MM.yyyy hh:mm:ss", after, true))
        << regTime;
}

TEST(AlarmCounter, OccurrencesAreTruncatedTo32Bits) {
    const auto alarm = makeCounter();
    alarm->event(static_cast<long>(0x100000002LL));
    EXPECT_EQ(alarm->get_data().count, 2u);
}

TEST(AlarmCounter, AfterResetCheckIsFalseUntilTheNextEvent) {
    const auto alarm = makeCounter();
    alarm->event(4);
    alarm->reset();
    EXPECT_FALSE(alarm->check());
    EXPECT_FALSE(alarm->is_alarm());
    vq_alarm_data data = alarm->get_data();
    EXPECT_FALSE(data.active);
    EXPECT_EQ(data.count, 0u);
    alarm->event(1);
    EXPECT_TRUE(alarm->check());
    data = alarm->get_data();
    EXPECT_TRUE(data.active);
    EXPECT_EQ(data.count, 1u);
}

TEST(AlarmWatchdog, FreshWatchdogIsQuiet) {
    const auto alarm = makeWatchdog();
    EXPECT_FALSE(alarm->check());
    EXPECT_FALSE(alarm->active());
    EXPECT_EQ(alarm->get_data().count, 0u);
    EXPECT_EQ(alarm->duration(), seconds(1));
}

TEST(AlarmWatchdog, ResetRunsTheEventOfTheDerivedKind) {
    const auto alarm = std::make_shared<counting_watchdog>(seconds(1), eAlarmASIInputNoInputData, vq_error_alarm,
                                                           "cam1", "No input data ", 0, 0);
    alarm->reset();
    EXPECT_EQ(alarm->events, 1);
    EXPECT_EQ(alarm->lastArgument, 0);
}
