#pragma once
// The transport stream the simulated board receives: an input file played in a
// loop (or null packets when there is none), with the configured packet faults.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vqasisim_config.h"

namespace vqasisim {

// Something noteworthy placed in the stream; `position` is its byte offset in
// the block handed to stream_source::read.
struct stream_mark {
    enum kind_t { loop, garbage, cc, packet_size } kind = loop;
    size_t position = 0;
    uint64_t value = 0;  // garbage: byte count; cc: PID of the packet left out; packet_size: the new size
};

struct stream_counters {
    uint64_t file_bytes = 0;  // bytes taken from the input
    uint64_t loops = 0;
    uint64_t packets = 0;  // packets placed in the stream
    uint64_t garbage_insertions = 0;
    uint64_t garbage_bytes = 0;
    uint64_t cc_errors = 0;
    uint64_t parity_bytes = 0;
    uint64_t packet_size_switches = 0;
};

class stream_source {
public:
    stream_source() = default;
    ~stream_source();
    stream_source(const stream_source&) = delete;
    stream_source& operator=(const stream_source&) = delete;

    // Maps `path` (or makes null packets when it is empty). False with `error` set on failure.
    bool open(const std::string& path, const config& settings, std::string& error);
    // Back to the first byte of the input; counters are kept.
    void rewind();
    // Fills `size` bytes and appends the marks that fall inside them. `seconds`:
    // the time since the open, which picks the packet size of the packets begun.
    void read(uint8_t* dst, size_t size, std::vector<stream_mark>& marks, double seconds);

    const stream_counters& counters() const { return m_counters; }

private:
    bool packet_mode() const;
    void next_unit(double seconds);
    bool take_packet(const uint8_t*& packet);
    void release();

    const uint8_t* m_data = nullptr;
    size_t m_size = 0;
    void* m_mapping = nullptr;
    size_t m_mappingSize = 0;
    std::vector<uint8_t> m_generated;  // null packet when there is no input file
    bool m_markLoops = true;

    config m_settings;  // packet size script and packet faults
    bool m_packetMode = false;
    unsigned m_packetSize = mpegcore::kTsPacketSize;  // of the last packet begun
    every_count m_garbage;
    uint64_t m_ccEvery = 0;

    size_t m_pos = 0;             // next input byte
    std::vector<uint8_t> m_unit;  // packet mode: the unit being copied out
    size_t m_unitPos = 0;
    std::vector<stream_mark> m_unitMarks;  // positions inside m_unit
    uint64_t m_eligible = 0;               // packets that could carry a continuity error
    uint64_t m_runPackets = 0;             // packets since the last rewind
    uint32_t m_garbageSeed = 0x2545F491u;
    stream_counters m_counters;
};

}  // namespace vqasisim
