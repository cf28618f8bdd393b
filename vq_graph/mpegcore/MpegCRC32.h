#pragma once
// CRC-32/MPEG-2 (polynomial 0x04C11DB7, not reflected, no final inversion).

#include <array>
#include <cstddef>
#include <cstdint>

namespace mpegcore {

namespace detail {
constexpr std::array<uint32_t, 256> makeCrc32Table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
        table[i] = crc;
    }
    return table;
}
}  // namespace detail

// The byte-at-a-time table: index = (crc >> 24) ^ byte, crc = (crc << 8) ^ table[index].
inline constexpr std::array<uint32_t, 256> g_MPEG2_PSI_CRC_32_Lookup = detail::makeCrc32Table();

// Runs the CRC register over size bytes; a whole section including its CRC
// field leaves 0 when it is intact. Gives the same value as the byte table
// for every input, eight bytes at a step.
uint32_t crc32_mpeg2(const unsigned char* data, size_t size, uint32_t crc = 0xFFFFFFFFu);

}  // namespace mpegcore
