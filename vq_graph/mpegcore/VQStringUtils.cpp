#include "mpegcore/VQStringUtils.h"

namespace VQSDK {

namespace {

bool replaceFirst(std::string& text, const char* token, const std::string& value) {
    const auto pos = text.find(token);
    if (pos == std::string::npos)
        return false;
    text.replace(pos, std::char_traits<char>::length(token), value);
    return true;
}

}  // namespace

std::string number_to_string(unsigned width, uint64_t value) {
    std::string text = std::to_string(value);
    if (text.size() < width)
        text.insert(0, width - text.size(), '0');
    return text;
}

std::string toString(const std::string& format, int64_t durationNs) {
    constexpr uint64_t kMs = 1000000ULL;
    constexpr uint64_t kSec = 1000 * kMs;
    constexpr uint64_t kMin = 60 * kSec;
    constexpr uint64_t kHour = 60 * kMin;

    // Absolute value computed unsigned so that INT64_MIN does not overflow.
    const uint64_t d = durationNs < 0 ? uint64_t(0) - uint64_t(durationNs) : uint64_t(durationNs);
    const uint64_t hours = d / kHour;
    const uint64_t minutes = (d % kHour) / kMin;
    const uint64_t seconds = (d % kMin) / kSec;
    const uint64_t millis = (d % kSec) / kMs;

    std::string text = format;
    if (!replaceFirst(text, "hhh", number_to_string(3, hours)))
        replaceFirst(text, "hh", number_to_string(2, hours));
    replaceFirst(text, "mm", number_to_string(2, minutes));
    replaceFirst(text, "ss", number_to_string(2, seconds));
    if (!replaceFirst(text, "ccc", number_to_string(3, millis)))
        replaceFirst(text, "cc", number_to_string(2, millis));
    if (durationNs < 0)
        text.insert(0, "-");
    return text;
}

std::string toString(const std::string& format, time_t time, bool utc) {
    struct tm parts {};
    if (utc)
        gmtime_r(&time, &parts);
    else
        localtime_r(&time, &parts);

    std::string text = format;
    replaceFirst(text, "dd", number_to_string(2, parts.tm_mday));
    replaceFirst(text, "MM", number_to_string(2, parts.tm_mon + 1));
    replaceFirst(text, "yyyy", number_to_string(4, parts.tm_year + 1900));
    replaceFirst(text, "hh", number_to_string(2, parts.tm_hour));
    replaceFirst(text, "mm", number_to_string(2, parts.tm_min));
    replaceFirst(text, "ss", number_to_string(2, parts.tm_sec));
    return text;
}

}  // namespace VQSDK
