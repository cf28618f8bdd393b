#include <gtest/gtest.h>

#include "mpegcore/VQStringUtils.h"

using VQSDK::number_to_string;
using VQSDK::toString;

namespace {
constexpr int64_t kMs = 1000000;
constexpr int64_t kSec = 1000 * kMs;
constexpr int64_t kHour = 3600 * kSec;
}  // namespace

TEST(TextHelpers, NumberIsPaddedButNeverCut) {
    EXPECT_EQ(number_to_string(3, 7), "007");
    EXPECT_EQ(number_to_string(2, 12), "12");
    EXPECT_EQ(number_to_string(2, 1234), "1234");
    EXPECT_EQ(number_to_string(0, 0), "0");
}

TEST(TextHelpers, UptimeOfOneHourTwoMinutesThreeSeconds) {
    EXPECT_EQ(toString("hhh:mm:ss.ccc", kHour + 2 * 60 * kSec + 3 * kSec + 4 * kMs), "001:02:03.004");
}

TEST(TextHelpers, ThousandHoursAreNotCut) { EXPECT_EQ(toString("hhh:mm:ss.ccc", 1000 * kHour), "1000:00:00.000"); }

TEST(TextHelpers, NegativeDurationGetsAMinus) {
    EXPECT_EQ(toString("hhh:mm:ss.ccc", -(61 * kSec + 5 * kMs)), "-000:01:01.005");
}

TEST(TextHelpers, TwoDigitHoursAndMilliseconds) {
    EXPECT_EQ(toString("hh:mm:ss.cc", 5 * kHour + 7 * kMs), "05:00:00.07");
    // "cc" still shows milliseconds, not hundredths.
    EXPECT_EQ(toString("ss.cc", 999 * kMs), "00.999");
}

TEST(TextHelpers, OnlyTheFirstOccurrenceIsReplaced) { EXPECT_EQ(toString("ss ss", 9 * kSec), "09 ss"); }

TEST(TextHelpers, WallClockInUtc) {
    // 2026-11-15 19:40:02 UTC
    EXPECT_EQ(toString("dd.MM.yyyy hh:mm:ss", time_t(1794771602), true), "15.11.2026 19:40:02");
    EXPECT_EQ(toString("dd.MM.yyyy hh:mm:ss", time_t(0), true), "01.01.1970 00:00:00");
}
