#pragma once
// Byte-level helpers for the table suites: build sections with a valid CRC,
// read a table from bytes, take a rendered section out of a table.

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <vector>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/MpegCRC32.h"

namespace vq_test {

using SectionBytes = std::vector<uint8_t>;

// Writes the CRC-32/MPEG-2 of the bytes before it into the last 4 bytes of
// the section that the header's section_length delimits; does nothing when
// that section does not fit in `section`.
inline void fixSectionCrc(SectionBytes& section) {
    if (section.size() < 3)
        return;
    const size_t length = ((section[1] & 0x0F) << 8) | section[2];
    if (length < 4 || length + 3 > section.size())
        return;
    const size_t crcAt = length - 1;
    const uint32_t crc = mpegcore::crc32_mpeg2(section.data(), crcAt);
    for (size_t i = 0; i < 4; ++i)
        section[crcAt + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}

// `body` is a section up to its CRC: sets section_length from its size and
// appends the CRC.
inline SectionBytes withCrc(SectionBytes body) {
    const size_t length = body.size() + 4 - 3;
    body[1] = static_cast<uint8_t>((body[1] & 0xF0) | ((length >> 8) & 0x0F));
    body[2] = static_cast<uint8_t>(length);
    body.resize(body.size() + 4);
    fixSectionCrc(body);
    return body;
}

// Reads `table` from a reader over exactly `bytes`.
template <class Table>
bool readTable(Table& table, SectionBytes bytes) {
    VQSDK::VQBSReaderT<unsigned char*> reader(bytes.data(), bytes.size());
    return table.read(reader);
}

// The section a table rendered: its buffer up to m_lSizeTable (never past
// the buffer's end).
inline SectionBytes renderedBytes(const mpegcore::CBaseMpegTable& table) {
    const size_t size = std::min(table.GetSizeBuffer(), table.m_lMaxSize);
    return SectionBytes(table.GetBuffer(), table.GetBuffer() + size);
}

// A UTC calendar time as POSIX time.
inline time_t utcTime(int year, int month, int day, int hour, int minute, int second) {
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    return timegm(&tm);
}

}  // namespace vq_test
