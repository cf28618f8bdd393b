#pragma once
// Cuts PSI sections out of a transport stream file, for tests that need real
// tables before a packet parser is at hand.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vq_test {

// Complete sections (section_length + 3 bytes each) carried on `pid` of a
// stream of 188-byte packets, in order of arrival, at most maxSections of them.
// Packets without the sync byte, with the error indicator or without payload
// are skipped; assembly starts at the first payload_unit_start_indicator.
std::vector<std::vector<uint8_t>> cutSections(const std::vector<uint8_t>& ts, uint16_t pid,
                                              size_t maxSections = SIZE_MAX);

}  // namespace vq_test
