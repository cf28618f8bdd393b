#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "vq_asi_capture/vq_asi_statistics.h"

// The capture thread updates the statistics while application threads read them.
TEST(AsiStatisticsConcurrency, ReadersSeeConsistentTextsWhileTheCaptureThreadWrites) {
    vq_asi_statistics statistics;
    std::atomic<bool> done{false};
    constexpr uint64_t kFrames = 20000;

    std::thread writer([&] {
        vq_video_statistics& asi = statistics.asi();
        for (uint64_t frame = 1; frame <= kFrames; ++frame) {
            statistics.set_system_time(frame * 20000000ULL);
            asi.set_signal_state(frame % 1000 == 0 ? vq_no_lock : vq_ok);
            asi.m_map_delay.set_value(frame % 7);
            asi.set_raw_data_count(1316);
            asi.m_delay_between_frame.set_value(20);
            asi.set_data_count(1316);
            asi.set_bad_bytes(frame);
            ++asi.nPushIndexFrame;
            asi.nLastFrameTime = frame;
            asi.set_seq_index(frame);
            asi.m_push_delay.set_value(frame % 3);
            if (frame % 5000 == 0)
                asi.set_error("Can't push buffer, err = " + std::to_string(frame));
        }
        done = true;
    });

    auto reader = [&] {
        uint64_t lastCount = 0;
        while (!done) {
            const auto items = statistics.get_items();
            ASSERT_EQ(items.size(), 15u);
            const uint64_t count = std::stoull(items[4].second);
            EXPECT_GE(count, lastCount);
            EXPECT_EQ(count % 1316, 0u);
            lastCount = count;
        }
    };
    std::thread reader1(reader);
    std::thread reader2(reader);
    writer.join();
    reader1.join();
    reader2.join();

    const vq_video_statistics& asi = statistics.asi();
    EXPECT_EQ(asi.get_data_counter(), kFrames * 1316);
    EXPECT_EQ(asi.get_raw_data_count(), kFrames * 1316);
    EXPECT_EQ(asi.nPushIndexFrame, kFrames);
    EXPECT_EQ(asi.nDroppedFrame, 0u);
    EXPECT_EQ(asi.nSignalNoLock, kFrames / 1000);
    uint64_t windowSum = 0;  // the average covers the last 500 frames
    for (uint64_t frame = kFrames - 499; frame <= kFrames; ++frame)
        windowSum += frame % 7;
    EXPECT_EQ(asi.m_map_delay.to_string(), "0/" + std::to_string(windowSum / 500) + "/6");
    EXPECT_EQ(asi.get_errors(), "Can't push buffer, err = 20000");
}
