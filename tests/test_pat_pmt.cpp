#include <gtest/gtest.h>

#include <vector>

#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "support/descriptor_bytes.h"
#include "support/section_bytes.h"

using mpegcore::CPAT;
using mpegcore::CPMT;
using vq_test::readTable;
using vq_test::renderedBytes;
using vq_test::SectionBytes;
using vq_test::withCrc;

namespace {

// A PAT section with the given programs (number, PID) and its CRC.
SectionBytes patSection(std::vector<std::pair<uint16_t, uint16_t>> programs, uint8_t tableId = 0x00) {
    SectionBytes body{tableId, 0xB0, 0x00, 0x12, 0x34, 0xC5, 0x00, 0x00};  // tsid 0x1234, version 2
    for (auto [number, pid] : programs) {
        body.push_back(uint8_t(number >> 8));
        body.push_back(uint8_t(number));
        body.push_back(uint8_t(0xE0 | (pid >> 8)));
        body.push_back(uint8_t(pid));
    }
    return withCrc(body);
}

// A PMT body up to the program_info_length field (program 1, PCR PID 0x100).
SectionBytes pmtHead(uint16_t programInfoLength) {
    return {0x02,
            0xB0,
            0x00,
            0x00,
            0x01,
            0xC3,
            0x00,
            0x00,
            0xE1,
            0x00,
            uint8_t(0xF0 | (programInfoLength >> 8)),
            uint8_t(programInfoLength)};
}

void appendStream(SectionBytes& body, uint8_t type, uint16_t pid, const SectionBytes& descriptors) {
    body.push_back(type);
    body.push_back(uint8_t(0xE0 | (pid >> 8)));
    body.push_back(uint8_t(pid));
    body.push_back(uint8_t(0xF0 | (descriptors.size() >> 8)));
    body.push_back(uint8_t(descriptors.size()));
    body.insert(body.end(), descriptors.begin(), descriptors.end());
}

SectionBytes twoStreamPmt(uint8_t firstType = 0x1B) {
    SectionBytes body = pmtHead(4);
    body.insert(body.end(), {0x80, 0x02, 0x11, 0x22});
    appendStream(body, firstType, 0x101, {0x81, 0x01, 0x33});
    appendStream(body, 0x03, 0x102, {});
    return withCrc(body);
}

}  // namespace

TEST(PAT, ReadsHeaderFieldsAndEntries) {
    CPAT pat(nullptr, 1024);
    ASSERT_TRUE(readTable(pat, patSection({{0, 0x10}, {1, 0x100}, {2, 0x200}})));
    EXPECT_EQ(pat.table_id, 0x00);
    EXPECT_EQ(pat.section_syntax_indicator, 1);
    EXPECT_EQ(pat.section_length, 9 + 12);
    EXPECT_EQ(pat.transport_stream_id, 0x1234);
    EXPECT_EQ(pat.reserved1, 3);
    EXPECT_EQ(pat.version_number, 2);
    EXPECT_EQ(pat.current_next_indicator, 1);
    ASSERT_EQ(pat.program_map.size(), 3u);
    EXPECT_EQ(pat.program_map.at(0x10).program_number, 0);
    EXPECT_EQ(pat.program_map.at(0x10).map_PID.network_PID, 0x10);
    EXPECT_EQ(pat.program_map.at(0x200).program_number, 2);
    EXPECT_EQ(pat.program_map.at(0x200).map_PID.program_map_PID, 0x200);
    EXPECT_EQ(pat.program_map.at(0x200).reserved, 7);
}

