#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/recording_alarm_manager.h"
#include "vq_asi_capture/vq_alarms_dispatcher.h"
#include "vq_polling_alarm_manager.h"

// The capture thread fires events while managers poll the alarms and the
// application swaps managers; run under ThreadSanitizer this must stay silent.
TEST(AlarmsStress, EventsPollingAndManagerChangesRunTogether) {
    constexpr uint16_t kPids = 8192;
    const auto runFor = std::chrono::seconds(2);

    vq_test::recording_alarm_manager first;
    vq_test::recording_alarm_manager second;
    std::atomic<uint64_t> reportedLines{0};
    vq_polling_alarm_manager polling(std::chrono::milliseconds(5), [&](const std::string&) { ++reportedLines; });

    vq_alarms_dispatcher dispatcher;
    dispatcher.set_source_name("stress");
    dispatcher.set_alarm_manager(&first);
    dispatcher.start();

    std::atomic<bool> stop{false};
    std::atomic<uint64_t> ccEvents{0};

    std::thread capture([&] {
        uint64_t fired = 0;
        while (!stop) {
            for (uint32_t pid = 0; pid < kPids && !stop; ++pid) {
                dispatcher.cc_event(static_cast<uint16_t>(pid));
                ++fired;
                dispatcher.input_data_event();
                if (pid % 64 == 0) {
                    dispatcher.sync_lost_event();
                    dispatcher.raw_input_data_event();
                }
            }
        }
        ccEvents = fired;
    });

    auto poller = [&](vq_test::recording_alarm_manager& source) {
        uint64_t rounds = 0;
        while (!stop) {
            for (const auto& alarm : source.held()) {
                alarm->check();
                const vq_alarm_data data = alarm->get_data();
                EXPECT_EQ(data.source, "stress");
                EXPECT_FALSE(alarm->get_log_message().empty());
                EXPECT_EQ(alarm->hash(), data.hash);
                alarm->active();
            }
            ++rounds;
        }
        EXPECT_GT(rounds, 0u);
    };
    std::thread poller1(poller, std::ref(first));
    std::thread poller2(poller, std::ref(second));

    std::thread application([&] {
        vq_i_alarm_manager* const managers[] = {&first, nullptr, &second, &polling, nullptr};
        size_t next = 0;
        while (!stop) {
            dispatcher.set_alarm_manager(managers[next]);
            next = (next + 1) % 5;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });

    std::this_thread::sleep_for(runFor);
    stop = true;
    capture.join();
    poller1.join();
    poller2.join();
    application.join();

    // stop() hands every per-PID alarm to the current manager once: count them there.
    vq_test::recording_alarm_manager last;
    dispatcher.set_alarm_manager(&last);
    dispatcher.stop();
    uint64_t counted = 0;
    size_t ccAlarms = 0;
    for (const auto& call : last.calls()) {
        const vq_alarm_data data = call.alarm->get_data();
        if (data.code == eAlarmRemuxerInputCC) {
            ++ccAlarms;
            counted += data.count;
        }
    }
    EXPECT_EQ(counted, ccEvents.load());
    EXPECT_EQ(ccAlarms, ccEvents >= kPids ? size_t(kPids) : size_t(ccEvents));
    std::cout << "cc events: " << ccEvents << ", manager lines: " << reportedLines << "\n";
}

// The application renames the source while the capture thread raises per-PID
// alarms: every alarm carries one of the names whole (and ThreadSanitizer
// stays silent).
TEST(AlarmsStress, SourceNameChangesWhileEventsFire) {
    vq_test::recording_alarm_manager manager;
    vq_alarms_dispatcher dispatcher;
    dispatcher.set_source_name("first");
    dispatcher.set_alarm_manager(&manager);
    dispatcher.start();

    std::atomic<bool> stop{false};
    std::thread capture([&] {
        for (uint32_t round = 0; !stop; ++round)
            for (uint16_t pid = 0; pid < 2000 && !stop; ++pid) {
                dispatcher.cc_event(pid);
                dispatcher.input_data_event();
            }
    });
    std::thread application([&] {
        const std::string names[] = {"second", "a much longer third source name", "first"};
        for (size_t i = 0; !stop; ++i) {
            dispatcher.set_source_name(names[i % 3]);
            EXPECT_FALSE(dispatcher.get_source_name().empty());
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    stop = true;
    capture.join();
    application.join();

    size_t ccAlarms = 0;
    for (const auto& alarm : manager.held()) {
        const vq_alarm_data data = alarm->get_data();
        if (data.code != eAlarmRemuxerInputCC)
            continue;
        ++ccAlarms;
        EXPECT_TRUE(data.source == "first" || data.source == "second" ||
                    data.source == "a much longer third source name")
            << data.source;
    }
    EXPECT_EQ(ccAlarms, 2000u);
    dispatcher.stop();
}
