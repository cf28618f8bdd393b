#pragma once
// Transport stream synchroniser: cuts raw byte runs into aligned 188- or
// 204-byte packets, and a companion that regroups bytes into fixed chunks.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "mpegcore/MpegConstants.h"

namespace mpegcore {

// Receives (timestamp in nanoseconds, data, size).
using vq_mpegts_callback = std::function<void(unsigned long, unsigned char*, unsigned long)>;

class vq_mpegts_sync {
public:
    explicit vq_mpegts_sync(vq_mpegts_callback callback);
    virtual ~vq_mpegts_sync() = default;

    vq_mpegts_sync(const vq_mpegts_sync&) = delete;
    vq_mpegts_sync& operator=(const vq_mpegts_sync&) = delete;

    // Drops tail and lock and sizes the work buffer for frames of frameSize bytes.
    void reset(size_t frameSize);
    // One frame spanning [tStart, tStop] nanoseconds.
    void push_data(uint64_t tStart, uint64_t tStop, uint8_t* data, size_t size);
    size_t get_bad_bytes() const { return m_nCountBadByte; }

    static constexpr uint8_t sync_byte = kSyncByte;
    static constexpr size_t ts_packet_size = kTsPacketSize;
    static constexpr size_t rs_packet_size = kRsPacketSize;

protected:
    // The search and delivery loop over one run; keeps what is left as the tail.
    // runOffset: where data lies in the current run, for the timestamps.
    void processing(uint8_t* data, size_t size, size_t runOffset = 0);

    std::unique_ptr<uint8_t[]> m_pTail;
    size_t m_nTailSize = 0;
    size_t m_nMaxTailSize = 0;
    bool m_bSync = false;
    const size_t m_nMaxCountSyncPkt = 15;
    size_t m_nPacketSize = ts_packet_size;
    vq_mpegts_callback m_fCallback;
    size_t m_nCountBadByte = 0;
    uint64_t m_tStart = 0;
    uint64_t m_tStop = 0;
    size_t m_nSize = 0;

private:
    // Where one run of processing stands.
    struct run_position {
        size_t packetStart = 0;                 // first byte of the packet searched or delivered
        size_t syncProbe = 0;                   // the byte checked for a sync byte next
        size_t candidateSize = ts_packet_size;  // the spacing tried while searching
        size_t syncBytesInARow = 0;             // sync bytes found at that spacing
    };
    // Searches for 15 sync bytes in a row from the run position; true once
    // locked with bytes left to deliver, false when the run ends first.
    bool findLock(const uint8_t* data, size_t size, run_position& at);
    // Delivers locked packets from the run position; true when the lock is
    // lost with bytes left to search, false when the run ends first.
    bool deliverLockedPackets(uint8_t* data, size_t size, size_t runOffset, run_position& at);
    // Whether the run holds the bytes the next step needs from the probe.
    bool enoughLeft(size_t size, const run_position& at) const {
        const size_t need = m_bSync ? m_nPacketSize : at.candidateSize;
        return at.syncProbe <= size && size - at.syncProbe >= need;
    }
    // The fast way through a frame that follows a held partial packet; false
    // when the tail and frame must be joined whole.
    bool completeHeldPacket(uint64_t tStart, uint64_t tStop, uint8_t* data, size_t size);
    // Time of the byte `offset` bytes into the current run.
    uint64_t timeAt(size_t offset) const { return m_tStart + (m_tStop - m_tStart) * offset / m_nSize; }
};

class vq_mpegts_accum {
public:
    vq_mpegts_accum(vq_mpegts_callback callback, size_t chunkSize);
    virtual ~vq_mpegts_accum() = default;

    vq_mpegts_accum(const vq_mpegts_accum&) = delete;
    vq_mpegts_accum& operator=(const vq_mpegts_accum&) = delete;

    void push_data(uint64_t tStart, uint64_t tStop, uint8_t* data, size_t size);
    // Delivers whole chunks straight from data and keeps the remainder.
    void relay_push_data(uint64_t tStart, uint64_t tStop, uint8_t* data, size_t size);
    // (tStop - tStart) * part / total, with a 128-bit intermediate.
    static uint64_t size_to_time(uint64_t tStart, uint64_t tStop, size_t total, size_t part);
    void reset();

protected:
    std::unique_ptr<uint8_t[]> m_pTail;
    size_t m_nSize;
    size_t m_nLength = 0;
    uint64_t m_tTimeStamp = 0;
    vq_mpegts_callback m_fCallback;
};

}  // namespace mpegcore
