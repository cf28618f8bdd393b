#include "mpegcore/SectionAssembler.h"

#include <cstddef>
#include <utility>

#include "mpegcore/MpegConstants.h"

namespace mpegcore {

namespace {
constexpr size_t kHeaderSize = 3;  // table_id and section_length
constexpr unsigned char kStuffing = 0xFF;
}  // namespace

CSectionAssembler::CSectionAssembler(section_callback onSection)
    : m_fOnSection(std::move(onSection)), m_states(kPidCount) {}

CSectionAssembler::pid_state& CSectionAssembler::stateOf(uint16_t pid) {
    auto& state = m_states[pid & (kPidCount - 1)];
    if (!state)
        state.reset(new pid_state);
    return *state;
}

void CSectionAssembler::reset(uint16_t pid) {
    auto& state = m_states[pid & (kPidCount - 1)];
    if (state)
        *state = pid_state();
}

void CSectionAssembler::reset() {
    for (auto& state : m_states)
        if (state)
            *state = pid_state();
}

void CSectionAssembler::append(pid_state& state, const unsigned char* data, size_t size) {
    state.data.insert(state.data.end(), data, data + size);
}

void CSectionAssembler::deliver(uint16_t pid, pid_state& state) {
    size_t start = 0;
    while (state.collecting && state.data.size() - start >= kHeaderSize) {
        const unsigned char* section = state.data.data() + start;
        if (section[0] == kStuffing) {
            state.collecting = false;
            break;
        }
        const size_t size = kHeaderSize + (((section[1] & 0x0F) << 8) | section[2]);
        if (state.data.size() - start < size)
            break;
        start += size;
        m_fOnSection(pid, section, size);
    }
    // Keep only the incomplete section (or header) at the front.
    if (!state.collecting)
        state.data.clear();
    else
        state.data.erase(state.data.begin(), state.data.begin() + static_cast<std::ptrdiff_t>(start));
}

void CSectionAssembler::push_packet(const transport_packet& packet) {
    pid_state& state = stateOf(packet.PID);
    const uint8_t cc = packet.continuity_counter;
    if (!packet.hasPayload()) {
        state.continuity_counter = cc;
        return;
    }
    if (state.continuity_counter != 0xFF) {
        if (cc == state.continuity_counter)
            return;  // a repeated packet
        if (cc != ((state.continuity_counter + 1) & 0x0F))
            state.collecting = false;  // lost packets: the section is incomplete
    }
    state.continuity_counter = cc;
    const unsigned char* payload = packet.pCurrDataPkt;
    const int64_t size = packet.lCurrSizePkt;
    if (!payload || size <= 0)
        return;
    if (!packet.payload_unit_start_indicator) {
        if (state.collecting) {
            append(state, payload, static_cast<size_t>(size));
            deliver(packet.PID, state);
        }
        return;
    }
    const size_t pointer = payload[0];
    if (pointer + 1 > static_cast<size_t>(size)) {
        state.collecting = false;  // a pointer past the packet: nothing here is usable
        state.data.clear();
        return;
    }
    if (state.collecting && pointer > 0) {
        append(state, payload + 1, pointer);  // the end of the section in progress
        deliver(packet.PID, state);
    }
    state.data.clear();
    state.collecting = true;
    append(state, payload + 1 + pointer, static_cast<size_t>(size) - 1 - pointer);
    deliver(packet.PID, state);
}

}  // namespace mpegcore