TEST(PAT, SectionLength13YieldsOneEntry9And12None) {
    CPAT pat(nullptr, 1024);
    ASSERT_TRUE(readTable(pat, patSection({{5, 0x50}})));
    EXPECT_EQ(pat.section_length, 13);
    EXPECT_EQ(pat.program_map.size(), 1u);

    CPAT empty(nullptr, 1024);
    ASSERT_TRUE(readTable(empty, patSection({})));
    EXPECT_EQ(empty.section_length, 9);
    EXPECT_TRUE(empty.program_map.empty());

    // Three stray bytes before the CRC: no whole entry.
    SectionBytes body{0x00, 0xB0, 0x00, 0x12, 0x34, 0xC1, 0x00, 0x00, 0x00, 0x01, 0xE1};
    CPAT twelve(nullptr, 1024);
    ASSERT_TRUE(readTable(twelve, withCrc(body)));
    EXPECT_EQ(twelve.section_length, 12);
    EXPECT_TRUE(twelve.program_map.empty());
}

TEST(PAT, TwoProgramsOnOnePidKeepTheLaterOne) {
    CPAT pat(nullptr, 1024);
    ASSERT_TRUE(readTable(pat, patSection({{1, 0x100}, {2, 0x100}})));
    ASSERT_EQ(pat.program_map.size(), 1u);
    EXPECT_EQ(pat.program_map.at(0x100).program_number, 2);
}

TEST(PAT, TableIdIsNotChecked) {
    CPAT pat(nullptr, 1024);
    ASSERT_TRUE(readTable(pat, patSection({{1, 0x100}}, 0x42)));
    EXPECT_EQ(pat.table_id, 0x42);
    EXPECT_EQ(pat.program_map.size(), 1u);
}

TEST(PAT, ReadingAgainAccumulatesUnlessCleared) {
    CPAT pat(nullptr, 1024);
    ASSERT_TRUE(readTable(pat, patSection({{1, 0x100}})));
    ASSERT_TRUE(readTable(pat, patSection({{2, 0x200}})));
    EXPECT_EQ(pat.program_map.size(), 2u);
    pat.Clear();
    ASSERT_TRUE(readTable(pat, patSection({{2, 0x200}})));
    EXPECT_EQ(pat.program_map.size(), 1u);
}

TEST(PAT, AlteredCrcFailsAndFixedCrcPasses) {
    SectionBytes section = patSection({{1, 0x100}});
    section.back() ^= 0x01;
    CPAT pat(nullptr, 1024);
    EXPECT_FALSE(readTable(pat, section));
    vq_test::fixSectionCrc(section);
    EXPECT_TRUE(readTable(pat, section));
}

TEST(PAT, IncompleteSectionFails) {
    SectionBytes section = patSection({{1, 0x100}});
    section.pop_back();
    CPAT pat(nullptr, 1024);
    EXPECT_FALSE(readTable(pat, section));
    EXPECT_FALSE(readTable(pat, SectionBytes{0x00, 0x00}));
    EXPECT_FALSE(readTable(pat, SectionBytes{}));
}

TEST(PAT, RenderThenReadBack) {
    CPAT pat(nullptr, 1024);
    pat.table_id = 0x00;
    pat.section_syntax_indicator = 1;
    pat.reserved = 3;
    pat.transport_stream_id = 0xBEEF;
    pat.reserved1 = 3;
    pat.version_number = 17;
    pat.current_next_indicator = 1;
    pat.section_number = 0;
    pat.last_section_number = 0;
    for (uint16_t i = 0; i < 20; ++i) {
        mpegcore::CBaseMpegProgram program;
        program.program_number = uint16_t(i * 3);
        program.reserved = 7;
        program.map_PID.program_map_PID = uint16_t(0x1FFF - i * 7);
        pat.program_map[program.map_PID.program_map_PID] = program;
    }
    EXPECT_EQ(pat.calc_section_length(), 9 + 80);
    pat.RenderTable();
    const SectionBytes bytes = renderedBytes(pat);
    ASSERT_EQ(bytes.size(), 3u + 89u);
    EXPECT_EQ(mpegcore::crc32_mpeg2(bytes.data(), bytes.size()), 0u);

    CPAT back(nullptr, 1024);
    ASSERT_TRUE(readTable(back, bytes));
    EXPECT_EQ(back.section_length, 89);
    EXPECT_EQ(back.transport_stream_id, 0xBEEF);
    EXPECT_EQ(back.version_number, 17);
    EXPECT_EQ(back.CRC, pat.CRC);
    ASSERT_EQ(back.program_map.size(), pat.program_map.size());
    for (const auto& [pid, program] : pat.program_map) {
        EXPECT_EQ(back.program_map.at(pid).program_number, program.program_number);
        EXPECT_EQ(back.program_map.at(pid).reserved, program.reserved);
    }
    // Entries go out in ascending PID order.
    EXPECT_EQ(((bytes[10] & 0x1F) << 8) | bytes[11], pat.program_map.begin()->first);
}

