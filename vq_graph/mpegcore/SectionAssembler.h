#pragma once
// Reassembles every PSI/SI section carried on the PIDs it is given: several
// sections in one packet, sections spread over packets, and a section whose
// last packet also starts the next one. Unlike the parser's own section
// reading, nothing needs to start a packet.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "mpegcore/BasePID.h"

namespace mpegcore {

class CSectionAssembler {
public:
    // Receives each complete section: its PID, its first byte (table_id) and
    // its size (section_length + 3). The bytes are valid during the call only.
    using section_callback = std::function<void(uint16_t pid, const unsigned char* section, size_t size)>;

    explicit CSectionAssembler(section_callback onSection);

    // Takes one packet of a section PID. A repeated packet (same continuity
    // counter) is ignored; a gap in the counters drops the section being
    // collected. Packets without payload only update the counter.
    void push_packet(const transport_packet& packet);
    // Forgets what is being collected on pid (or on every PID).
    void reset(uint16_t pid);
    void reset();

private:
    struct pid_state {
        std::vector<unsigned char> data;  // the section being collected
        bool collecting = false;          // a section start has been seen
        uint8_t continuity_counter = 0xFF;
    };
    pid_state& stateOf(uint16_t pid);
    // Delivers the complete sections held; stops collecting at
    // stuffing (table_id 0xFF), which fills the rest of the packet.
    void deliver(uint16_t pid, pid_state& state);
    void append(pid_state& state, const unsigned char* data, size_t size);

    section_callback m_fOnSection;
    std::vector<std::unique_ptr<pid_state>> m_states;  // by PID, made on first use
};

}  // namespace mpegcore
