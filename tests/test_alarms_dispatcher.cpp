#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/recording_alarm_manager.h"
#include "vq_asi_capture/vq_alarm_counter.h"
#include "vq_asi_capture/vq_alarm_event.h"
#include "vq_asi_capture/vq_alarms_dispatcher.h"

namespace {

using vq_test::recording_alarm_manager;
using op = recording_alarm_manager::op;
using alarm_ptr = std::shared_ptr<vq_i_alarm_event>;
using alarm_list = std::vector<alarm_ptr>;

// The alarms of the calls of one kind, in call order.
alarm_list alarmsOf(const std::vector<recording_alarm_manager::call>& calls, op what) {
    alarm_list alarms;
    for (const auto& call : calls) {
        if (call.what == what)
            alarms.push_back(call.alarm);
    }
    return alarms;
}

std::vector<std::string> describe(const std::vector<recording_alarm_manager::call>& calls) {
    std::vector<std::string> lines;
    for (const auto& call : calls)
        lines.push_back((call.what == op::reg ? "reg " : "unreg ") + call.alarm->get_data().description + "/" +
                        call.alarm->get_data().source);
    return lines;
}

alarm_list sortedByHash(alarm_list alarms) {
    std::sort(alarms.begin(), alarms.end(),
              [](const alarm_ptr& a, const alarm_ptr& b) { return a->hash() < b->hash(); });
    return alarms;
}

alarm_list concat(const alarm_list& first, const alarm_list& second) {
    alarm_list all = first;
    all.insert(all.end(), second.begin(), second.end());
    return all;
}

std::vector<std::string> descriptions(const alarm_list& alarms) {
    std::vector<std::string> texts;
    for (const auto& alarm : alarms)
        texts.push_back(alarm->get_data().description);
    return texts;
}

class AlarmsDispatcher : public ::testing::Test {
protected:
    // Starts under source "cam1" with the manager attached first, as the element
    // does when the properties are set before PLAYING; returns the three input alarms.
    alarm_list startWithManager() {
        dispatcher.set_source_name("cam1");
        dispatcher.set_alarm_manager(&manager);
        dispatcher.start();
        const alarm_list inputs = alarmsOf(manager.calls(), op::reg);
        manager.clear();
        return inputs;
    }

    recording_alarm_manager manager;
    vq_alarms_dispatcher dispatcher;
};

}  // namespace

TEST_F(AlarmsDispatcher, SourceNameDefaultsToEmpty) {
    EXPECT_EQ(dispatcher.get_source_name(), "");
    dispatcher.set_source_name("cam7");
    EXPECT_EQ(dispatcher.get_source_name(), "cam7");
}

TEST_F(AlarmsDispatcher, InputAlarmsCarryTheirCodesTextsAndDurations) {
    const alarm_list inputs = startWithManager();
    ASSERT_EQ(inputs.size(), 3u);
    const std::vector<std::string> expectedTexts = {"Sync lost ", "No raw input data ", "No input data "};
    const std::vector<VQAlarmCode> expectedCodes = {eAlarmASIInputSyncLost, eAlarmASIInputRawNoInputData,
                                                    eAlarmASIInputNoInputData};
    for (size_t i = 0; i < inputs.size(); ++i) {
        const vq_alarm_data data = inputs[i]->get_data();
        EXPECT_EQ(data.description, expectedTexts[i]);
        EXPECT_EQ(data.code, expectedCodes[i]);
        EXPECT_EQ(data.level, vq_error_alarm);
        EXPECT_EQ(data.source, "cam1");
        EXPECT_EQ(data.stream_type, 0u);
        EXPECT_EQ(data.stream_pid, 0u);
        EXPECT_FALSE(data.active);
        const auto watchdog = std::dynamic_pointer_cast<vq_alarm_event>(inputs[i]);
        ASSERT_TRUE(watchdog) << "input alarms are watchdogs";
        EXPECT_EQ(watchdog->duration(), std::chrono::seconds(1));
    }
}

