#include "mpegcore/MpegMisc.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/BasePID.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

namespace {

bool fieldFits(size_t size, size_t bitPos, unsigned n) {
    return n >= 1 && n <= 64 && bitPos <= size * 8 && n <= size * 8 - bitPos;
}

}  // namespace

bool CMpegMisc::AddBitToStream(unsigned char* data, size_t size, size_t bitPos, uint64_t value, unsigned n) {
    if (!data || !fieldFits(size, bitPos, n))
        return false;
    for (unsigned i = 0; i < n; ++i, ++bitPos) {
        const unsigned char mask = static_cast<unsigned char>(0x80 >> (bitPos % 8));
        if ((value >> (n - 1 - i)) & 1)
            data[bitPos / 8] |= mask;
        else
            data[bitPos / 8] &= static_cast<unsigned char>(~mask);
    }
    return true;
}

bool CMpegMisc::GetBitsFromStream(const unsigned char* data, size_t size, size_t bitPos, unsigned n, uint64_t& value) {
    value = 0;
    if (!data || !fieldFits(size, bitPos, n))
        return false;
    for (unsigned i = 0; i < n; ++i, ++bitPos)
        value = (value << 1) | ((data[bitPos / 8] >> (7 - bitPos % 8)) & 1);
    return true;
}

bool CMpegMisc::HasPCR(const unsigned char* packet, size_t size) {
    // Header (4), adaptation_field_length (1) and the flags byte (1).
    if (!packet || size < 6 || packet[0] != kSyncByte)
        return false;
    const bool hasAdaptationField = packet[3] & 0x20;
    return hasAdaptationField && packet[4] > 0 && (packet[5] & 0x10);
}

bool CMpegMisc::hasPCR(const transport_packet& packet) {
    return packet.hasAdaptationField() && packet.af.adaptation_field_length > 0 && packet.af.PCR_flag;
}

uint64_t CMpegMisc::pcrToNanosecond(uint64_t base, uint16_t extension) {
    // 27 MHz ticks: 1000 / 27 ns each; split to keep 33-bit bases from overflowing.
    const uint64_t ticks = base * 300 + extension;
    return ticks / 27 * 1000 + ticks % 27 * 1000 / 27;
}

bool CMpegMisc::is_video_stream_type(uint8_t stream_type) {
    switch (stream_type) {
    case 0x01:  // MPEG-1 video
    case 0x02:  // MPEG-2 video
    case 0x10:  // MPEG-4 part 2
    case 0x1B:  // AVC
    case 0x1E:  // auxiliary video
    case 0x1F:  // SVC sub-bitstream
    case 0x20:  // MVC sub-bitstream
    case 0x24:  // HEVC
    case 0x25:  // HEVC temporal subset
    case 0x42:  // AVS
    case 0xD2:  // AVS2
    case 0xD4:  // AVS3
    case 0xD1:  // Dirac
    case 0xEA:  // VC-1
        return true;
    default: return false;
    }
}

uint64_t CMpegMisc::decimal_to_bcd(uint64_t value) { return std::strtoull(std::to_string(value).c_str(), nullptr, 16); }

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

CMpegMisc::loop_result CMpegMisc::read_descriptor_loop(VQSDK::VQBSReaderT<unsigned char*>& reader, uint16_t length,
                                                       VQDescriptorList& list) {
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
