#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "mpegcore/BaseMpegTable.h"
#include "mpegcore/EIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/TDT.h"
#include "support/test_data.h"

using mpegcore::CBaseMpegTable;
using Reader = VQSDK::VQBSReaderT<unsigned char*>;
using Writer = VQSDK::VQBSWriterT<unsigned char*>;

namespace {

// The first PAT section of a capture: PID 0, payload unit start, after the pointer field.
std::vector<unsigned char> firstPatSection(const std::vector<uint8_t>& ts) {
    for (size_t at = 0; at + 188 <= ts.size(); at += 188) {
        const uint8_t* p = &ts[at];
        const unsigned pid = ((p[1] & 0x1F) << 8) | p[2];
        if (p[0] != 0x47 || pid != 0 || !(p[1] & 0x40))
            continue;
        size_t offset = 4;
        if (p[3] & 0x20)
            offset += 1 + p[4];
        offset += 1 + p[offset];
        const size_t length = (((p[offset + 1] & 0x0F) << 8) | p[offset + 2]) + 3;
        if (offset + length <= 188)
            return std::vector<unsigned char>(p + offset, p + offset + length);
    }
    return {};
}

// A minimal table: header plus a CRC, to reach the base's helpers.
class HeaderOnlyTable : public CBaseMpegTable {
public:
    using CBaseMpegTable::CBaseMpegTable;

    bool read(Reader& reader) override {
        const unsigned char* start = reader.getData();
        CBaseMpegTable::read(reader);
        return isCompleteWithValidCRC(start, reader);
    }
    uint16_t calc_section_length() const override { return 5 + 4; }

    bool RenderTable() {
        Writer writer(m_pDataTable, m_lMaxSize);
        write(writer);
        writer.putBits<unsigned long>(0x0102030405ul, 40);
        return finishRender(writer, CRC);
    }
    uint32_t CRC = 0;
};

}  // namespace

TEST(Crc32Mpeg2, RealPatSectionChecksToZero) {
    auto section = firstPatSection(vq_test::readDataFile("live-025.ts"));
    ASSERT_EQ(section.size(), 16u);
    EXPECT_EQ(section[0], 0x00);
    EXPECT_EQ(mpegcore::crc32_mpeg2(section.data(), section.size()), 0u);
    section[5] ^= 0x01;
    EXPECT_NE(mpegcore::crc32_mpeg2(section.data(), section.size()), 0u);
}

TEST(SectionBase, HeaderFieldsAreRead) {
    unsigned char bytes[] = {0x42, 0xF1, 0x23};
    CBaseMpegTable table(nullptr, 16);
    Reader reader(bytes, sizeof bytes);
    EXPECT_TRUE(table.read(reader));
    EXPECT_EQ(table.table_id, 0x42);
    EXPECT_EQ(table.section_syntax_indicator, 1);
    EXPECT_EQ(table.zero, 1);
    EXPECT_EQ(table.reserved, 3);
    EXPECT_EQ(table.section_length, 0x123);
}

TEST(SectionBase, TwoByteReaderLeavesLengthUnsetAndDerivedReadFails) {
    unsigned char bytes[] = {0x00, 0xB0};
    HeaderOnlyTable table(nullptr, 16);
    table.section_length = 0xABC;
    Reader reader(bytes, sizeof bytes);
    EXPECT_TRUE(table.CBaseMpegTable::read(reader));
    EXPECT_EQ(table.table_id, 0x00);
    // The 12-bit field ran out after 4 bits: it holds those bits, not a length.
    EXPECT_EQ(table.section_length, 0);

    Reader again(bytes, sizeof bytes);
    EXPECT_FALSE(table.read(again));
}

TEST(SectionBase, ExhaustedReaderLeavesFieldsUntouched) {
    CBaseMpegTable table(nullptr, 16);
    table.table_id = 0x77;
    unsigned char byte = 0;
    Reader reader(&byte, 0);
    EXPECT_TRUE(table.read(reader));
    EXPECT_EQ(table.table_id, 0x77);
}

