#pragma once
// Access to the files under tests/data.

#include <cstdint>
#include <string>
#include <vector>

namespace vq_test {

// Full path of a file under tests/data.
std::string dataPath(const std::string& name);

// The whole file at any path; empty when it cannot be read.
std::vector<uint8_t> readFile(const std::string& path);

// The whole file under tests/data; fails the current test (and returns empty) when it cannot be read.
std::vector<uint8_t> readDataFile(const std::string& name);

}  // namespace vq_test
