#include "vqasisim_stream.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mpegcore/MpegConstants.h"
#include "vqasisim_libc.h"

namespace vqasisim {
namespace {

using mpegcore::kPidNull;
using mpegcore::kSyncByte;
using mpegcore::kTsPacketSize;

unsigned packet_pid(const uint8_t* p) { return unsigned(p[1] & 0x1F) << 8 | p[2]; }
bool packet_has_payload(const uint8_t* p) { return (p[3] & 0x10) != 0; }

}  // namespace

stream_source::~stream_source() { release(); }

void stream_source::release() {
    if (m_mapping)
        libc().munmap(m_mapping, m_mappingSize);
    m_mapping = nullptr;
    m_mappingSize = 0;
    m_data = nullptr;
    m_size = 0;
}

bool stream_source::packet_mode() const { return m_packetMode; }

bool stream_source::open(const std::string& path, const config& settings, std::string& error) {
    release();
    m_settings = settings;
    m_packetSize = settings.packet_size;
    m_garbage = settings.garbage;
    m_ccEvery = settings.cc_every;
    m_packetMode = settings.mixed_packet_sizes() || m_garbage.enabled() || m_ccEvery != 0;
    m_counters = stream_counters{};
    rewind();

    if (path.empty()) {
        // A null packet, repeated for ever.
        m_generated.assign(kTsPacketSize, 0xFF);
        m_generated[0] = kSyncByte;
        m_generated[1] = kPidNull >> 8;
        m_generated[2] = kPidNull & 0xFF;
        m_generated[3] = 0x10;
        m_data = m_generated.data();
        m_size = m_generated.size();
        m_markLoops = false;
        return true;
    }
    m_markLoops = true;
    int fd = libc().open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = "cannot open input " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat st {};
    size_t size = fstat(fd, &st) == 0 ? size_t(st.st_size) : 0;
    if (packet_mode())
        size -= size % kTsPacketSize;  // whole packets only
    if (size == 0) {
        libc().close(fd);
        error = "input " + path + " holds no " + (packet_mode() ? "whole packet" : "data");
        return false;
    }
    // Mapped in full up front: a board delivers by DMA, so reading the input
    // should not add page faults to the capture thread being measured.
    void* mapping = libc().mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    libc().close(fd);
    if (mapping == MAP_FAILED) {
        error = "cannot map input " + path + ": " + std::strerror(errno);
        return false;
    }
    m_mapping = mapping;
    m_mappingSize = size;
    m_data = static_cast<const uint8_t*>(mapping);
    m_size = size;
    return true;
}

void stream_source::rewind() {
    m_pos = 0;
    m_unit.clear();
    m_unitPos = 0;
    m_unitMarks.clear();
    m_eligible = 0;
    m_runPackets = 0;
}

bool stream_source::take_packet(const uint8_t*& packet) {
    if (m_pos + kTsPacketSize > m_size) {
        m_pos = 0;
        ++m_counters.loops;
        if (m_markLoops)
            m_unitMarks.push_back({stream_mark::loop, 0, m_counters.loops});
    }
    packet = m_data + m_pos;
    m_pos += kTsPacketSize;
    m_counters.file_bytes += kTsPacketSize;
    if (m_ccEvery == 0 || packet[0] != kSyncByte || packet_pid(packet) == kPidNull || !packet_has_payload(packet))
        return true;
    // Leaving a packet out breaks its PID's continuity counter sequence.
    if (++m_eligible % m_ccEvery != 0)
        return true;
    ++m_counters.cc_errors;
    m_unitMarks.push_back({stream_mark::cc, 0, packet_pid(packet)});
    return false;
}

void stream_source::next_unit(double seconds) {
    m_unit.clear();
    m_unitPos = 0;
    m_unitMarks.clear();
    const unsigned size = m_settings.packet_size_at(seconds);
    if (size != m_packetSize) {
        m_packetSize = size;
        ++m_counters.packet_size_switches;
        m_unitMarks.push_back({stream_mark::packet_size, 0, size});
    }
    const uint8_t* packet = nullptr;
    while (!take_packet(packet)) {
    }
    m_unit.assign(packet, packet + kTsPacketSize);
    if (m_packetSize > kTsPacketSize) {
        // 204-byte packets: 16 dummy bytes where Reed-Solomon parity would be.
        m_unit.resize(m_packetSize, 0x00);
        m_counters.parity_bytes += m_packetSize - kTsPacketSize;
    }
    ++m_counters.packets;
    ++m_runPackets;
    if (m_garbage.enabled() && m_runPackets % m_garbage.every == 0) {
        m_unitMarks.push_back({stream_mark::garbage, m_unit.size(), m_garbage.count});
        for (uint64_t i = 0; i < m_garbage.count; ++i) {
            m_garbageSeed ^= m_garbageSeed << 13;
            m_garbageSeed ^= m_garbageSeed >> 17;
            m_garbageSeed ^= m_garbageSeed << 5;
            uint8_t b = uint8_t(m_garbageSeed >> 24);
            m_unit.push_back(b == kSyncByte ? 0x00 : b);  // never a sync byte
        }
        ++m_counters.garbage_insertions;
        m_counters.garbage_bytes += m_garbage.count;
    }
}

void stream_source::read(uint8_t* dst, size_t size, std::vector<stream_mark>& marks, double seconds) {
    size_t done = 0;
    if (!packet_mode()) {
        while (done < size) {
            if (m_pos == m_size) {
                m_pos = 0;
                ++m_counters.loops;
                if (m_markLoops)
                    marks.push_back({stream_mark::loop, done, m_counters.loops});
            }
            size_t n = std::min(size - done, m_size - m_pos);
            std::memcpy(dst + done, m_data + m_pos, n);
            m_pos += n;
            done += n;
            m_counters.file_bytes += n;
        }
        return;
    }
    while (done < size) {
        if (m_unitPos == m_unit.size())
            next_unit(seconds);
        size_t n = std::min(size - done, m_unit.size() - m_unitPos);
        for (const stream_mark& mark : m_unitMarks) {
            if (mark.position >= m_unitPos && mark.position < m_unitPos + n)
                marks.push_back({mark.kind, done + mark.position - m_unitPos, mark.value});
        }
        std::memcpy(dst + done, m_unit.data() + m_unitPos, n);
        m_unitPos += n;
        done += n;
    }
}

}  // namespace vqasisim