TEST_F(AlarmsDispatcher, PerPidAlarmsKeepTheDeliberateCrossingOfTeiAndScrambling) {
    startWithManager();
    dispatcher.cc_event(256);
    dispatcher.tei_event(256);
    dispatcher.scrambled_event(256);
    const alarm_list created = alarmsOf(manager.calls(), op::reg);
    ASSERT_EQ(created.size(), 3u);
    const std::vector<std::string> expectedTexts = {"CC error on PID 256", "Packet is scrambled on PID 256",
                                                    "TEI error on PID 256"};
    const std::vector<VQAlarmCode> expectedCodes = {eAlarmRemuxerInputCC, eAlarmRemuxerInputScrambler,
                                                    eAlarmRemuxerInputTEI};
    for (size_t i = 0; i < created.size(); ++i) {
        const vq_alarm_data data = created[i]->get_data();
        EXPECT_EQ(data.description, expectedTexts[i]);
        EXPECT_EQ(data.code, expectedCodes[i]);
        EXPECT_EQ(data.level, vq_error_alarm);
        EXPECT_EQ(data.source, "cam1");
        EXPECT_EQ(data.stream_type, 0u);
        EXPECT_EQ(data.stream_pid, 256u);
        EXPECT_TRUE(data.active);
        EXPECT_EQ(data.count, 1u);
        const auto counter = std::dynamic_pointer_cast<vq_alarm_counter>(created[i]);
        ASSERT_TRUE(counter) << "per-PID alarms are counters";
        EXPECT_EQ(counter->duration(), std::chrono::seconds(5));
    }
}

TEST_F(AlarmsDispatcher, RepeatedErrorsOnOnePidCountOnOneAlarm) {
    startWithManager();
    dispatcher.cc_event(100);
    dispatcher.cc_event(100);
    dispatcher.cc_event(101);
    const alarm_list created = alarmsOf(manager.calls(), op::reg);
    ASSERT_EQ(created.size(), 2u);
    EXPECT_EQ(created[0]->get_data().description, "CC error on PID 100");
    EXPECT_EQ(created[0]->get_data().count, 2u);
    EXPECT_EQ(created[1]->get_data().description, "CC error on PID 101");
    EXPECT_EQ(created[1]->get_data().count, 1u);
}

TEST_F(AlarmsDispatcher, WithoutSourceNameOnlyPerPidAlarmsExist) {
    dispatcher.set_alarm_manager(&manager);
    dispatcher.start();
    dispatcher.sync_lost_event();
    dispatcher.raw_input_data_event();
    dispatcher.input_data_event();
    EXPECT_TRUE(manager.calls().empty());

    dispatcher.scrambled_event(17);
    const auto calls = manager.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].what, op::reg);
    EXPECT_EQ(calls[0].alarm->get_data().description, "TEI error on PID 17");
    EXPECT_EQ(calls[0].alarm->get_data().source, "");

    manager.clear();
    dispatcher.stop();
    EXPECT_EQ(describe(manager.calls()), std::vector<std::string>{"unreg TEI error on PID 17/"});
}

TEST_F(AlarmsDispatcher, StopUnregistersInputAlarmsTwiceAndEveryPidAlarmOnce) {
    const alarm_list inputs = startWithManager();
    dispatcher.scrambled_event(300);
    dispatcher.cc_event(200);
    dispatcher.tei_event(300);
    dispatcher.cc_event(100);
    const alarm_list pidAlarms = alarmsOf(manager.calls(), op::reg);  // TEI300, CC200, SCR300, CC100
    ASSERT_EQ(pidAlarms.size(), 4u);
    manager.clear();

    dispatcher.stop();

    const auto calls = manager.calls();
    EXPECT_TRUE(alarmsOf(calls, op::reg).empty());
    // Inputs in member order, then the PID maps (continuity, scrambling, TEI; by PID),
    // then the registry in hash order.
    const alarm_list expected =
        concat(concat(inputs, {pidAlarms[3], pidAlarms[1], pidAlarms[2], pidAlarms[0]}), sortedByHash(inputs));
    EXPECT_EQ(descriptions(alarmsOf(calls, op::unreg)), descriptions(expected));
    EXPECT_EQ(alarmsOf(calls, op::unreg), expected);
    EXPECT_TRUE(manager.held().empty());
}

