#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "support/recording_alarm_manager.h"
#include "vq_asi_capture/vq_alarms_dispatcher.h"

// The input alarms have a one-second time-out, so they turn active two seconds
// after their last feed.
TEST(AlarmsDispatcherTiming, StarvedInputAlarmsRiseAndRestartResetsThem) {
    vq_test::recording_alarm_manager manager;
    vq_alarms_dispatcher dispatcher;
    dispatcher.set_source_name("cam1");
    dispatcher.set_alarm_manager(&manager);
    dispatcher.start();
    const auto inputs = manager.held();
    ASSERT_EQ(inputs.size(), 3u);

    // Only the sync-lost watchdog is fed.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2050);
    while (std::chrono::steady_clock::now() < until) {
        dispatcher.sync_lost_event();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (const auto& alarm : inputs) {
        const bool raised = alarm->check();
        const vq_alarm_data data = alarm->get_data();
        if (data.code == eAlarmASIInputSyncLost) {
            EXPECT_FALSE(raised);
            EXPECT_FALSE(data.active);
        } else {
            EXPECT_TRUE(raised) << data.description;
            EXPECT_TRUE(data.active) << data.description;
            EXPECT_EQ(data.count, 1u) << data.description;
        }
    }

    // Data arrives again: the feeds end the alarms at once.
    dispatcher.raw_input_data_event();
    dispatcher.input_data_event();
    for (const auto& alarm : inputs)
        EXPECT_FALSE(alarm->active());

    dispatcher.stop();
    manager.clear();
    dispatcher.start();
    const auto again = manager.held();
    EXPECT_EQ(again, inputs);
    for (const auto& alarm : again) {
        EXPECT_FALSE(alarm->check());
        EXPECT_EQ(alarm->get_data().count, 0u);
    }
}