TEST(SectionBase, AlteredCrcFailsAndFixedCrcPasses) {
    auto section = firstPatSection(vq_test::readDataFile("live-025.ts"));
    ASSERT_FALSE(section.empty());
    HeaderOnlyTable table(nullptr, 1024);
    {
        Reader reader(section.data(), section.size());
        EXPECT_TRUE(table.read(reader));
    }
    section.back() ^= 0xFF;
    {
        Reader reader(section.data(), section.size());
        EXPECT_FALSE(table.read(reader));
    }
    // Recompute the CRC over everything but the CRC field.
    const uint32_t crc = mpegcore::crc32_mpeg2(section.data(), section.size() - 4);
    for (int i = 0; i < 4; ++i)
        section[section.size() - 4 + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
    Reader reader(section.data(), section.size());
    EXPECT_TRUE(table.read(reader));
}

TEST(SectionBase, RenderWritesHeaderLengthAndValidCrc) {
    HeaderOnlyTable table(nullptr, 64);
    table.table_id = 0x02;
    table.section_syntax_indicator = 1;
    table.reserved = 3;
    EXPECT_TRUE(table.RenderTable());
    EXPECT_EQ(table.section_length, 9);
    EXPECT_EQ(table.GetSizeBuffer(), 12u);
    const unsigned char* buf = table.GetBuffer();
    EXPECT_EQ(buf[0], 0x02);
    EXPECT_EQ(buf[1], 0xB0);
    EXPECT_EQ(buf[2], 0x09);
    EXPECT_EQ(mpegcore::crc32_mpeg2(buf, 12), 0u);
    EXPECT_EQ(table.CRC, (uint32_t(buf[8]) << 24) | (buf[9] << 16) | (buf[10] << 8) | buf[11]);
}

TEST(SectionBase, RenderIntoTooSmallBufferStaysInside) {
    std::vector<unsigned char> storage(16, 0xEE);
    HeaderOnlyTable table(storage.data(), 6);
    EXPECT_FALSE(table.RenderTable());
    EXPECT_EQ(table.GetSizeBuffer(), 6u);  // the cut section, never more than the buffer
    for (size_t i = 6; i < storage.size(); ++i)
        EXPECT_EQ(storage[i], 0xEE) << "byte " << i;
}

TEST(SectionBase, AddDataNeverFillsTheLastByte) {
    CBaseMpegTable table(nullptr, 10);
    unsigned char data[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_FALSE(table.AddData(data, 10));
    EXPECT_EQ(table.GetSizeBuffer(), 0u);
    EXPECT_TRUE(table.AddData(data, 9));
    EXPECT_EQ(table.GetSizeBuffer(), 9u);
    EXPECT_EQ(table.GetBuffer()[8], 9);
    EXPECT_FALSE(table.AddData(data, 1));
}

TEST(SectionBase, ClearZeroesTheBufferAndSize) {
    CBaseMpegTable table(nullptr, 8);
    unsigned char data[3] = {7, 7, 7};
    table.AddData(data, 3);
    table.Clear();
    EXPECT_EQ(table.GetSizeBuffer(), 0u);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(table.GetBuffer()[i], 0);
}

TEST(SectionBase, OwnsItsBufferOnlyWhenItAllocatedIt) {
    CBaseMpegTable owning(nullptr, 1024);
    EXPECT_EQ(owning.m_bSelfAlloc, 1);
    EXPECT_NE(owning.GetBuffer(), nullptr);
    EXPECT_EQ(owning.m_lMaxSize, 1024u);
    owning.GetBuffer()[1023] = 1;  // the whole buffer is usable (ASan checks the bound)

    std::vector<unsigned char> mine(32, 0x5A);
    {
        CBaseMpegTable borrowing(mine.data(), mine.size());
        EXPECT_EQ(borrowing.m_bSelfAlloc, 0);
        EXPECT_EQ(borrowing.GetBuffer(), mine.data());
    }
    EXPECT_EQ(mine[0], 0x5A);  // still ours, still intact (ASan reports a bad free)
}

TEST(SectionBase, AddDataWithoutBufferFails) {
    CBaseMpegTable table(nullptr, 0);
    unsigned char byte = 1;
    EXPECT_FALSE(table.AddData(&byte, 1));
}

namespace {

mpegcore::CBaseMpegProgram programOn(uint16_t number, uint16_t pid) {
    mpegcore::CBaseMpegProgram program;
    program.program_number = number;
    program.map_PID.program_map_PID = pid;
    return program;
}

}  // namespace

TEST(SectionRender, PatThatFitsExactlyRendersWhole) {
    mpegcore::CPAT pat(nullptr, 24);  // 3 programs: section_length 21, 24 bytes
    for (uint16_t i = 1; i <= 3; ++i)
        pat.program_map[uint16_t(0x100 + i)] = programOn(i, uint16_t(0x100 + i));
    EXPECT_TRUE(pat.RenderTable());
    EXPECT_EQ(pat.GetSizeBuffer(), 24u);
    EXPECT_EQ(mpegcore::crc32_mpeg2(pat.GetBuffer(), 24), 0u);
}

TEST(SectionRender, PatOneByteTooLargeReportsFailureAndStaysInside) {
    std::vector<unsigned char> storage(32, 0xEE);
    mpegcore::CPAT pat(storage.data(), 23);
    for (uint16_t i = 1; i <= 3; ++i)
        pat.program_map[uint16_t(0x100 + i)] = programOn(i, uint16_t(0x100 + i));
    EXPECT_FALSE(pat.RenderTable());
    EXPECT_EQ(pat.GetSizeBuffer(), 23u);
    EXPECT_LE(pat.GetSizeBuffer(), pat.m_lMaxSize);
    for (size_t i = 23; i < storage.size(); ++i)
        EXPECT_EQ(storage[i], 0xEE) << "byte " << i;
}

TEST(SectionRender, LengthBeyondTwelveBitsFailsEvenInALargeBuffer) {
    mpegcore::CPAT pat(nullptr, 8192);
    for (uint16_t i = 1; i <= 1100; ++i)  // section_length 9 + 4400 does not fit 12 bits
        pat.program_map[uint16_t(0x20 + i)] = programOn(i, uint16_t(0x20 + i));
    EXPECT_FALSE(pat.RenderTable());
    EXPECT_LE(pat.GetSizeBuffer(), pat.m_lMaxSize);
}

TEST(SectionRender, EitWithMoreEventsThanTheBufferHoldsFails) {
    mpegcore::CEIT eit(nullptr, 64);
    for (int i = 0; i < 10; ++i)  // 15 + 10 x 12 bytes of section
        eit.eventInfo.push_back(std::make_shared<mpegcore::CEventInfo>());
    EXPECT_FALSE(eit.RenderTable());
    EXPECT_EQ(eit.GetSizeBuffer(), 64u);

    mpegcore::CEIT small(nullptr, 64);
    small.eventInfo.push_back(std::make_shared<mpegcore::CEventInfo>());
    EXPECT_TRUE(small.RenderTable());
    EXPECT_EQ(small.GetSizeBuffer(), 30u);
}

TEST(SectionRender, TdtNeedsEightBytes) {
    mpegcore::CTDT fits(nullptr, 8);
    fits.table_id = 0x70;
    EXPECT_TRUE(fits.RenderTable());
    EXPECT_EQ(fits.GetSizeBuffer(), 8u);

    mpegcore::CTDT cut(nullptr, 7);
    cut.table_id = 0x70;
    EXPECT_FALSE(cut.RenderTable());
    EXPECT_EQ(cut.GetSizeBuffer(), 7u);
}
