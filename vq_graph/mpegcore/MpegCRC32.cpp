#include "mpegcore/MpegCRC32.h"

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define VQ_CRC32_CLMUL 1
#endif

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

uint32_t crcSlicing(const unsigned char* data, size_t size, uint32_t crc) {
    while (size >= 8) {
        uint32_t hi, lo;
        std::memcpy(&hi, data, 4);
        std::memcpy(&lo, data + 4, 4);
        hi = __builtin_bswap32(hi) ^ crc;
        lo = __builtin_bswap32(lo);
        crc = kSlices.t[7][hi >> 24] ^ kSlices.t[6][(hi >> 16) & 0xFF] ^ kSlices.t[5][(hi >> 8) & 0xFF] ^
              kSlices.t[4][hi & 0xFF] ^ kSlices.t[3][lo >> 24] ^ kSlices.t[2][(lo >> 16) & 0xFF] ^
              kSlices.t[1][(lo >> 8) & 0xFF] ^ kSlices.t[0][lo & 0xFF];
        data += 8;
        size -= 8;
    }
    while (size--)
        crc = (crc << 8) ^ g_MPEG2_PSI_CRC_32_Lookup[(crc >> 24) ^ *data++];
    return crc;
}

#ifdef VQ_CRC32_CLMUL

// x^n mod P, the constants of carry-less folding.
constexpr long long xPowMod(unsigned n) {
    uint32_t r = 1;
    for (unsigned i = 0; i < n; ++i)
        r = (r & 0x80000000u) ? (r << 1) ^ 0x04C11DB7u : r << 1;
    return r;
}
// Moving a value on by N bits: x^N mod P in the low lane, x^(N+64) mod P in the high one.
constexpr long long kBy512Lo = xPowMod(512), kBy512Hi = xPowMod(576);
constexpr long long kBy384Lo = xPowMod(384), kBy384Hi = xPowMod(448);
constexpr long long kBy256Lo = xPowMod(256), kBy256Hi = xPowMod(320);
constexpr long long kBy128Lo = xPowMod(128), kBy128Hi = xPowMod(192);

// Folding keeps a 128-bit value congruent, modulo P, to the bytes consumed
// (with the register XORed into the first four): moving a value N bits on is
// hi * (x^(N+64) mod P) + lo * (x^N mod P), two carry-less products.
__attribute__((target("pclmul,ssse3"))) inline __m128i fold(__m128i x, __m128i k) {
    return _mm_xor_si128(_mm_clmulepi64_si128(x, k, 0x11), _mm_clmulepi64_si128(x, k, 0x00));
}

__attribute__((target("pclmul,ssse3"))) inline __m128i byteReversal() {
    return _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
}

// A big-endian load: the first byte becomes the highest coefficient.
__attribute__((target("pclmul,ssse3"))) inline __m128i loadBigEndian(const unsigned char* p, __m128i swap) {
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), swap);
}

// Runs the register over whole 16-byte blocks (at least four); the blocks
// left over and any tail go to the table code.
__attribute__((target("pclmul,ssse3"))) uint32_t crcFolding(const unsigned char* data, size_t size, uint32_t crc) {
    const __m128i by512 = _mm_set_epi64x(kBy512Hi, kBy512Lo);
    const __m128i by384 = _mm_set_epi64x(kBy384Hi, kBy384Lo);
    const __m128i by256 = _mm_set_epi64x(kBy256Hi, kBy256Lo);
    const __m128i by128 = _mm_set_epi64x(kBy128Hi, kBy128Lo);
    const __m128i swap = byteReversal();
    __m128i x0 = _mm_xor_si128(loadBigEndian(data, swap), _mm_set_epi32(static_cast<int>(crc), 0, 0, 0));
    __m128i x1 = loadBigEndian(data + 16, swap);
    __m128i x2 = loadBigEndian(data + 32, swap);
    __m128i x3 = loadBigEndian(data + 48, swap);
    data += 64;
    size -= 64;
    for (; size >= 64; data += 64, size -= 64) {
        x0 = _mm_xor_si128(fold(x0, by512), loadBigEndian(data, swap));
        x1 = _mm_xor_si128(fold(x1, by512), loadBigEndian(data + 16, swap));
        x2 = _mm_xor_si128(fold(x2, by512), loadBigEndian(data + 32, swap));
        x3 = _mm_xor_si128(fold(x3, by512), loadBigEndian(data + 48, swap));
    }
    __m128i x = _mm_xor_si128(_mm_xor_si128(fold(x0, by384), fold(x1, by256)), _mm_xor_si128(fold(x2, by128), x3));
    for (; size >= 16; data += 16, size -= 16)
        x = _mm_xor_si128(fold(x, by128), loadBigEndian(data, swap));
    // The register of the consumed bytes is the CRC of the folded value from 0.
    unsigned char folded[16];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(folded), _mm_shuffle_epi8(x, swap));
    return crcSlicing(data, size, crcSlicing(folded, sizeof folded, 0));
}

bool hasClmul() {
    static const bool supported = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
    return supported;
}

#endif

}  // namespace

uint32_t crc32_mpeg2(const unsigned char* data, size_t size, uint32_t crc) {
#ifdef VQ_CRC32_CLMUL
    // Below a few blocks the table code is as quick.
    if (size >= 128 && hasClmul())
        return crcFolding(data, size, crc);
#endif
    return crcSlicing(data, size, crc);
}

}  // namespace mpegcore
