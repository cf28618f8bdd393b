#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "mpegcore/MpegCRC32.h"

namespace {

uint32_t crcBitByBit(const unsigned char* data, size_t size) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) {
        crc ^= uint32_t(data[i]) << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    }
    return crc;
}

uint32_t crcByteTable(const unsigned char* data, size_t size) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i)
        crc = (crc << 8) ^ mpegcore::g_MPEG2_PSI_CRC_32_Lookup[(crc >> 24) ^ data[i]];
    return crc;
}

}  // namespace

TEST(Crc32Mpeg2, CheckValueOf123456789) {
    const char* text = "123456789";
    EXPECT_EQ(mpegcore::crc32_mpeg2(reinterpret_cast<const unsigned char*>(text), 9), 0x0376E6E7u);
}

TEST(Crc32Mpeg2, TableEqualsBitByBitComputation) {
    for (unsigned b = 0; b < 256; ++b) {
        uint32_t crc = b << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
        EXPECT_EQ(mpegcore::g_MPEG2_PSI_CRC_32_Lookup[b], crc) << "entry " << b;
    }
}

TEST(Crc32Mpeg2, FastPathEqualsByteTableForEveryLengthAndAlignment) {
    std::mt19937 rng(42);
    std::vector<unsigned char> data(4096 + 16);
    for (auto& byte : data)
        byte = static_cast<unsigned char>(rng());
    for (size_t offset = 0; offset < 8; ++offset)
        for (size_t size = 0; size <= 300; ++size)
            ASSERT_EQ(mpegcore::crc32_mpeg2(data.data() + offset, size), crcByteTable(data.data() + offset, size))
                << "offset " << offset << " size " << size;
    EXPECT_EQ(mpegcore::crc32_mpeg2(data.data(), 4096), crcBitByBit(data.data(), 4096));
}
