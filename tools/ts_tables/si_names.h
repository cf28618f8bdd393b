#pragma once
// Names the standards give to the coded values of PSI/SI tables (ISO/IEC
// 13818-1, ETSI EN 300 468), and SI times made readable (texts: mpegcore::DvbText).

#include <cstddef>
#include <cstdint>
#include <string>

namespace si_names {

// hdmv: the program carries the "HDMV" registration descriptor, under which
// types 0x80 to 0x92 name Blu-ray audio and subtitle formats.
std::string stream_type(uint8_t type, bool hdmv = false);
std::string descriptor_tag(uint8_t tag);
std::string running_status(uint8_t status);
std::string service_type(uint8_t type);
std::string table_id(uint8_t id);

// A three-letter language or country code; unprintable bytes become '?'.
std::string language_code(const char code[3]);
// The 40-bit SI time (16-bit MJD, BCD hhmmss) as "yyyy-MM-dd hh:mm:ss UTC";
// "undefined" when every bit is set.
std::string utc_time(uint64_t utcTime);
// Four characters packed big-endian, such as a registration's "HDMV".
std::string four_cc(uint32_t value);
// A 24-bit BCD duration as "hh:mm:ss".
std::string bcd_duration(uint32_t duration);
// Bytes as upper-case hexadecimal pairs separated by spaces.
std::string hex_bytes(const unsigned char* data, size_t size);

}  // namespace si_names
