#pragma once
// Big-endian bit reader over a byte buffer with a 64-bit cache.

#include <cstdint>
#include <cstring>
#include <utility>

namespace VQSDK {

// Masks with 0..N low bits set; the reader masks every result with them.
template <unsigned N>
struct mask_struct {
    uint64_t mask[N + 1];

    constexpr mask_struct() : mask() {
        for (unsigned i = 0; i <= N; ++i)
            mask[i] = i >= 64 ? ~uint64_t(0) : ((uint64_t(1) << i) - 1);
    }
    constexpr uint64_t operator[](unsigned n) const { return mask[n]; }
};

inline constexpr mask_struct<64> g_bitMask{};

// Loads k (0..8) bytes from p as a big-endian number, first byte most significant.
inline uint64_t loadBigEndian(const unsigned char* p, uint64_t k) {
    if (k == 8) {
        uint64_t v;
        std::memcpy(&v, p, 8);
        return __builtin_bswap64(v);
    }
    uint64_t v = 0;
    for (uint64_t i = 0; i < k; ++i)
        v = (v << 8) | p[i];
    return v;
}

template <class TPtr>
class VQBSReaderT;

template <>
class VQBSReaderT<unsigned char*> {
public:
    VQBSReaderT(unsigned char* data, unsigned long length)
        : m_Cache(0), m_sizeCache(0), m_data(data), m_length(length) {
        // The first load only reaches the next 4-byte boundary; later loads take 8 bytes.
        const uint64_t misalign = reinterpret_cast<uintptr_t>(data) & 3;
        const uint64_t first = misalign ? 4 - misalign : 8;
        load(first < m_length ? first : m_length);
    }
    virtual ~VQBSReaderT() = default;

    // The next n (1..64) bits; 0 when the reader is or becomes exhausted.
    uint64_t getBits(unsigned long n) {
        uint64_t value = 0;
        return readBits(n, value) ? value : 0;
    }

    template <unsigned N, class T>
    bool getBits(T& value) {
        static_assert(N >= 1 && N <= 64, "bit width out of range");
        uint64_t bits = 0;
        const bool ok = readBits(N, bits);
        value = static_cast<T>(bits);
        return ok;
    }

    // Peeks at the next N bits without consuming them.
    template <unsigned N, class T>
    bool lookBits(T& value) const {
        VQBSReaderT copy(*this);
        return copy.getBits<N, T>(value);
    }

    // Moves to the byte n places after the byte holding the next unread bit.
    void skipBytes(unsigned long n) {
        const uint64_t cached = cachedBytes();
        const uint64_t available = m_length + cached;
        if (n > available)
            return;
        m_data = m_data - cached + n;
        m_length = available - n;
        load(m_length < 8 ? m_length : 8);
    }

    // Replaces the cache with the next k (at most 8) bytes.
    void updateCache(unsigned long k) {
        if (k > m_length)
            k = m_length;
        load(k > 8 ? 8 : k);
    }

    // Drops the unread bits of a partly read byte.
    void alignByte() {
        const uint64_t drop = m_sizeCache & 7;
        if (drop)
            getBits(drop);
    }

    // Whole bytes not yet read.
    uint64_t getLength() const { return m_length + m_sizeCache / 8; }

    // The byte holding the next unread bit.
    unsigned char* getData() const { return m_data - cachedBytes(); }

    // Bytes loaded but not fully read, including a partly read one.
    uint64_t getCacheByte() const { return cachedBytes(); }

    void swap(VQBSReaderT& other) {
        std::swap(m_Cache, other.m_Cache);
        std::swap(m_sizeCache, other.m_sizeCache);
        std::swap(m_data, other.m_data);
        std::swap(m_length, other.m_length);
    }

    uint64_t m_Cache;       // loaded bits, right-aligned; next bit is m_sizeCache - 1
    uint64_t m_sizeCache;   // unread bits in the cache, 0 = exhausted
    unsigned char* m_data;  // first byte not yet loaded
    uint64_t m_length;      // bytes from m_data not yet loaded

private:
    uint64_t cachedBytes() const { return (m_sizeCache + 7) / 8; }

    void load(uint64_t k) {
        m_Cache = loadBigEndian(m_data, k);
        m_sizeCache = 8 * k;
        m_data += k;
        m_length -= k;
    }

    // Reads n bits into value; false when the data ran out (value keeps the bits
    // read so far, shifted as if the rest were zero).
    bool readBits(uint64_t n, uint64_t& value) {
        if (n < m_sizeCache) {  // common case: the cache holds the field
            value = (m_Cache >> (m_sizeCache - n)) & g_bitMask[n];
            m_sizeCache -= n;
            return true;
        }
        value = 0;
        if (m_sizeCache == 0)
            return false;
        uint64_t needed = n;
        while (needed) {
            const uint64_t take = needed < m_sizeCache ? needed : m_sizeCache;
            const uint64_t chunk = (m_Cache >> (m_sizeCache - take)) & g_bitMask[take];
            needed -= take;
            if (needed < 64)
                value |= chunk << needed;
            m_sizeCache -= take;
            if (m_sizeCache == 0) {
                if (m_length)
                    load(m_length < 8 ? m_length : 8);
                else if (needed)
                    return false;
            }
        }
        value &= g_bitMask[n];
        return true;
    }
};

}  // namespace VQSDK
