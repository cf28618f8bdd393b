#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "vq_asi_capture/vq_asi_statistics.h"
#include "vq_asi_capture/vq_data_counter.h"

// A rate is computed at most once a second, when read; these suites sleep just
// over that second.
namespace {

using clock_type = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kJustOverASecond{1050};

uint64_t elapsedMs(clock_type::time_point since) {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - since).count());
}

// Item values by position: 3 "Bit rate [bit/sec]", 4 "Data counter", 5 "Raw bit rate [bit/sec]".
std::string itemValue(const vq_asi_statistics& statistics, size_t index) {
    return statistics.get_items().at(index).second;
}

}  // namespace

TEST(DataCounterRate, NotComputedWithinTheFirstSecond) {
    vq_data_counter counter;
    counter.add_data_count(125000);
    EXPECT_EQ(counter.get_bit_rate(), 0u);
    EXPECT_EQ(counter.get_data_count(), 125000u);
}

TEST(DataCounterRate, AveragesOverTheTimeSinceTheLastComputation) {
    const auto before = clock_type::now();
    vq_data_counter counter;
    counter.add_data_count(125000);  // one megabit
    std::this_thread::sleep_for(kJustOverASecond);
    const uint64_t rate = counter.get_bit_rate();
    const uint64_t upperMs = elapsedMs(before);
    // Computed over more than 1000 ms and at most over the measured span.
    EXPECT_LT(rate, 1000000000u / 1000u);
    EXPECT_GE(rate, 1000000000u / upperMs);
}

TEST(DataCounterRate, ReadingAgainWithinOneSecondReturnsTheSameRates) {
    vq_asi_statistics statistics;
    statistics.asi().set_data_count(50000);
    statistics.asi().set_raw_data_count(60000);
    std::this_thread::sleep_for(kJustOverASecond);
    const std::string rate = itemValue(statistics, 3);
    const std::string rawRate = itemValue(statistics, 5);
    ASSERT_NE(rate, "0");
    ASSERT_NE(rawRate, "0");
    statistics.asi().set_data_count(900000);
    statistics.asi().set_raw_data_count(900000);
    EXPECT_EQ(itemValue(statistics, 3), rate);
    EXPECT_EQ(itemValue(statistics, 5), rawRate);
    EXPECT_EQ(itemValue(statistics, 4), "950000");
}

TEST(DataCounterRate, ResetLeavesTheRateClockRunning) {
    vq_asi_statistics statistics;
    std::this_thread::sleep_for(kJustOverASecond);
    ASSERT_EQ(statistics.asi().get_bit_rate(), 0u);  // computed over no data: starts a new period
    const auto computedAt = clock_type::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    statistics.reset();
    const auto resetAt = clock_type::now();
    statistics.asi().set_data_count(1000);
    std::this_thread::sleep_until(computedAt + kJustOverASecond);
    const uint64_t rate = statistics.asi().get_bit_rate();
    if (clock_type::now() - resetAt <= std::chrono::milliseconds(1000)) {
        // Had reset() restarted the clock, no rate would be due yet.
        EXPECT_GT(rate, 0u);
    }
    EXPECT_LT(rate, 8000u);  // 1000 bytes over more than a second
}