TEST(PAT, ShallowComparison) {
    CPAT a(nullptr, 1024), b(nullptr, 1024);
    ASSERT_TRUE(readTable(a, patSection({{1, 0x100}})));
    ASSERT_TRUE(readTable(b, patSection({{9, 0x900}})));
    EXPECT_FALSE(a != b);  // entries themselves are not compared
    b.reserved1 = 0;
    b.reserved = 0;
    EXPECT_FALSE(a != b);
    b.version_number++;
    EXPECT_TRUE(a != b);
    b.version_number--;
    b.section_number = 1;
    EXPECT_TRUE(a != b);
    b.section_number = a.section_number;
    b.program_map[0x901] = mpegcore::CBaseMpegProgram();
    EXPECT_TRUE(a != b);
}

TEST(PAT, CopyToCopiesFieldsAndEntries) {
    CPAT a(nullptr, 1024), b(nullptr, 1024);
    ASSERT_TRUE(readTable(a, patSection({{1, 0x100}, {2, 0x200}})));
    a.copyTo(&b);
    EXPECT_FALSE(a != b);
    EXPECT_EQ(b.CRC, a.CRC);
    EXPECT_EQ(b.program_map.size(), 2u);
    EXPECT_EQ(b.program_map.at(0x200).program_number, 2);
}

TEST(BaseMpegProgram, CopyToLeavesValidityAlone) {
    mpegcore::CBaseMpegProgram a, b;
    a.program_number = 7;
    a.reserved = 5;
    a.map_PID.program_map_PID = 0x123;
    a.SetValid(1);
    a.copyTo(&b);
    EXPECT_EQ(b.program_number, 7);
    EXPECT_EQ(b.reserved, 5);
    EXPECT_EQ(b.map_PID.network_PID, 0x123);
    EXPECT_EQ(b.IsValid(), 0);
}

TEST(PMT, ReadsProgramAndStreams) {
    CPMT pmt(nullptr, 1024);
    ASSERT_TRUE(readTable(pmt, twoStreamPmt()));
    EXPECT_EQ(pmt.program_number, 1);
    EXPECT_EQ(pmt.version_number, 1);
    EXPECT_EQ(pmt.PCR_PID, 0x100);
    EXPECT_EQ(pmt.reserved2, 7);
    EXPECT_EQ(pmt.program_info_length, 4);
    ASSERT_EQ(pmt.descriptors.descriptor.size(), 1u);
    EXPECT_EQ(pmt.descriptors.descriptor.front()->descriptor_tag, 0x80);
    ASSERT_EQ(pmt.stream_map.size(), 2u);
    const auto& video = pmt.stream_map.at(0x101);
    EXPECT_EQ(video->stream_type, 0x1B);
    EXPECT_EQ(video->elementary_PID, 0x101);
    EXPECT_EQ(video->ES_info_length, 3);
    ASSERT_EQ(video->descriptors.descriptor.size(), 1u);
    EXPECT_EQ(video->descriptors.descriptor.front()->descriptor_tag, 0x81);
    EXPECT_EQ(pmt.stream_map.at(0x102)->stream_type, 0x03);
    EXPECT_TRUE(pmt.stream_map.at(0x102)->descriptors.descriptor.empty());
}

