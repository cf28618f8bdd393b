#include <gtest/gtest.h>

#include <vector>

#include "mpegcore/CAT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"
#include "support/descriptor_bytes.h"
#include "support/section_bytes.h"

using mpegcore::CCAT;
using mpegcore::CTDT;
using mpegcore::CTOT;
using mpegcore::CTSDT;
using vq_test::readTable;
using vq_test::renderedBytes;
using vq_test::SectionBytes;
using vq_test::withCrc;

namespace {

// A CAT (or, with table_id 0x03, a TSDT) section around a descriptor loop.
SectionBytes loopSection(uint8_t tableId, const SectionBytes& loop) {
    SectionBytes body{tableId, 0xB0, 0x00, 0xFF, 0xFF, 0xC9, 0x00, 0x00};  // version 4
    body.insert(body.end(), loop.begin(), loop.end());
    return withCrc(body);
}

const SectionBytes kCaLoop{0x09, 0x04, 0x0B, 0x00, 0xE1, 0x23, 0x09, 0x04, 0x18, 0x02, 0xE4, 0x56};

// A TOT section: 1993-10-13 12:45:00 and a descriptor loop.
SectionBytes totSection(const SectionBytes& loop) {
    SectionBytes body{
        0x73, 0x70, 0x00, 0xC0, 0x79, 0x12, 0x45, 0x00, uint8_t(0xF0 | (loop.size() >> 8)), uint8_t(loop.size())};
    body.insert(body.end(), loop.begin(), loop.end());
    return withCrc(body);
}

}  // namespace

TEST(CAT, ReadsFieldsAndDescriptors) {
    CCAT cat(nullptr, 1024);
    ASSERT_TRUE(readTable(cat, loopSection(0x01, kCaLoop)));
    EXPECT_EQ(cat.table_id, 0x01);
    EXPECT_EQ(cat.section_length, 9 + 12);
    EXPECT_EQ(cat.reserved1, 0x3FFFFu);
    EXPECT_EQ(cat.version_number, 4);
    EXPECT_EQ(cat.current_next_indicator, 1);
    ASSERT_EQ(cat.descriptors.descriptor.size(), 2u);
    EXPECT_EQ(cat.descriptors.descriptor.front()->descriptor_tag, 0x09);
    EXPECT_EQ(cat.descriptors.getSize(), 12);
}

TEST(CAT, SectionLength9HasAnEmptyLoop) {
    CCAT cat(nullptr, 1024);
    ASSERT_TRUE(readTable(cat, loopSection(0x01, {})));
    EXPECT_EQ(cat.section_length, 9);
    EXPECT_TRUE(cat.descriptors.descriptor.empty());
}

TEST(CAT, AlteredCrcFails) {
    SectionBytes section = loopSection(0x01, kCaLoop);
    section[section.size() - 2] ^= 0x80;
    CCAT cat(nullptr, 1024);
    EXPECT_FALSE(readTable(cat, section));
}

TEST(CAT, HeaderLengthShorterThanTheFieldsZeroesWhatIsNotReached) {
    // section_length 4: only the CRC after the header; the reader ends with
    // the section, inside the version fields.
    SectionBytes section = withCrc({0x01, 0xB0, 0x00});
    ASSERT_EQ(section.size(), 7u);
    CCAT cat(nullptr, 1024);
    cat.version_number = 9;
    cat.section_number = 9;
    cat.CRC = 1;
    ASSERT_TRUE(readTable(cat, section));
    EXPECT_EQ(cat.section_length, 4);
    EXPECT_EQ(cat.reserved1, uint32_t((section[3] << 10) | (section[4] << 2) | (section[5] >> 6)));
    EXPECT_EQ(cat.section_number, section[6]);
    EXPECT_EQ(cat.last_section_number, 0);
    EXPECT_EQ(cat.CRC, 0u);
    EXPECT_TRUE(cat.descriptors.descriptor.empty());
}

TEST(CAT, LoopLongerThanTheDataFails) {
    // section_length 20 but only 13 bytes follow in the reader.
    SectionBytes section = loopSection(0x01, kCaLoop);
    SectionBytes cut(section.begin(), section.begin() + 3);
    cut[2] = 9 + 3;  // claims a 3-byte loop
    cut.insert(cut.end(), {0xFF, 0xFF, 0xC1, 0x00, 0x00, 0x80, 0x01, 0x00});
    cut.resize(cut.size() + 4);
    vq_test::fixSectionCrc(cut);
    CCAT ok(nullptr, 1024);
    ASSERT_TRUE(readTable(ok, cut));
    EXPECT_EQ(ok.descriptors.descriptor.size(), 1u);
    cut.resize(cut.size() - 1);
    CCAT cat(nullptr, 1024);
    EXPECT_FALSE(readTable(cat, cut));
}

