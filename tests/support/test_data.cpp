#include "support/test_data.h"

#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace vq_test {

std::string dataPath(const std::string& name) {
    return std::string(VQ_TEST_DATA_DIR) + "/" + name;
}

std::vector<uint8_t> readDataFile(const std::string& name) {
    std::ifstream in(dataPath(name), std::ios::binary);
    EXPECT_TRUE(in.good()) << "cannot open " << dataPath(name);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace vq_test