TEST(PMT, BitAfterSyntaxIndicatorSetFails) {
    SectionBytes section = twoStreamPmt();
    section[1] |= 0x40;
    vq_test::fixSectionCrc(section);
    CPMT pmt(nullptr, 1024);
    EXPECT_FALSE(readTable(pmt, section));
    section[1] &= ~0x40;
    vq_test::fixSectionCrc(section);
    EXPECT_TRUE(readTable(pmt, section));
}

TEST(PMT, OtherTableIdFailsSyntaxIndicatorIsNotTested) {
    SectionBytes section = twoStreamPmt();
    section[0] = 0x00;
    vq_test::fixSectionCrc(section);
    CPMT pmt(nullptr, 1024);
    EXPECT_FALSE(readTable(pmt, section));
    section[0] = 0x02;
    section[1] &= 0x7F;
    vq_test::fixSectionCrc(section);
    EXPECT_TRUE(readTable(pmt, section));
}

TEST(PMT, EsInfoLengthPastTheSectionFails) {
    SectionBytes body = pmtHead(0);
    appendStream(body, 0x02, 0x101, {0x80, 0x01, 0x00});
    SectionBytes section = withCrc(body);
    // ES_info_length 3 -> 40: runs past the section's end.
    section[12 + 4] = 40;
    vq_test::fixSectionCrc(section);
    CPMT pmt(nullptr, 1024);
    EXPECT_FALSE(readTable(pmt, section));
}

TEST(PMT, ProgramInfoLengthPastTheSectionFails) {
    SectionBytes body = pmtHead(0);
    SectionBytes section = withCrc(body);
    section[11] = 30;
    vq_test::fixSectionCrc(section);
    CPMT pmt(nullptr, 1024);
    EXPECT_FALSE(readTable(pmt, section));
}

TEST(PMT, StreamOnTheSamePidReplacesTheEarlierOne) {
    SectionBytes body = pmtHead(0);
    appendStream(body, 0x02, 0x101, {});
    appendStream(body, 0x04, 0x101, {});
    CPMT pmt(nullptr, 1024);
    ASSERT_TRUE(readTable(pmt, withCrc(body)));
    ASSERT_EQ(pmt.stream_map.size(), 1u);
    EXPECT_EQ(pmt.stream_map.at(0x101)->stream_type, 0x04);
}

TEST(PMT, StreamTypeChangeAloneComparesEqual) {
    CPMT a(nullptr, 1024), b(nullptr, 1024);
    ASSERT_TRUE(readTable(a, twoStreamPmt(0x1B)));
    ASSERT_TRUE(readTable(b, twoStreamPmt(0x24)));
    EXPECT_NE(a.stream_map.at(0x101)->stream_type, b.stream_map.at(0x101)->stream_type);
    EXPECT_FALSE(a != b);
}

TEST(PMT, ComparisonIgnoresSectionNumberButNotReservedFields) {
    CPMT a(nullptr, 1024), b(nullptr, 1024);
    ASSERT_TRUE(readTable(a, twoStreamPmt()));
    ASSERT_TRUE(readTable(b, twoStreamPmt()));
    b.section_number = 5;
    b.descriptors.clear();
    EXPECT_FALSE(a != b);
    b.reserved1 = 0;
    EXPECT_TRUE(a != b);
    b.reserved1 = a.reserved1;
    b.reserved3 = 0;
    EXPECT_TRUE(a != b);
    b.reserved3 = a.reserved3;
    b.PCR_PID = 0x1FFF;
    EXPECT_TRUE(a != b);
    b.PCR_PID = a.PCR_PID;
    b.stream_map.erase(0x102);
    EXPECT_TRUE(a != b);
}

