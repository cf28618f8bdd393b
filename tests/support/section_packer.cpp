#include "section_packer.h"

#include <algorithm>
#include <set>

#include "mpegcore/MpegConstants.h"

namespace vq_test {

std::vector<uint8_t> packSections(uint16_t pid, const std::vector<std::vector<uint8_t>>& sections, uint8_t& cc) {
    std::vector<uint8_t> data;
    std::set<size_t> starts;
    for (const auto& section : sections) {
        starts.insert(data.size());
        data.insert(data.end(), section.begin(), section.end());
    }
    std::vector<uint8_t> out;
    size_t pos = 0;
    while (pos < data.size()) {
        uint8_t packet[mpegcore::kTsPacketSize];
        std::fill(std::begin(packet), std::end(packet), 0xFF);
        packet[0] = mpegcore::kSyncByte;
        packet[1] = static_cast<uint8_t>(pid >> 8);
        packet[2] = static_cast<uint8_t>(pid);
        packet[3] = static_cast<uint8_t>(0x10 | (cc++ & 0x0F));
        const auto next = starts.lower_bound(pos);
        size_t take;
        uint8_t* payload = packet + 4;
        if (next != starts.end() && *next - pos < 183) {
            packet[1] |= 0x40;
            *payload++ = static_cast<uint8_t>(*next - pos);  // pointer field
            take = std::min<size_t>(183, data.size() - pos);
        } else {
            // No start fits behind a pointer field: end what is in progress
            // (at most 183 bytes when a start follows) and stuff the rest.
            take = std::min<size_t>(next != starts.end() ? *next - pos : 184, data.size() - pos);
            take = std::min<size_t>(take, 184);
        }
        std::copy(data.begin() + static_cast<std::ptrdiff_t>(pos),
                  data.begin() + static_cast<std::ptrdiff_t>(pos + take), payload);
        pos += take;
        out.insert(out.end(), std::begin(packet), std::end(packet));
    }
    cc &= 0x0F;
    return out;
}

}  // namespace vq_test
