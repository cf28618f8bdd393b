#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "vq_asi_capture/vq_asi_statistics.h"

namespace {

using items_t = std::vector<std::pair<std::string, std::string>>;

std::string item(const vq_asi_statistics& statistics, const std::string& name) {
    for (const auto& entry : statistics.get_items()) {
        if (entry.first == name)
            return entry.second;
    }
    ADD_FAILURE() << "no item " << name;
    return std::string();
}

// The items of an object with no counts, with the given system time and last error.
items_t untouchedItems(const std::string& systemTime, const std::string& lastError) {
    return {
        {"System time", systemTime},
        {"Signal state", "Ok"},
        {"No data/link/lock/range/unknown", "0/0/0/0/0"},
        {"Bit rate [bit/sec]", "0"},
        {"Data counter", "0"},
        {"Raw bit rate [bit/sec]", "0"},
        {"Raw data counter", "0"},
        {"Bad bytes", "0"},
        {"Asi capture frames", "0"},
        {"Asi dropped frames", "0"},
        {"Asi fake frames", "0"},
        {"Asi map delay [ms]", "18446744073709551615/0/0"},
        {"Asi push delay [ms]", "18446744073709551615/0/0"},
        {"Asi delay between frames [ms]", "18446744073709551615/0/0"},
        {"Asi last error", lastError},
    };
}

}  // namespace

TEST(AsiStatistics, FreshObjectShowsFifteenItemsInOrder) {
    vq_asi_statistics statistics;
    EXPECT_EQ(statistics.get_items(), untouchedItems("000:00:00.000", ""));
}

TEST(AsiStatistics, ItemsShowTheUpdatedFields) {
    vq_asi_statistics statistics;
    vq_video_statistics& asi = statistics.asi();
    statistics.set_system_time(((1ULL * 3600 + 2 * 60 + 3) * 1000 + 4) * 1000000ULL);
    asi.set_signal_state(vq_no_lock);
    asi.set_data_count(1880);
    asi.set_data_count(188);
    asi.set_raw_data_count(4096);
    asi.set_bad_bytes(5);
    asi.set_bad_bytes(17);  // a copy of the running total, not a sum
    asi.nPushIndexFrame += 3;
    asi.set_seq_index(7);
    asi.set_seq_index(9);
    asi.m_map_delay.set_value(4);
    asi.m_push_delay.set_value(2);
    asi.m_push_delay.set_value(3);
    asi.m_push_delay.set_value(11);
    asi.m_delay_between_frame.set_value(20);
    asi.set_error("No free buffers in the buffer pool");

    EXPECT_EQ(item(statistics, "System time"), "001:02:03.004");
    EXPECT_EQ(item(statistics, "Signal state"), "No lock");
    EXPECT_EQ(item(statistics, "No data/link/lock/range/unknown"), "0/0/1/0/0");
    EXPECT_EQ(item(statistics, "Data counter"), "2068");
    EXPECT_EQ(item(statistics, "Raw data counter"), "4096");
    EXPECT_EQ(item(statistics, "Bad bytes"), "17");
    EXPECT_EQ(item(statistics, "Asi capture frames"), "3");
    EXPECT_EQ(item(statistics, "Asi dropped frames"), "1");
    EXPECT_EQ(item(statistics, "Asi fake frames"), "0");
    EXPECT_EQ(item(statistics, "Asi map delay [ms]"), "4/4/4");
    EXPECT_EQ(item(statistics, "Asi push delay [ms]"), "2/5/11");
    EXPECT_EQ(item(statistics, "Asi delay between frames [ms]"), "20/20/20");
    EXPECT_EQ(item(statistics, "Asi last error"), "No free buffers in the buffer pool");
}

TEST(AsiStatistics, SystemTimeBeyondThreeDigitHoursIsNotCut) {
    vq_asi_statistics statistics;
    statistics.set_system_time(1000ULL * 3600 * 1000000000ULL);
    EXPECT_EQ(item(statistics, "System time"), "1000:00:00.000");
}

TEST(AsiStatistics, SignalStateTexts) {
    vq_asi_statistics statistics;
    const std::vector<std::pair<vq_signal_state, std::string>> states = {
        {vq_ok, "Ok"},           {vq_no_data, "No data"}, {vq_no_link, "No link"},
        {vq_no_lock, "No lock"}, {vq_range, "No range"},  {vq_unknown, "Unknown"},
    };
    for (const auto& state : states) {
        statistics.asi().set_signal_state(state.first);
        EXPECT_EQ(item(statistics, "Signal state"), state.second);
    }
    EXPECT_EQ(item(statistics, "No data/link/lock/range/unknown"), "1/1/1/1/1");
}

TEST(AsiStatistics, SequenceJumpForwardCountsMissingFrames) {
    vq_video_statistics asi;
    asi.set_seq_index(10);
    asi.set_seq_index(14);
    EXPECT_EQ(asi.nDroppedFrame, 3u);
    EXPECT_EQ(asi.nSeqFromDevice, 14u);
}

