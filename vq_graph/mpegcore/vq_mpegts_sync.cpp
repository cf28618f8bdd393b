#include "mpegcore/vq_mpegts_sync.h"

#include <algorithm>
#include <cstring>

namespace mpegcore {

vq_mpegts_sync::vq_mpegts_sync(vq_mpegts_callback callback) : m_fCallback(std::move(callback)) {}

void vq_mpegts_sync::reset(size_t frameSize) {
    const size_t searchSpan = m_nMaxCountSyncPkt * rs_packet_size + rs_packet_size;
    m_nMaxTailSize = std::max(frameSize + searchSpan, 2 * frameSize);
    m_pTail.reset(new uint8_t[m_nMaxTailSize]);
    m_nTailSize = 0;
    m_bSync = false;
    m_nPacketSize = ts_packet_size;
}

void vq_mpegts_sync::push_data(uint64_t tStart, uint64_t tStop, uint8_t* data, size_t size) {
    if (!data || size == 0)
        return;
    if (!m_pTail || m_nTailSize + size > m_nMaxTailSize)
        reset(m_nTailSize + size);
    uint8_t* run = data;
    size_t runSize = size;
    if (m_nTailSize && completeHeldPacket(tStart, tStop, data, size))
        return;
    if (m_nTailSize) {
        std::memcpy(m_pTail.get() + m_nTailSize, data, size);
        run = m_pTail.get();
        runSize = m_nTailSize + size;
        m_nTailSize = 0;
    }
    m_tStart = tStart;
    m_tStop = tStop;
    m_nSize = runSize;
    processing(run, runSize);
}

bool vq_mpegts_sync::completeHeldPacket(uint64_t tStart, uint64_t tStop, uint8_t* data, size_t size) {
    const size_t held = m_nTailSize;
    if (!m_bSync || m_pTail[0] != sync_byte || held >= m_nPacketSize || size < m_nPacketSize - held)
        return false;
    // Locked, and the held bytes start a packet: only that packet is joined in
    // the work buffer; the rest of the frame is delivered in place, with the
    // timestamps and state that the run of tail and frame together would give.
    const size_t head = m_nPacketSize - held;
    std::memcpy(m_pTail.get() + held, data, head);
    m_nTailSize = 0;
    m_tStart = tStart;
    m_tStop = tStop;
    m_nSize = held + size;
    m_fCallback(timeAt(0), m_pTail.get(), m_nPacketSize);
    const size_t rest = size - head;
    if (rest >= m_nPacketSize) {
        processing(data + head, rest, m_nPacketSize);
    } else if (rest) {
        std::memcpy(m_pTail.get(), data + head, rest);
        m_nTailSize = rest;
    }
    return true;
}

void vq_mpegts_sync::processing(uint8_t* data, size_t size, size_t runOffset) {
    run_position at;
    if (size >= ts_packet_size) {
        bool bytesLeft = true;
        while (bytesLeft)
            bytesLeft = m_bSync ? deliverLockedPackets(data, size, runOffset, at) : findLock(data, size, at);
    }
    const size_t rest = size - at.packetStart;
    if (rest) {
        if (data != m_pTail.get() || at.packetStart != 0)
            std::memmove(m_pTail.get(), data + at.packetStart, rest);
        m_nTailSize = rest;
    }
}

bool vq_mpegts_sync::findLock(const uint8_t* data, size_t size, run_position& at) {
    while (!m_bSync) {
        if (data[at.syncProbe] != sync_byte) {
            if (at.syncBytesInARow == 0) {
                ++m_nCountBadByte;
                at.syncProbe = ++at.packetStart;
            } else if (at.candidateSize == ts_packet_size) {
                at.candidateSize = rs_packet_size;  // same start, wider spacing
                at.syncProbe = at.packetStart;
            } else {
                at.candidateSize = ts_packet_size;
                ++m_nCountBadByte;
                at.syncProbe = ++at.packetStart;
            }
            at.syncBytesInARow = 0;
        } else if (++at.syncBytesInARow < m_nMaxCountSyncPkt) {
            if (at.syncBytesInARow == 1)
                at.packetStart = at.syncProbe;
            at.syncProbe += at.candidateSize;
        } else {
            // Locked: delivery starts with the first of the packets found.
            m_bSync = true;
            m_nPacketSize = at.candidateSize;
            at.syncProbe = at.packetStart;
            at.syncBytesInARow = 0;
        }
        if (!enoughLeft(size, at))
            return false;
    }
    return true;
}

bool vq_mpegts_sync::deliverLockedPackets(uint8_t* data, size_t size, size_t runOffset, run_position& at) {
    while (m_bSync) {
        if (data[at.packetStart] != sync_byte) {
            // One missing sync byte drops the lock; the search restarts here.
            m_bSync = false;
            at.syncProbe = at.packetStart;
            at.syncBytesInARow = 0;
        } else {
            // A locked packet is delivered only when it lies wholly in the run.
            if (size - at.packetStart < m_nPacketSize)
                return false;
            m_fCallback(timeAt(runOffset + at.packetStart), data + at.packetStart, m_nPacketSize);
            at.packetStart += m_nPacketSize;
            at.syncProbe = at.packetStart;
        }
        if (!enoughLeft(size, at))
            return false;
    }
    return true;
}

vq_mpegts_accum::vq_mpegts_accum(vq_mpegts_callback callback, size_t chunkSize)
    : m_pTail(new uint8_t[chunkSize ? chunkSize : 1]), m_nSize(chunkSize), m_fCallback(std::move(callback)) {}

uint64_t vq_mpegts_accum::size_to_time(uint64_t tStart, uint64_t tStop, size_t total, size_t part) {
    if (total == 0)
        return 0;
    const __int128 span = static_cast<__int128>(tStop) - static_cast<__int128>(tStart);
    return static_cast<uint64_t>(span * static_cast<__int128>(part) / static_cast<__int128>(total));
}

void vq_mpegts_accum::push_data(uint64_t tStart, uint64_t tStop, uint8_t* data, size_t size) {
    if (!m_fCallback || !data || size == 0 || m_nSize == 0)
        return;
    if (m_nLength) {
        const size_t used = std::min(m_nSize - m_nLength, size);
        std::memcpy(m_pTail.get() + m_nLength, data, used);
        m_nLength += used;
        if (m_nLength < m_nSize) {
            m_tTimeStamp = tStart + size_to_time(tStart, tStop, size, used);
            return;
        }
        m_fCallback(m_tTimeStamp, m_pTail.get(), m_nSize);
        m_nLength = 0;
        const uint64_t t = tStart + size_to_time(tStart, tStop, size, used);
        data += used;
        size -= used;
        tStart = t;
    }
    relay_push_data(tStart, tStop, data, size);
}

void vq_mpegts_accum::relay_push_data(uint64_t tStart, uint64_t tStop, uint8_t* data, size_t size) {
    if (!m_fCallback || m_nSize == 0)
        return;
    uint64_t t = tStart;
    while (size >= m_nSize) {
        m_fCallback(t, data, m_nSize);
        t += size_to_time(t, tStop, size, m_nSize);
        data += m_nSize;
        size -= m_nSize;
    }
    if (size == 0)
        return;
    std::memcpy(m_pTail.get(), data, size);
    m_nLength = size;
    m_tTimeStamp = t + size_to_time(t, tStop, size, size);
}

void vq_mpegts_accum::reset() {
    m_nLength = 0;
    m_tTimeStamp = 0;
}

}  // namespace mpegcore
