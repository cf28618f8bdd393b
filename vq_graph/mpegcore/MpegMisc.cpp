#include "mpegcore/MpegMisc.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

uint64_t CMpegMisc::decimal_to_bcd(uint64_t value) {
    return std::strtoull(std::to_string(value).c_str(), nullptr, 16);
}

int CMpegMisc::bcd_to_decimal(uint8_t bcd) {
    char text[4];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(bcd));
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

uint32_t CMpegMisc::time_to_bcd(uint64_t hours, uint64_t minutes, uint64_t seconds) {
    return static_cast<uint32_t>((decimal_to_bcd(hours) << 16) + (decimal_to_bcd(minutes) << 8) +
                                 decimal_to_bcd(seconds));
}

void CMpegMisc::mjd_to_date(uint32_t mjd, int& year, int& month, int& day) {
    const int yp = static_cast<int>((mjd - 15078.2) / 365.25);
    const int mp = static_cast<int>((mjd - 14956.1 - static_cast<int>(yp * 365.25)) / 30.6001);
    day = static_cast<int>(mjd) - 14956 - static_cast<int>(yp * 365.25) - static_cast<int>(mp * 30.6001);
    const int k = (mp == 14 || mp == 15) ? 1 : 0;
    year = yp + k;
    month = mp - 1 - k * 12;
}

uint64_t CMpegMisc::date_to_mjd(int year, int month, int day) {
    // month + 2 is the one-based month plus one; January and February count
    // as months 13 and 14 of the year before.
    const int64_t l = month < 2 ? 1 : 0;
    return static_cast<uint64_t>(14956 + int64_t(day) + static_cast<int64_t>((year - l) * 365.25) +
                                 static_cast<int64_t>((month + 2 + l * 12) * 30.6001));
}

std::tm CMpegMisc::utc_time_to_tm(uint64_t utc_time) {
    std::tm tm{};
    int year = 0, month = 0, day = 0;
    mjd_to_date(static_cast<uint32_t>((utc_time >> 24) & 0xFFFF), year, month, day);  // 40-bit field
    tm.tm_year = year;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = bcd_to_decimal(static_cast<uint8_t>(utc_time >> 16));
    tm.tm_min = bcd_to_decimal(static_cast<uint8_t>(utc_time >> 8));
    tm.tm_sec = bcd_to_decimal(static_cast<uint8_t>(utc_time));
    return tm;
}

time_t CMpegMisc::utc_time_to_time_t(uint64_t utc_time) {
    std::tm tm = utc_time_to_tm(utc_time);
    return timegm(&tm);
}

uint64_t CMpegMisc::time_t_to_utc_time(time_t time) {
    std::tm tm{};
    if (!gmtime_r(&time, &tm))
        return 0;
    const uint64_t mjd = date_to_mjd(tm.tm_year, tm.tm_mon, tm.tm_mday);
    return (mjd << 24) + time_to_bcd(tm.tm_hour, tm.tm_min, tm.tm_sec);
}

bool CMpegMisc::read_section_header(CBaseMpegTable& table, VQSDK::VQBSReaderT<unsigned char*>& reader) {
    if (reader.getLength() < 3)
        return false;
    return table.CBaseMpegTable::read(reader);
}

CMpegMisc::loop_result CMpegMisc::read_descriptor_loop(VQSDK::VQBSReaderT<unsigned char*>& reader,
                                                       uint16_t length, VQDescriptorList& list) {
    if (length > reader.getLength())
        return loop_result::too_long;
    VQSDK::VQBSReaderT<unsigned char*> loop(reader.getData(), length);
    const bool listOk = list.read(loop);
    reader.skipBytes(length);
    return listOk ? loop_result::ok : loop_result::list_failed;
}

void CMpegMisc::copy_section_header(const CBaseMpegTable& from, CBaseMpegTable& to) {
    to.table_id = from.table_id;
    to.section_syntax_indicator = from.section_syntax_indicator;
    to.zero = from.zero;
    to.reserved = from.reserved;
    to.section_length = from.section_length;
}

}  // namespace mpegcore