TEST(AsiStatistics, SequenceGoingBackwardsCountsItsDistance) {
    vq_video_statistics asi;
    asi.set_seq_index(14);
    asi.set_seq_index(12);
    EXPECT_EQ(asi.nDroppedFrame, 3u);
    asi.set_seq_index(12);  // a repeated number is one off the expected successor
    EXPECT_EQ(asi.nDroppedFrame, 4u);
}

TEST(AsiStatistics, FirstFrameAndFrameAfterZeroCountNothing) {
    vq_video_statistics asi;
    asi.set_seq_index(500);
    EXPECT_EQ(asi.nDroppedFrame, 0u);
    asi.set_seq_index(0);
    EXPECT_EQ(asi.nDroppedFrame, 501u);
    asi.set_seq_index(40);
    EXPECT_EQ(asi.nDroppedFrame, 501u);
    asi.set_seq_index(41);
    EXPECT_EQ(asi.nDroppedFrame, 501u);
}

TEST(AsiStatistics, SignalStateCountsOnEntryOnly) {
    vq_asi_statistics statistics;
    for (int i = 0; i < 50; ++i)
        statistics.asi().set_signal_state(vq_no_link);
    EXPECT_EQ(item(statistics, "No data/link/lock/range/unknown"), "0/1/0/0/0");
    statistics.asi().set_signal_state(vq_ok);
    statistics.asi().set_signal_state(vq_no_link);
    EXPECT_EQ(item(statistics, "No data/link/lock/range/unknown"), "0/2/0/0/0");
}

TEST(AsiStatistics, UnknownSignalValueIsStoredButNotCountedOrNamed) {
    vq_asi_statistics statistics;
    const auto strange = static_cast<vq_signal_state>(7);
    statistics.asi().set_signal_state(strange);
    EXPECT_EQ(statistics.asi().signal_state, strange);
    EXPECT_EQ(item(statistics, "Signal state"), "");
    EXPECT_EQ(item(statistics, "No data/link/lock/range/unknown"), "0/0/0/0/0");
}

TEST(AsiStatistics, ResetZeroesCountersButKeepsSystemTimeAndLastError) {
    vq_asi_statistics statistics;
    vq_video_statistics& asi = statistics.asi();
    statistics.set_system_time(5000000000ULL);
    asi.set_signal_state(vq_no_data);
    asi.set_signal_state(vq_range);
    asi.set_data_count(100);
    asi.set_raw_data_count(200);
    asi.set_bad_bytes(3);
    asi.nPushIndexFrame = 9;
    asi.nFakeFrames = 2;
    asi.nLastFrameTime = 123;
    asi.set_seq_index(1);
    asi.set_seq_index(5);
    asi.m_map_delay.set_value(1);
    asi.m_push_delay.set_value(2);
    asi.m_delay_between_frame.set_value(3);
    asi.set_error("Can't push buffer, err = -2");

    statistics.reset();

    EXPECT_EQ(statistics.get_items(), untouchedItems("000:00:05.000", "Can't push buffer, err = -2"));
    EXPECT_EQ(asi.nSeqFromDevice, 0u);
    EXPECT_EQ(asi.nLastFrameTime, 0u);
    // The first frame after a reset counts no drop.
    asi.set_seq_index(77);
    EXPECT_EQ(asi.nDroppedFrame, 0u);
}

TEST(MinMaxEvr, UntouchedMinimumIsShownAsItIs) {
    vq_min_max_evr<unsigned long> values;
    EXPECT_EQ(values.to_string(), "18446744073709551615/0/0");
    values.set_value(7);
    EXPECT_EQ(values.to_string(), "7/7/7");
    values.reset();
    EXPECT_EQ(values.to_string(), "18446744073709551615/0/0");
}

TEST(MinMaxEvr, AverageIsIntegerDivisionOverTheWindow) {
    vq_min_max_evr<unsigned long> values;
    values.set_value(2);
    values.set_value(3);
    values.set_value(11);
    EXPECT_EQ(values.min(), 2u);
    EXPECT_EQ(values.avr(), 5u);  // 16 / 3
    EXPECT_EQ(values.max(), 11u);
}

TEST(MinMaxEvr, FiveHundredFirstValuePushesTheFirstOutOfTheAverageOnly) {
    vq_min_max_evr<unsigned long> values;
    values.set_value(1000);
    for (int i = 0; i < 499; ++i)
        values.set_value(1);
    EXPECT_EQ(values.avr(), 2u);  // (1000 + 499) / 500
    values.set_value(1);
    EXPECT_EQ(values.to_string(), "1/1/1000");
}

TEST(MinMaxEvr, ResetKeepsTheWindowLength) {
    vq_min_max_evr<unsigned long> values;
    for (int i = 0; i < 700; ++i)
        values.set_value(9);
    values.reset();
    values.set_value(3000);
    for (int i = 0; i < 499; ++i)
        values.set_value(0);
    EXPECT_EQ(values.to_string(), "0/6/3000");
    values.set_value(0);
    EXPECT_EQ(values.to_string(), "0/0/3000");
}
