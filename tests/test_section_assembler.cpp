// The section assembler on packed sections: several in one packet, one that
// ends in the packet starting the next, headers split across packets, lost
// and repeated packets; and the analyzer seeing every one of them.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/SectionAssembler.h"
#include "mpegcore/TsAnalyzer.h"
#include "support/section_bytes.h"
#include "support/section_packer.h"

using namespace mpegcore;
using vq_test::SectionBytes;

namespace {

// An EIT present/following section of service sid, `size` bytes in all.
SectionBytes eitSection(uint16_t sid, size_t size) {
    SectionBytes body = {
        0x4E, 0xF0, 0,   static_cast<uint8_t>(sid >> 8), static_cast<uint8_t>(sid), 0xC1, 0, 1, 0x00, 0x01, 0x00,
        0x01, 1,    0x4E};
    if (size > body.size() + 4 + 14) {
        // One event whose descriptor loop is one private descriptor.
        const size_t loop = size - body.size() - 4 - 12;
        const uint8_t event[] = {0x00,
                                 0x01,
                                 0xE9,
                                 0x3C,
                                 0x12,
                                 0x00,
                                 0x00,
                                 0x01,
                                 0x00,
                                 0x00,
                                 static_cast<uint8_t>(0x80 | (loop >> 8)),
                                 static_cast<uint8_t>(loop)};
        body.insert(body.end(), std::begin(event), std::end(event));
        body.push_back(0x80);
        body.push_back(static_cast<uint8_t>(loop - 2));
        body.insert(body.end(), loop - 2, 0x5A);
    }
    return vq_test::withCrc(body);
}

// Runs packets through a parser that hands every one to an assembler.
class collecting_parser : public CBaseMpegParser {
public:
    collecting_parser()
        : CBaseMpegParser(true),
          m_sections([this](uint16_t, const unsigned char* s, size_t n) { sections.emplace_back(s, s + n); }) {}
    int OnProcess(unsigned int, transport_packet& packet) override {
        if (packet.PID == 0x12)
            m_sections.push_packet(packet);
        return 0;
    }
    std::vector<SectionBytes> sections;

private:
    CSectionAssembler m_sections;
};

std::vector<SectionBytes> assemble(std::vector<uint8_t> packets) {
    collecting_parser parser;
    parser.Process(packets.data(), static_cast<unsigned long>(packets.size()));
    return parser.sections;
}

TEST(SectionAssembler, FiveSectionsInOnePacket) {
    std::vector<SectionBytes> sections;
    for (uint16_t sid = 1; sid <= 5; ++sid)
        sections.push_back(eitSection(sid, 18));
    uint8_t cc = 0;
    const auto packets = vq_test::packSections(0x12, sections, cc);
    ASSERT_EQ(packets.size(), 188u);
    EXPECT_EQ(assemble(packets), sections);
}

TEST(SectionAssembler, SectionEndingInThePacketThatStartsTheNext) {
    const std::vector<SectionBytes> sections = {eitSection(1, 300), eitSection(2, 40), eitSection(3, 500),
                                                eitSection(4, 20)};
    uint8_t cc = 0;
    const auto packets = vq_test::packSections(0x12, sections, cc);
    EXPECT_EQ(assemble(packets), sections);
}

TEST(SectionAssembler, HeaderSplitAcrossPackets) {
    // The second section starts 1 or 2 bytes before a packet's end, so its
    // section_length lies in the next packet.
    for (size_t first : {181u, 182u}) {
        const std::vector<SectionBytes> sections = {eitSection(1, first), eitSection(2, 60)};
        uint8_t cc = 0;
        EXPECT_EQ(assemble(vq_test::packSections(0x12, sections, cc)), sections) << first;
    }
}

TEST(SectionAssembler, LostPacketDropsOnlyTheBrokenSection) {
    const std::vector<SectionBytes> sections = {eitSection(1, 400), eitSection(2, 100)};
    uint8_t cc = 0;
    auto packets = vq_test::packSections(0x12, sections, cc);
    ASSERT_GE(packets.size(), 3u * 188);
    packets.erase(packets.begin() + 188, packets.begin() + 2 * 188);  // the middle of section 1
    const auto got = assemble(packets);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], sections[1]);
}

TEST(SectionAssembler, RepeatedPacketIsIgnored) {
    const std::vector<SectionBytes> sections = {eitSection(1, 400)};
    uint8_t cc = 0;
    auto packets = vq_test::packSections(0x12, sections, cc);
    packets.insert(packets.begin() + 188, packets.begin(), packets.begin() + 188);
    EXPECT_EQ(assemble(packets), sections);
}

TEST(SectionAssembler, StuffingEndsThePacket) {
    const std::vector<SectionBytes> sections = {eitSection(1, 30)};
    uint8_t cc = 0;
    auto packets = vq_test::packSections(0x12, sections, cc);
    // Stuffing after the section, then a table_id-like byte that must be ignored.
    packets[4 + 1 + 30 + 5] = 0x4E;
    EXPECT_EQ(assemble(packets), sections);
}

TEST(SectionAssembler, RandomPackingsComeBackWhole) {
    std::mt19937 random(16);
    for (int round = 0; round < 50; ++round) {
        std::vector<SectionBytes> sections;
        const int count = 1 + static_cast<int>(random() % 12);
        for (int i = 0; i < count; ++i)
            sections.push_back(eitSection(static_cast<uint16_t>(i + 1), 18 + random() % 1200));
        uint8_t cc = static_cast<uint8_t>(random() % 16);
        EXPECT_EQ(assemble(vq_test::packSections(0x12, sections, cc)), sections) << round;
    }
}

TEST(SectionAssembler, AnalyzerCountsEveryPackedSection) {
    std::vector<SectionBytes> sections;
    for (uint16_t sid = 1; sid <= 4; ++sid)
        sections.push_back(eitSection(sid, 30));
    sections.push_back(eitSection(5, 400));
    sections.push_back(eitSection(6, 25));
    uint8_t cc = 0;
    auto packets = vq_test::packSections(0x12, sections, cc);
    CTsAnalyzer analyzer;
    for (size_t at = 0; at + 188 <= packets.size(); at += 188)
        analyzer.push_packet(at * 1000, packets.data() + at);
    analyzer.finish();
    std::vector<uint16_t> services;
    for (const auto& table : analyzer.table_figures()) {
        EXPECT_EQ(table.pid, 0x12);
        EXPECT_EQ(table.table_id, 0x4E);
        EXPECT_EQ(table.sections, 1u);
        services.push_back(table.table_id_ext);
    }
    EXPECT_EQ(services, (std::vector<uint16_t>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(analyzer.count(tr101290_check::CRC_error), 0u);
}

}  // namespace
