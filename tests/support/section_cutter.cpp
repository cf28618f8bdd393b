#include "support/section_cutter.h"

#include "mpegcore/MpegConstants.h"

namespace vq_test {

namespace {

using mpegcore::kSyncByte;
using mpegcore::kTsPacketSize;

constexpr uint8_t kStuffing = 0xFF;

// Moves every complete section at the front of `pending` to `out`. Returns
// false when stuffing ends the sections of this payload unit.
bool takeSections(std::vector<uint8_t>& pending, std::vector<std::vector<uint8_t>>& out, size_t maxSections) {
    while (pending.size() >= 3 && out.size() < maxSections) {
        if (pending[0] == kStuffing)
            return false;
        const size_t size = (((pending[1] & 0x0F) << 8) | pending[2]) + 3u;
        if (pending.size() < size)
            break;
        out.emplace_back(pending.begin(), pending.begin() + size);
        pending.erase(pending.begin(), pending.begin() + size);
    }
    return true;
}

}  // namespace

std::vector<std::vector<uint8_t>> cutSections(const std::vector<uint8_t>& ts, uint16_t pid, size_t maxSections) {
    std::vector<std::vector<uint8_t>> sections;
    std::vector<uint8_t> pending;
    bool collecting = false;
    for (size_t at = 0; at + kTsPacketSize <= ts.size() && sections.size() < maxSections; at += kTsPacketSize) {
        const uint8_t* packet = ts.data() + at;
        const bool error = packet[1] & 0x80;
        const bool unitStart = packet[1] & 0x40;
        const uint16_t packetPid = ((packet[1] & 0x1F) << 8) | packet[2];
        const uint8_t control = (packet[3] >> 4) & 3;
        if (packet[0] != kSyncByte || error || packetPid != pid || !(control & 1))
            continue;
        size_t offset = 4;
        if (control & 2)
            offset += 1u + packet[4];
        if (offset >= kTsPacketSize)
            continue;
        const uint8_t* payload = packet + offset;
        const uint8_t* end = packet + kTsPacketSize;
        if (unitStart) {
            const size_t pointer = payload[0];
            const uint8_t* start = payload + 1 + pointer;
            if (start > end)
                continue;
            if (collecting) {
                pending.insert(pending.end(), payload + 1, start);
                takeSections(pending, sections, maxSections);
            }
            pending.assign(start, end);
            collecting = true;
        } else if (collecting) {
            pending.insert(pending.end(), payload, end);
        } else {
            continue;
        }
        collecting = takeSections(pending, sections, maxSections);
        if (!collecting)
            pending.clear();
    }
    return sections;
}

}  // namespace vq_test