TEST_F(AlarmsDispatcher, StopResetsInputAlarmsAndDropsPidAlarms) {
    const alarm_list inputs = startWithManager();
    dispatcher.cc_event(100);
    const alarm_ptr cc = alarmsOf(manager.calls(), op::reg).at(0);
    dispatcher.stop();
    for (const auto& alarm : inputs) {
        EXPECT_FALSE(alarm->check());
        EXPECT_EQ(alarm->get_data().count, 0u);
    }
    // The old PID alarm is no longer fed; a new error makes a new alarm.
    manager.clear();
    dispatcher.cc_event(100);
    const alarm_list created = alarmsOf(manager.calls(), op::reg);
    ASSERT_EQ(created.size(), 1u);
    EXPECT_NE(created[0], cc);
    EXPECT_EQ(cc->get_data().count, 1u);
}

TEST_F(AlarmsDispatcher, RestartReusesTheSameInputAlarms) {
    const alarm_list inputs = startWithManager();
    dispatcher.stop();
    manager.clear();
    dispatcher.start();
    const auto calls = manager.calls();
    EXPECT_TRUE(alarmsOf(calls, op::unreg).empty());
    EXPECT_EQ(alarmsOf(calls, op::reg), sortedByHash(inputs));
}

TEST_F(AlarmsDispatcher, SourceChangeBetweenRunsCreatesNewInputAlarms) {
    const alarm_list inputs = startWithManager();
    dispatcher.stop();
    manager.clear();
    dispatcher.set_source_name("cam2");
    dispatcher.start();
    const auto calls = manager.calls();
    // The old ones left the manager during stop(), so nothing is unregistered now;
    // the new ones are handed over with the registry, in hash order.
    EXPECT_TRUE(alarmsOf(calls, op::unreg).empty());
    const alarm_list created = alarmsOf(calls, op::reg);
    ASSERT_EQ(created.size(), 3u);
    EXPECT_EQ(created, sortedByHash(created));
    alarm_list inMemberOrder;
    for (const auto& old : inputs) {
        const auto found = std::find_if(created.begin(), created.end(), [&](const alarm_ptr& alarm) {
            return alarm->get_data().description == old->get_data().description;
        });
        ASSERT_NE(found, created.end()) << old->get_data().description;
        EXPECT_EQ((*found)->get_data().source, "cam2");
        EXPECT_NE((*found)->hash(), old->hash());
        EXPECT_NE(*found, old);
        inMemberOrder.push_back(*found);
    }
    // The old alarms left the registry: stopping now unregisters only the new ones.
    manager.clear();
    dispatcher.stop();
    EXPECT_EQ(alarmsOf(manager.calls(), op::unreg), concat(inMemberOrder, created));
}

TEST_F(AlarmsDispatcher, SourceChangeWhileRegisteredRemovesTheOldAlarmsFromTheManager) {
    const alarm_list inputs = startWithManager();
    dispatcher.stop();
    // Re-attaching after stop() hands the (reset) registry to the manager again.
    recording_alarm_manager second;
    dispatcher.set_alarm_manager(&second);
    EXPECT_EQ(alarmsOf(second.calls(), op::reg), sortedByHash(inputs));
    second.clear();

    dispatcher.set_source_name("cam2");
    dispatcher.start();
    EXPECT_EQ(describe(second.calls()),
              (std::vector<std::string>{"unreg Sync lost /cam1", "reg Sync lost /cam2", "unreg No raw input data /cam1",
                                        "reg No raw input data /cam2", "unreg No input data /cam1",
                                        "reg No input data /cam2"}));
    EXPECT_EQ(second.held().size(), 3u);
}

