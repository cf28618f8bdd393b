// PAT, PMT and SDT sections of real captures, checked against an independent
// toolkit's analysis of the same files (tests/data/live-NNN.analysis.txt).

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mpegcore/DvbDescriptors.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "support/section_bytes.h"
#include "support/section_cutter.h"
#include "support/test_data.h"

namespace {

using Fields = std::map<std::string, std::string>;

// One analysis line "kind:key=value:flag:..." as key -> value (flags map to "").
Fields parseLine(const std::string& line) {
    Fields fields;
    std::stringstream in(line);
    std::string item;
    while (std::getline(in, item, ':')) {
        const auto eq = item.find('=');
        fields[item.substr(0, eq)] = eq == std::string::npos ? "" : item.substr(eq + 1);
    }
    return fields;
}

struct Analysis {
    Fields service;
    std::map<unsigned, Fields> pids;
    std::map<std::pair<unsigned, unsigned>, Fields> tables;  // (pid, tid)
};

Analysis readAnalysis(const std::string& name) {
    Analysis analysis;
    std::ifstream file(vq_test::dataPath(name));
    EXPECT_TRUE(file) << name;
    std::string line;
    while (std::getline(file, line)) {
        const std::string kind = line.substr(0, line.find(':'));
        const Fields fields = parseLine(line);
        if (kind == "service")
            analysis.service = fields;
        else if (kind == "pid")
            analysis.pids[std::stoul(fields.at("pid"))] = fields;
        else if (kind == "table")
            analysis.tables[{unsigned(std::stoul(fields.at("pid"))), unsigned(std::stoul(fields.at("tid")))}] = fields;
    }
    return analysis;
}

std::set<unsigned> pidList(const std::string& text) {
    std::set<unsigned> pids;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ','))
        pids.insert(unsigned(std::stoul(item)));
    return pids;
}

// The stream_type that the analysis' description of a PID implies.
int expectedStreamType(const std::string& description) {
    const std::vector<std::pair<std::string, int>> kinds{{"AVC video", 0x1B},    {"MPEG-2 Video", 0x02},
                                                         {"MPEG-1 Audio", 0x03}, {"MPEG-2 Audio", 0x04},
                                                         {"Teletext", 0x06},     {"DTS-HD", 0x86}};
    for (const auto& [prefix, type] : kinds)
        if (description.rfind(prefix, 0) == 0)
            return type;
    return -1;
}

// SI text as the analysis prints it: without the leading character table
// byte (below 0x20, EN 300 468 Annex A) that the descriptor keeps.
std::string siText(const unsigned char* bytes, size_t length) {
    std::string text(reinterpret_cast<const char*>(bytes), length);
    if (!text.empty() && static_cast<unsigned char>(text[0]) < 0x20)
        text.erase(0, 1);
    return text;
}

class RealTables : public ::testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(RealTables, PatAndPmtAgreeWithTheAnalysis) {
    const std::string name = GetParam();
    const Analysis analysis = readAnalysis(name + ".analysis.txt");
    ASSERT_FALSE(analysis.service.empty());
    const auto ts = vq_test::readDataFile(name + ".ts");
    const unsigned serviceId = unsigned(std::stoul(analysis.service.at("id")));
    const unsigned pmtPid = unsigned(std::stoul(analysis.service.at("pmtpid")));

    const auto pats = vq_test::cutSections(ts, 0);
    ASSERT_FALSE(pats.empty());
    EXPECT_EQ(pats.size(), std::stoul(analysis.tables.at({0, 0}).at("sections")));
    for (const auto& section : pats) {
        mpegcore::CPAT pat(nullptr, 1024);
        ASSERT_TRUE(vq_test::readTable(pat, section));
        EXPECT_EQ(pat.table_id, 0x00);
        EXPECT_EQ(pat.transport_stream_id, std::stoul(analysis.service.at("tsid")));
        EXPECT_EQ(pat.version_number, std::stoul(analysis.tables.at({0, 0}).at("lastversion")));
        ASSERT_EQ(pat.program_map.count(uint16_t(pmtPid)), 1u);
        EXPECT_EQ(pat.program_map.at(uint16_t(pmtPid)).program_number, serviceId);
    }

    const auto pmts = vq_test::cutSections(ts, uint16_t(pmtPid));
    ASSERT_FALSE(pmts.empty());
    EXPECT_EQ(pmts.size(), std::stoul(analysis.tables.at({pmtPid, 2}).at("sections")));
    const std::set<unsigned> listed = pidList(analysis.service.at("pidlist"));
    for (const auto& section : pmts) {
        mpegcore::CPMT pmt(nullptr, 1024);
        ASSERT_TRUE(vq_test::readTable(pmt, section));
        EXPECT_EQ(pmt.program_number, serviceId);
        if (analysis.service.count("pcrpid")) {
            EXPECT_EQ(pmt.PCR_PID, std::stoul(analysis.service.at("pcrpid")));
        }
        std::set<unsigned> pids{pmtPid};
        if (pmt.PCR_PID != 0x1FFF)
            pids.insert(pmt.PCR_PID);
        for (const auto& [pid, stream] : pmt.stream_map) {
            pids.insert(pid);
            const Fields& info = analysis.pids.at(pid);
            EXPECT_EQ(int(stream->stream_type), expectedStreamType(info.at("description")))
                << name << " pid " << pid << ": " << info.at("description");
            EXPECT_EQ(info.count("video"), stream->stream_type == 0x1B || stream->stream_type == 0x02);
        }
        EXPECT_EQ(pids, listed);
        // Rendered back, the section is the one that was read.
        pmt.RenderTable();
        EXPECT_EQ(vq_test::renderedBytes(pmt), section);
    }
}

INSTANTIATE_TEST_SUITE_P(Captures, RealTables, ::testing::Values("live-012", "live-025", "live-072", "live-139"));

TEST(RealTables, SdtOfLive025NamesItsService) {
    const Analysis analysis = readAnalysis("live-025.analysis.txt");
    const auto ts = vq_test::readDataFile("live-025.ts");
    const auto sections = vq_test::cutSections(ts, 0x11);
    ASSERT_FALSE(sections.empty());
    EXPECT_EQ(sections.size(), std::stoul(analysis.tables.at({17, 0x42}).at("sections")));
    const uint16_t serviceId = uint16_t(std::stoul(analysis.service.at("id")));
    for (const auto& section : sections) {
        mpegcore::CSDT sdt(nullptr, 1024);
        ASSERT_TRUE(vq_test::readTable(sdt, section));
        EXPECT_EQ(sdt.table_id, 0x42);
        EXPECT_EQ(sdt.transport_stream_id, std::stoul(analysis.service.at("tsid")));
        EXPECT_EQ(sdt.original_network_id, std::stoul(analysis.service.at("orignetwid")));
        ASSERT_EQ(sdt.sds.count(serviceId), 1u);
        auto service =
            std::dynamic_pointer_cast<mpegcore::service_descriptor>(sdt.sds.at(serviceId)->descriptors.find(0x48));
        ASSERT_TRUE(service);
        EXPECT_EQ(service->service_type, std::stoul(analysis.service.at("servtype")));
        // The raw text keeps its character table byte (0x03, ISO/IEC 8859-7 here).
        EXPECT_EQ(service->service_provider_name[0], 0x03);
        EXPECT_EQ(siText(service->service_provider_name, service->service_provider_name_length),
                  analysis.service.at("provider"));
        EXPECT_EQ(siText(service->service_name, service->service_name_length), analysis.service.at("name"));
        sdt.RenderTable();
        EXPECT_EQ(vq_test::renderedBytes(sdt), section);
    }
}
