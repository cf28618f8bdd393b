#include "mpegcore/MpegCRC32.h"

#include <cstring>

namespace mpegcore {

namespace {

// Slicing-by-8 tables: kSlices[k][b] is the CRC of byte b followed by k zero bytes.
struct SliceTables {
    uint32_t t[8][256];

    constexpr SliceTables() : t() {
        for (int b = 0; b < 256; ++b)
            t[0][b] = g_MPEG2_PSI_CRC_32_Lookup[b];
        for (int k = 1; k < 8; ++k)
            for (int b = 0; b < 256; ++b)
                t[k][b] = (t[k - 1][b] << 8) ^ g_MPEG2_PSI_CRC_32_Lookup[t[k - 1][b] >> 24];
    }
};

constexpr SliceTables kSlices{};

}  // namespace

uint32_t crc32_mpeg2(const unsigned char* data, size_t size, uint32_t crc) {
    while (size >= 8) {
        uint32_t hi, lo;
        std::memcpy(&hi, data, 4);
        std::memcpy(&lo, data + 4, 4);
        hi = __builtin_bswap32(hi) ^ crc;
        lo = __builtin_bswap32(lo);
        crc = kSlices.t[7][hi >> 24] ^ kSlices.t[6][(hi >> 16) & 0xFF] ^
              kSlices.t[5][(hi >> 8) & 0xFF] ^ kSlices.t[4][hi & 0xFF] ^
              kSlices.t[3][lo >> 24] ^ kSlices.t[2][(lo >> 16) & 0xFF] ^
              kSlices.t[1][(lo >> 8) & 0xFF] ^ kSlices.t[0][lo & 0xFF];
        data += 8;
        size -= 8;
    }
    while (size--)
        crc = (crc << 8) ^ g_MPEG2_PSI_CRC_32_Lookup[(crc >> 24) ^ *data++];
    return crc;
}

}  // namespace mpegcore
