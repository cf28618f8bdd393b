#include "support/test_data.h"

#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace vq_test {

std::string dataPath(const std::string& name) { return std::string(VQ_TEST_DATA_DIR) + "/" + name; }

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<uint8_t> readDataFile(const std::string& name) {
    EXPECT_TRUE(std::ifstream(dataPath(name)).good()) << "cannot open " << dataPath(name);
    return readFile(dataPath(name));
}

}  // namespace vq_test
