#pragma once
// Packs sections into transport packets back to back, the way multiplexers
// that save bandwidth do: several sections in one packet, and a section that
// starts in the packet where the previous one ends.

#include <cstdint>
#include <vector>

namespace vq_test {

// The packets of `sections` on pid, continuity counters from cc on (updated).
std::vector<uint8_t> packSections(uint16_t pid, const std::vector<std::vector<uint8_t>>& sections, uint8_t& cc);

}  // namespace vq_test