TEST_F(AlarmsDispatcher, ManagerAttachedAfterStartReceivesNothingUntilTheFlagIsCleared) {
    dispatcher.set_source_name("cam1");
    dispatcher.start();
    dispatcher.set_alarm_manager(&manager);
    EXPECT_TRUE(manager.calls().empty());

    // Per-PID alarms go to whichever manager is present when they are created.
    dispatcher.cc_event(5);
    ASSERT_EQ(manager.calls().size(), 1u);
    manager.clear();

    // stop() unregisters what the manager never received, then clears the flag.
    dispatcher.stop();
    const alarm_list unregistered = alarmsOf(manager.calls(), op::unreg);
    ASSERT_EQ(unregistered.size(), 7u);
    EXPECT_TRUE(alarmsOf(manager.calls(), op::reg).empty());
    const alarm_list inputs(unregistered.begin(), unregistered.begin() + 3);
    EXPECT_EQ(descriptions(inputs), (std::vector<std::string>{"Sync lost ", "No raw input data ", "No input data "}));
    EXPECT_EQ(unregistered[3]->get_data().description, "CC error on PID 5");
    EXPECT_EQ(alarm_list(unregistered.begin() + 4, unregistered.end()), sortedByHash(inputs));

    manager.clear();
    dispatcher.start();
    EXPECT_EQ(alarmsOf(manager.calls(), op::reg), sortedByHash(inputs));
}

TEST_F(AlarmsDispatcher, DetachingClearsTheFlagSoTheNextManagerIsServed) {
    dispatcher.set_source_name("cam1");
    dispatcher.start();
    dispatcher.set_alarm_manager(&manager);
    dispatcher.set_alarm_manager(nullptr);
    const alarm_list inputs = alarmsOf(manager.calls(), op::unreg);
    ASSERT_EQ(inputs.size(), 3u);
    EXPECT_EQ(inputs, sortedByHash(inputs));
    EXPECT_TRUE(alarmsOf(manager.calls(), op::reg).empty());

    recording_alarm_manager second;
    dispatcher.set_alarm_manager(&second);
    EXPECT_EQ(alarmsOf(second.calls(), op::reg), inputs);
}

TEST_F(AlarmsDispatcher, SwappingManagersMovesTheRegistry) {
    const alarm_list inputs = startWithManager();
    recording_alarm_manager second;
    dispatcher.set_alarm_manager(&second);
    EXPECT_EQ(alarmsOf(manager.calls(), op::unreg), sortedByHash(inputs));
    EXPECT_EQ(alarmsOf(second.calls(), op::reg), sortedByHash(inputs));
    EXPECT_TRUE(manager.held().empty());

    // Setting the same manager again changes nothing.
    second.clear();
    dispatcher.set_alarm_manager(&second);
    EXPECT_TRUE(second.calls().empty());
}

TEST_F(AlarmsDispatcher, WithoutManagerEverythingStillWorks) {
    dispatcher.set_source_name("cam1");
    dispatcher.start();
    dispatcher.cc_event(1);
    dispatcher.tei_event(1);
    dispatcher.scrambled_event(1);
    dispatcher.input_data_event();
    dispatcher.stop();
    dispatcher.start();
    dispatcher.set_alarm_manager(&manager);
    EXPECT_TRUE(manager.calls().empty());
}

TEST_F(AlarmsDispatcher, DestructionDoesNotCallTheManager) {
    {
        vq_alarms_dispatcher scoped;
        scoped.set_source_name("cam1");
        scoped.set_alarm_manager(&manager);
        scoped.start();
        scoped.cc_event(9);
        manager.clear();
    }
    EXPECT_TRUE(manager.calls().empty());
    // The manager's references keep the alarms alive.
    for (const auto& alarm : manager.held())
        EXPECT_FALSE(alarm->get_log_message().empty());
    EXPECT_EQ(manager.held().size(), 4u);
}
