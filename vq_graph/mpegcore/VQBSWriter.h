#pragma once
// Big-endian bit writer into a caller's buffer with a 64-bit cache.

#include <cstdint>
#include <cstring>

namespace VQSDK {

template <class TPtr>
class VQBSWriterT;

template <>
class VQBSWriterT<unsigned char*> {
public:
    VQBSWriterT(unsigned char* data, unsigned long length)
        : m_cache(0), m_sizeCache(64), m_data(data), m_length(length), m_writeByte(0) {}

    // Stores what the cache still holds, without touching the counters.
    virtual ~VQBSWriterT() { store(m_data, heldBytes()); }

    // Appends the low n bits of value, most significant first. The value is not
    // masked: bits above n spill into bits written before, so callers pass values
    // that fit. True when every bit was taken.
    template <class T>
    bool putBits(T value, unsigned char n) {
        while (n) {
            putBitsToCach(n, value);
            if (m_sizeCache == 0) {
                storeCache(8);
                if (m_length == 0)
                    return n == 0;
            } else if (m_length * 8 == 64 - m_sizeCache) {
                storeCache(heldBytes());  // the held bits fill the destination exactly
            } else if (m_length == 0) {
                return n == 0;
            }
        }
        return true;
    }

    template <unsigned N, class T>
    bool putBits(T value) {
        static_assert(N >= 1 && N <= 64, "bit width out of range");
        return putBits(value, static_cast<unsigned char>(N));
    }

    // One step of putBits on the cache: takes as many of the n bits as fit and
    // lowers n by that count.
    template <class T>
    void putBitsToCach(unsigned char& n, T value) {
        const uint64_t v = static_cast<uint64_t>(value);
        const uint64_t take = n < m_sizeCache ? n : m_sizeCache;
        const uint64_t kept = (m_sizeCache >= 64 || take >= 64) ? 0 : (m_cache >> m_sizeCache) << take;
        const uint64_t rest = n - take;
        const uint64_t bits = rest >= 64 ? 0 : v >> rest;
        m_cache = (kept | bits) << (m_sizeCache - take);
        m_sizeCache -= take;
        n = static_cast<unsigned char>(rest);
    }

    // Stores the bytes held in the cache; a partly filled last byte gets zero low bits.
    void flush() { storeCache(heldBytes()); }

    unsigned char* getData() const { return m_data; }
    uint64_t getWritedBytes() const { return m_writeByte; }
    uint64_t getCacheBits() const { return 64 - m_sizeCache; }
    uint64_t getCacheByte() const { return heldBytes(); }

    // Points the writer at a new destination; the cache is kept.
    void updateData(unsigned char* data, unsigned long length) {
        m_data = data;
        m_length = length;
    }

    uint64_t m_cache;       // written bits, left-aligned
    uint64_t m_sizeCache;   // free bit positions, 64 = empty
    unsigned char* m_data;  // where the next byte goes
    uint64_t m_length;      // bytes of room left
    uint64_t m_writeByte;   // bytes stored so far

private:
    uint64_t heldBytes() const { return 8 - m_sizeCache / 8; }

    // Writes the top `count` cache bytes, never more than the room left.
    uint64_t store(unsigned char* dst, uint64_t count) const {
        if (count > m_length)
            count = m_length;
        if (count == 8) {
            const uint64_t be = __builtin_bswap64(m_cache);
            std::memcpy(dst, &be, 8);
            return 8;
        }
        for (uint64_t i = 0; i < count; ++i)
            dst[i] = static_cast<unsigned char>(m_cache >> (56 - 8 * i));
        return count;
    }

    void storeCache(uint64_t count) {
        const uint64_t stored = store(m_data, count);
        m_data += stored;
        m_length -= stored;
        m_writeByte += stored;
        m_cache = 0;
        m_sizeCache = 64;
    }
};

}  // namespace VQSDK