TEST(CAT, RenderThenReadBack) {
    CCAT cat(nullptr, 1024);
    ASSERT_TRUE(readTable(cat, loopSection(0x01, kCaLoop)));
    ASSERT_TRUE(vq_test::readLoop(cat.descriptors, {0x80, 0x02, 0xAB, 0xCD}));
    cat.version_number = 30;
    cat.RenderTable();
    EXPECT_EQ(cat.section_length, 9 + 16);
    const SectionBytes bytes = renderedBytes(cat);
    ASSERT_EQ(bytes.size(), 28u);
    EXPECT_EQ(mpegcore::crc32_mpeg2(bytes.data(), bytes.size()), 0u);
    CCAT back(nullptr, 1024);
    ASSERT_TRUE(readTable(back, bytes));
    EXPECT_EQ(back.reserved1, cat.reserved1);
    EXPECT_EQ(back.version_number, 30);
    EXPECT_EQ(back.current_next_indicator, cat.current_next_indicator);
    EXPECT_EQ(back.CRC, cat.CRC);
    EXPECT_EQ(vq_test::writeLoop(back.descriptors), vq_test::writeLoop(cat.descriptors));
}

TEST(CAT, CopyToReplacesDescriptors) {
    CCAT a(nullptr, 1024), b(nullptr, 1024);
    ASSERT_TRUE(readTable(a, loopSection(0x01, kCaLoop)));
    ASSERT_TRUE(readTable(b, loopSection(0x01, kCaLoop)));
    b.version_number = 0;
    a.copyTo(&b);
    EXPECT_EQ(b.version_number, 4);
    EXPECT_EQ(b.section_length, a.section_length);
    EXPECT_EQ(b.descriptors.descriptor.size(), 2u);
    EXPECT_EQ(b.CRC, a.CRC);
    b.Clear();
    EXPECT_TRUE(b.descriptors.descriptor.empty());
    EXPECT_EQ(a.descriptors.descriptor.size(), 2u);
}

TEST(TSDT, ReadsAndRendersLikeTheCat) {
    CTSDT tsdt(nullptr, 1024);
    ASSERT_TRUE(readTable(tsdt, loopSection(0x03, {0x80, 0x03, 'D', 'V', 'B'})));
    EXPECT_EQ(tsdt.table_id, 0x03);
    ASSERT_EQ(tsdt.descriptors.descriptor.size(), 1u);
    tsdt.RenderTable();
    EXPECT_EQ(renderedBytes(tsdt), loopSection(0x03, {0x80, 0x03, 'D', 'V', 'B'}));
}

TEST(TDT, ReadsTheTimeWithoutACrc) {
    CTDT tdt(nullptr, 1024);
    ASSERT_TRUE(readTable(tdt, SectionBytes{0x70, 0x70, 0x05, 0xC0, 0x79, 0x12, 0x45, 0x00}));
    EXPECT_EQ(tdt.table_id, 0x70);
    EXPECT_EQ(tdt.section_length, 5);
    EXPECT_EQ(tdt.UTC_time, 0xC079124500ull);
}

TEST(TDT, FewerThanFiveBytesAfterTheHeaderFail) {
    CTDT tdt(nullptr, 1024);
    EXPECT_FALSE(readTable(tdt, SectionBytes{0x70, 0x70, 0x05, 0xC0, 0x79, 0x12, 0x45}));
    EXPECT_FALSE(readTable(tdt, SectionBytes{0x70, 0x70}));
}

TEST(TDT, TimeConstructorRendersEightBytes) {
    CTDT tdt(0xC079124500ull, nullptr, 1024);
    tdt.RenderTable();
    EXPECT_EQ(renderedBytes(tdt), (SectionBytes{0x70, 0x30, 0x05, 0xC0, 0x79, 0x12, 0x45, 0x00}));
    CTDT back(nullptr, 1024);
    ASSERT_TRUE(readTable(back, renderedBytes(tdt)));
    EXPECT_EQ(back.UTC_time, 0xC079124500ull);
    EXPECT_EQ(back.zero, 0);
    EXPECT_EQ(back.reserved, 3);
}