TEST(PMT, RenderThenReadBack) {
    CPMT pmt(nullptr, 1024);
    ASSERT_TRUE(readTable(pmt, twoStreamPmt()));
    auto extra = std::make_shared<mpegcore::CBaseStreamTypeMap>();
    extra->stream_type = 0x06;
    extra->reserved1 = 7;
    extra->elementary_PID = 0x050;
    extra->reserved2 = 0xF;
    ASSERT_TRUE(vq_test::readLoop(extra->descriptors, {0x82, 0x03, 1, 2, 3, 0x83, 0x00, 0x84, 0x01, 9}));
    pmt.stream_map[0x050] = extra;
    ASSERT_TRUE(vq_test::readLoop(pmt.descriptors, {0x85, 0x01, 0x42}));
    pmt.version_number = 9;
    pmt.RenderTable();
    const SectionBytes bytes = renderedBytes(pmt);
    EXPECT_EQ(pmt.section_length, 13 + 7 + (5 + 3) + 5 + (5 + 10));
    EXPECT_EQ(pmt.program_info_length, 7);
    EXPECT_EQ(extra->ES_info_length, 10);
    EXPECT_EQ(mpegcore::crc32_mpeg2(bytes.data(), bytes.size()), 0u);

    CPMT back(nullptr, 1024);
    ASSERT_TRUE(readTable(back, bytes));
    EXPECT_FALSE(back != pmt);
    EXPECT_EQ(back.CRC, pmt.CRC);
    EXPECT_EQ(back.version_number, 9);
    EXPECT_EQ(vq_test::writeLoop(back.descriptors), vq_test::writeLoop(pmt.descriptors));
    ASSERT_EQ(back.stream_map.size(), 3u);
    for (const auto& [pid, stream] : pmt.stream_map) {
        const auto& other = back.stream_map.at(pid);
        EXPECT_EQ(other->stream_type, stream->stream_type);
        EXPECT_EQ(other->reserved1, stream->reserved1);
        EXPECT_EQ(other->reserved2, stream->reserved2);
        EXPECT_EQ(other->ES_info_length, stream->ES_info_length);
        EXPECT_EQ(vq_test::writeLoop(other->descriptors), vq_test::writeLoop(stream->descriptors));
    }
    // Streams go out in ascending PID order: the first one after the program loop is 0x050.
    EXPECT_EQ(((bytes[12 + 7 + 1] & 0x1F) << 8) | bytes[12 + 7 + 2], 0x050);
}

TEST(PMT, CopyToIsDeep) {
    CPMT a(nullptr, 1024), b(nullptr, 1024);
    ASSERT_TRUE(readTable(a, twoStreamPmt()));
    ASSERT_TRUE(readTable(b, twoStreamPmt(0x02)));
    a.copyTo(&b);
    EXPECT_FALSE(a != b);
    EXPECT_EQ(b.descriptors.descriptor.size(), 1u);  // replaced, not appended
    ASSERT_EQ(b.stream_map.size(), 2u);
    EXPECT_NE(b.stream_map.at(0x101), a.stream_map.at(0x101));
    EXPECT_EQ(b.stream_map.at(0x101)->stream_type, 0x1B);
    a.stream_map.at(0x101)->descriptors.clear();
    EXPECT_EQ(b.stream_map.at(0x101)->descriptors.descriptor.size(), 1u);
}

TEST(PMT, ClearEmptiesDescriptorsAndStreams) {
    CPMT pmt(nullptr, 1024);
    ASSERT_TRUE(readTable(pmt, twoStreamPmt()));
    pmt.Clear();
    EXPECT_TRUE(pmt.descriptors.descriptor.empty());
    EXPECT_TRUE(pmt.stream_map.empty());
    EXPECT_EQ(pmt.GetSizeBuffer(), 0u);
}

TEST(PMT, RenderIntoASmallBufferStaysInside) {
    std::vector<unsigned char> memory(64, 0xEE);
    CPMT pmt(memory.data() + 8, 24);
    ASSERT_TRUE(readTable(pmt, twoStreamPmt()));
    pmt.RenderTable();
    for (size_t i = 0; i < 8; ++i)
        EXPECT_EQ(memory[i], 0xEE);
    for (size_t i = 8 + 24; i < memory.size(); ++i)
        EXPECT_EQ(memory[i], 0xEE) << "byte " << i;
    EXPECT_EQ(memory[8], 0x02);
}
