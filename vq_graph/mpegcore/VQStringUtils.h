#pragma once
// Text helpers for durations, wall-clock times and zero-padded numbers.

#include <cstdint>
#include <ctime>
#include <string>

namespace VQSDK {

// Decimal text of value with "0" in front up to width characters; never cut.
std::string number_to_string(unsigned width, uint64_t value);

// A duration in nanoseconds into a format such as "hhh:mm:ss.ccc". The first
// "hhh" (else "hh"), "mm", "ss" and "ccc" (else "cc", still milliseconds) are
// replaced; a negative duration is prefixed with "-".
std::string toString(const std::string& format, int64_t durationNs);

// A wall-clock time into a format such as "dd.MM.yyyy hh:mm:ss", in UTC when
// utc is true, local time otherwise.
std::string toString(const std::string& format, time_t time, bool utc);

}  // namespace VQSDK