TEST(TDT, CopyToSetsLengthFive) {
    CTDT a(0xC079124500ull, nullptr, 1024);
    CTDT b(nullptr, 1024);
    b.section_length = 77;
    a.copyTo(&b);
    EXPECT_EQ(b.table_id, 0x70);
    EXPECT_EQ(b.reserved, 3);
    EXPECT_EQ(b.UTC_time, a.UTC_time);
    EXPECT_EQ(b.section_length, 5);
}

TEST(TOT, ReadsTimeAndDescriptors) {
    CTOT tot(nullptr, 1024);
    const SectionBytes lto{0x58, 0x0D, 'D', 'E', 'U', 0x02, 0x01, 0x00, 0xC0, 0x79, 0x02, 0x00, 0x00, 0x02, 0x00};
    ASSERT_TRUE(readTable(tot, totSection(lto)));
    EXPECT_EQ(tot.table_id, 0x73);
    EXPECT_EQ(tot.UTC_time, 0xC079124500ull);
    EXPECT_EQ(tot.reserved1, 0xF);
    EXPECT_EQ(tot.descriptors_loop_length, 15);
    ASSERT_EQ(tot.descriptors.descriptor.size(), 1u);
    EXPECT_EQ(tot.descriptors.descriptor.front()->descriptor_tag, 0x58);
}

TEST(TOT, AlteredCrcByteFails) {
    SectionBytes section = totSection({0x80, 0x00, 0x80, 0x01, 0x07});
    CTOT tot(nullptr, 1024);
    ASSERT_TRUE(readTable(tot, section));
    section[section.size() - 3] ^= 0x10;
    CTOT again(nullptr, 1024);
    EXPECT_FALSE(readTable(again, section));
}

TEST(TOT, DataEndingEarlyZeroesTheLaterFields) {
    // section_length 6: the time, then the reader ends inside descriptors_loop_length.
    SectionBytes section{0x73, 0x70, 0x06, 0xC0, 0x79, 0x12, 0x45, 0x00, 0x00};
    vq_test::fixSectionCrc(section);
    CTOT tot(nullptr, 1024);
    tot.reserved1 = 5;
    tot.descriptors_loop_length = 5;
    ASSERT_TRUE(readTable(tot, section));
    EXPECT_EQ(tot.UTC_time, uint64_t(section[3]) << 32 | uint64_t(section[4]) << 24 | section[5] << 16 |
                                section[6] << 8 | section[7]);
    EXPECT_EQ(tot.reserved1, section[8] >> 4);
    EXPECT_EQ(tot.descriptors_loop_length, 0);
    EXPECT_EQ(tot.CRC, 0u);
}

TEST(TOT, LoopLongerThanTheDataFails) {
    SectionBytes section = totSection({0x80, 0x01, 0x07});
    section[9] = 0x40;  // loop length 64
    vq_test::fixSectionCrc(section);
    CTOT tot(nullptr, 1024);
    EXPECT_FALSE(readTable(tot, section));
}

TEST(TOT, RenderThenReadBack) {
    CTOT tot(nullptr, 1024);
    tot.table_id = 0x73;
    tot.reserved = 3;
    tot.UTC_time = 0xEFBF194002ull;
    tot.reserved1 = 0xF;
    ASSERT_TRUE(vq_test::readLoop(tot.descriptors, {0x80, 0x01, 0x07, 0x81, 0x03, 1, 2, 3}));
    tot.RenderTable();
    EXPECT_EQ(tot.section_length, 11 + 8);
    EXPECT_EQ(tot.descriptors_loop_length, 8);
    const SectionBytes bytes = renderedBytes(tot);
    ASSERT_EQ(bytes.size(), 22u);
    EXPECT_EQ(mpegcore::crc32_mpeg2(bytes.data(), bytes.size()), 0u);
    CTOT back(nullptr, 1024);
    ASSERT_TRUE(readTable(back, bytes));
    EXPECT_EQ(back.UTC_time, tot.UTC_time);
    EXPECT_EQ(back.reserved1, 0xF);
    EXPECT_EQ(back.CRC, tot.CRC);
    EXPECT_EQ(vq_test::writeLoop(back.descriptors), vq_test::writeLoop(tot.descriptors));

    CTOT copy(nullptr, 64);
    back.copyTo(&copy);
    EXPECT_EQ(copy.UTC_time, tot.UTC_time);
    EXPECT_EQ(copy.descriptors_loop_length, 8);
    copy.RenderTable();
    EXPECT_EQ(renderedBytes(copy), bytes);
}
