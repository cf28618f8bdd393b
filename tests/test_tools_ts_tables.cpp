// ts-tables on the bundled captures (checked against the independent
// analyses) and on a stream of sections rendered by mpegcore's own tables.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mpegcore/EIT.h"
#include "mpegcore/MpegMisc.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/CAT.h"
#include "support/section_bytes.h"
#include "support/test_data.h"
#include "tools/tool_runner.h"

using namespace mpegcore;
using json = nlohmann::json;

namespace {

std::vector<json> tables_of(const std::string& file) {
    const auto result = vq_test::run_tool(std::string(TS_TABLES_PATH) + " --json " + vq_test::shell_quote(file));
    EXPECT_EQ(result.status, 0);
    std::vector<json> tables;
    for (const auto& line : result.lines()) {
        const json table = json::parse(line, nullptr, false);
        EXPECT_FALSE(table.is_discarded()) << line;
        tables.push_back(table);
    }
    return tables;
}

std::vector<const json*> tables_named(const std::vector<json>& tables, const std::string& name) {
    std::vector<const json*> out;
    for (const auto& table : tables)
        if (table.value("table", "") == name)
            out.push_back(&table);
    return out;
}

// "key=value" fields of one line of an analysis file.
std::map<std::string, std::string> analysis_fields(const std::string& line) {
    std::map<std::string, std::string> fields;
    std::istringstream in(line);
    for (std::string part; std::getline(in, part, ':');) {
        const auto eq = part.find('=');
        if (eq != std::string::npos)
            fields[part.substr(0, eq)] = part.substr(eq + 1);
    }
    // A description may hold ':' itself: take it whole.
    const auto at = line.find(":description=");
    if (at != std::string::npos)
        fields["description"] = line.substr(at + 13);
    return fields;
}

std::vector<std::string> analysis_lines(const std::string& name, const std::string& kind) {
    std::ifstream in(vq_test::dataPath(name));
    EXPECT_TRUE(in.good()) << name;
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);)
        if (line.rfind(kind + ":", 0) == 0)
            out.push_back(line);
    return out;
}

std::set<unsigned> pid_list(const std::string& text) {
    std::set<unsigned> pids;
    std::istringstream in(text);
    for (std::string pid; std::getline(in, pid, ',');)
        pids.insert(static_cast<unsigned>(std::stoul(pid)));
    return pids;
}

// The stream type an analysis description stands for (the analyser names the
// format of the stream from its type and descriptors).
struct described_type {
    const char* prefix;
    unsigned stream_type;
    const char* our_name;
};
const described_type kDescribedTypes[] = {
    {"AVC video", 0x1B, "AVC video (H.264)"}, {"MPEG-2 Video", 0x02, "MPEG-2 video"},
    {"MPEG-1 Audio", 0x03, "MPEG-1 audio"},   {"MPEG-2 Audio", 0x04, "MPEG-2 audio"},
    {"Teletext", 0x06, "PES private data"},   {"DTS-HD Master Audio", 0x86, "DTS-HD Master Audio (HDMV)"},
};

const json* find_stream(const std::vector<json>& tables, unsigned pid) {
    for (const json* pmt : tables_named(tables, "PMT"))
        for (const auto& stream : pmt->at("streams"))
            if (stream.at("elementary_PID").get<uint64_t>() == pid)
                return &stream;
    return nullptr;
}

// Languages the descriptors of a stream carry (ISO 639, teletext).
std::set<std::string> stream_languages(const json& stream) {
    std::set<std::string> out;
    for (const auto& descriptor : stream.at("descriptors")) {
        for (const char* list : {"languages", "pages", "subtitles"})
            for (const auto& item : descriptor.value(list, json::array()))
                out.insert(item.at("ISO_639_language_code").get<std::string>());
    }
    return out;
}

class TsTablesOnCapture : public ::testing::TestWithParam<std::string> {};

TEST_P(TsTablesOnCapture, ProgramsPidsStreamTypesAndNamesAgreeWithTheAnalysis) {
    const std::string capture = GetParam();
    const auto tables = tables_of(vq_test::dataPath(capture + ".ts"));
    const auto pats = tables_named(tables, "PAT");
    ASSERT_EQ(pats.size(), 1u) << "one PAT version in " << capture;
    const json& pat = *pats[0];

    const auto services = analysis_lines(capture + ".analysis.txt", "service");
    ASSERT_FALSE(services.empty());
    for (const auto& line : services) {
        const auto service = analysis_fields(line);
        const unsigned id = std::stoul(service.at("id"));
        const unsigned pmtPid = std::stoul(service.at("pmtpid"));
        SCOPED_TRACE(capture + " service " + std::to_string(id));
        EXPECT_EQ(pat.at("transport_stream_id").get<uint64_t>(), std::stoul(service.at("tsid")));

        bool listed = false;
        for (const auto& program : pat.at("programs"))
            listed |= program.at("program_number").get<uint64_t>() == id &&
                      program.at("program_map_PID").get<uint64_t>() == pmtPid;
        EXPECT_TRUE(listed) << "PAT entry " << id << " -> " << pmtPid;

        const json* pmt = nullptr;
        for (const json* candidate : tables_named(tables, "PMT"))
            if (candidate->at("pid").get<uint64_t>() == pmtPid)
                pmt = candidate;
        ASSERT_NE(pmt, nullptr) << "PMT on PID " << pmtPid;
        EXPECT_EQ((*pmt).at("program_number").get<uint64_t>(), id);
        const unsigned pcrPid = (*pmt).at("PCR_PID").get<uint64_t>();
        if (service.count("pcrpid"))
            EXPECT_EQ(pcrPid, std::stoul(service.at("pcrpid")));
        else
            EXPECT_EQ(pcrPid, 0x1FFFu) << "no PCR PID in the analysis";

        std::set<unsigned> ours = {pmtPid};
        if (pcrPid != 0x1FFF)
            ours.insert(pcrPid);
        for (const auto& stream : (*pmt).at("streams"))
            ours.insert(stream.at("elementary_PID").get<uint64_t>());
        EXPECT_EQ(ours, pid_list(service.at("pidlist")));

        for (const char* name : {"name", "provider"}) {
            const std::string expected = service.at(name);
            if (expected == "(unknown)")
                continue;
            std::string printed;
            for (const json* sdt : tables_named(tables, "SDT"))
                for (const auto& s : sdt->at("services"))
                    if (s.at("service_id").get<uint64_t>() == id)
                        for (const auto& d : s.at("descriptors"))
                            printed =
                                d.value(std::string(name) == "name" ? "service_name" : "service_provider_name", "");
            EXPECT_EQ(printed, expected) << name;
        }
    }

    size_t checkedStreams = 0;
    for (const auto& line : analysis_lines(capture + ".analysis.txt", "pid")) {
        const auto pid = analysis_fields(line);
        const std::string& description = pid.at("description");
        for (const auto& described : kDescribedTypes) {
            if (description.rfind(described.prefix, 0) != 0)
                continue;
            const json* stream = find_stream(tables, std::stoul(pid.at("pid")));
            ASSERT_NE(stream, nullptr) << description;
            EXPECT_EQ((*stream).at("stream_type").get<uint64_t>(), described.stream_type) << description;
            EXPECT_EQ((*stream).at("stream_type_name").get<std::string>(), described.our_name) << description;
            if (pid.count("language")) {
                EXPECT_EQ(stream_languages(*stream).count(pid.at("language")), 1u) << description;
            }
            ++checkedStreams;
        }
    }
    EXPECT_GT(checkedStreams, 0u);
}

INSTANTIATE_TEST_SUITE_P(Captures, TsTablesOnCapture,
                         ::testing::Values("live-012", "live-025", "live-072", "live-139"));

TEST(TsTables, TextOutputNamesWhatItDecodes) {
    const auto result =
        vq_test::run_tool(std::string(TS_TABLES_PATH) + " " + vq_test::shell_quote(vq_test::dataPath("live-025.ts")));
    ASSERT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("service_name: P1.1"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("running_status: 4 [running]"), std::string::npos);
    EXPECT_NE(result.output.find("stream_type: 2 (0x02) [MPEG-2 video]"), std::string::npos);
    EXPECT_NE(result.output.find("program_map_PID: 2064 (0x0810)"), std::string::npos);
}

TEST(TsTables, ReadsStandardInputAndRefusesAMissingFile) {
    const auto piped = vq_test::run_tool(std::string(TS_TABLES_PATH) + " --json < " +
                                         vq_test::shell_quote(vq_test::dataPath("live-072.ts")));
    EXPECT_EQ(piped.status, 0);
    EXPECT_EQ(piped.lines().size(), 2u) << piped.output;

    const auto missing = vq_test::run_tool(std::string(TS_TABLES_PATH) + " /nonexistent/x.ts", true);
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("ts-tables: cannot open /nonexistent/x.ts"), std::string::npos) << missing.output;
}

TEST(TsTables, HelpDescribesTheOptions) {
    const auto help = vq_test::run_tool(std::string(TS_TABLES_PATH) + " --help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("Usage: ts-tables"), std::string::npos);
    EXPECT_NE(help.output.find("--json"), std::string::npos);
    const auto wrong = vq_test::run_tool(std::string(TS_TABLES_PATH) + " --no-such-option", true);
    EXPECT_EQ(wrong.status, 2);
}

// ---- sections rendered by our own tables ----

// Sections cut into packets of one PID, each section starting a packet with
// pointer field 0, the rest of the last packet stuffed with 0xFF.
void packetize(std::vector<uint8_t>& ts, uint16_t pid, const vq_test::SectionBytes& section, uint8_t& cc) {
    size_t done = 0;
    bool first = true;
    while (done < section.size()) {
        uint8_t packet[188];
        std::memset(packet, 0xFF, sizeof packet);
        packet[0] = 0x47;
        packet[1] = static_cast<uint8_t>((first ? 0x40 : 0x00) | (pid >> 8));
        packet[2] = static_cast<uint8_t>(pid);
        packet[3] = static_cast<uint8_t>(0x10 | (cc++ & 0x0F));
        size_t at = 4;
        if (first)
            packet[at++] = 0;  // pointer_field
        const size_t n = std::min(section.size() - done, sizeof packet - at);
        std::memcpy(packet + at, section.data() + done, n);
        done += n;
        first = false;
        ts.insert(ts.end(), packet, packet + sizeof packet);
    }
}

template <class T>
std::shared_ptr<T> text_descriptor_header(uint8_t length) {
    auto d = std::make_shared<T>();
    d->descriptor_length = length;
    return d;
}

void set_long_header(CBaseMpegTable& table, uint8_t tableId) {
    table.table_id = tableId;
    table.section_syntax_indicator = 1;
    table.zero = 0;
    table.reserved = 3;
}

// A service with a service descriptor; the names are raw SI text bytes.
void add_service(CSDT& sdt, uint16_t id, uint8_t type, const std::string& provider, const std::string& name,
                 uint8_t running) {
    auto service = std::make_shared<CServiceDescriptionSection>();
    service->service_id = id;
    service->reserved_future_use = 0x3F;
    service->EIT_present_following_flag = 1;
    service->running_status = running;
    auto d = std::make_shared<service_descriptor>();
    d->service_type = type;
    d->service_provider_name_length = static_cast<uint8_t>(provider.size());
    std::memcpy(d->service_provider_name, provider.data(), provider.size());
    d->service_name_length = static_cast<uint8_t>(name.size());
    std::memcpy(d->service_name, name.data(), name.size());
    d->descriptor_length = static_cast<uint8_t>(3 + provider.size() + name.size());
    service->descriptors.descriptor.push_back(d);
    sdt.sds[id] = service;
}

// Writes a stream to a new temporary file; its path.
std::string write_temporary(const std::vector<uint8_t>& stream) {
    char path[] = "/tmp/ts-tables-XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
    close(fd);
    return path;
}

class TsTablesOnRenderedSections : public ::testing::Test {
protected:
    void SetUp() override {
        const time_t when = vq_test::utcTime(2026, 11, 15, 19, 40, 2);

        set_long_header(pat, 0x00);
        pat.transport_stream_id = 0x1234;
        pat.reserved1 = 3;
        pat.version_number = 5;
        pat.current_next_indicator = 1;
        add_program(0, 0x0010);
        add_program(1, 0x0100);
        add_program(2, 0x0200);
        pat.RenderTable();

        set_long_header(pmt, 0x02);
        pmt.program_number = 1;
        pmt.reserved1 = 3;
        pmt.version_number = 9;
        pmt.current_next_indicator = 1;
        pmt.reserved2 = 7;
        pmt.PCR_PID = 0x0101;
        pmt.reserved3 = 0xF;
        auto ca = std::make_shared<CA_descriptor>();
        ca->descriptor_length = 4;
        ca->CA_system_ID = 0x0B00;
        ca->CA_PID = 0x1FF0;
        pmt.descriptors.descriptor.push_back(ca);
        add_stream(0x1B, 0x0101, "");
        add_stream(0x04, 0x0102, "eng");
        pmt.RenderTable();

        set_long_header(sdt, 0x42);
        sdt.transport_stream_id = 0x1234;
        sdt.reserved1 = 3;
        sdt.version_number = 7;
        sdt.current_next_indicator = 1;
        sdt.original_network_id = 0x2222;
        sdt.reserved_future_use1 = 0xFF;
        add_service(sdt, 1, 0x19, "Prov", "Chan One", 4);
        add_service(sdt, 2, 0x02, "Prov", "Radio", 1);
        sdt.RenderTable();

        set_long_header(nit, 0x40);
        nit.network_id = 0x3333;
        nit.reserved1 = 3;
        nit.version_number = 2;
        nit.current_next_indicator = 1;
        auto name = std::make_shared<network_name_descriptor>();
        name->descriptor_length = 3;
        std::memcpy(name->char_, "Net", 3);
        nit.descriptors.descriptor.push_back(name);
        auto ts = std::make_shared<CBaseTransportStream>();
        ts->transport_stream_id = 0x1234;
        ts->original_network_id = 0x2222;
        auto list = std::make_shared<service_list_descriptor>();
        list->descriptor_length = 6;
        list->services.push_back({1, 0x19});
        list->services.push_back({2, 0x02});
        ts->descriptors.descriptor.push_back(list);
        nit.transport_stream.push_back(ts);
        nit.RenderTable();

        set_long_header(eit, 0x4E);
        eit.service_id = 1;
        eit.reserved1 = 3;
        eit.version_number = 4;
        eit.current_next_indicator = 1;
        eit.transport_stream_id = 0x1234;
        eit.original_network_id = 0x2222;
        eit.last_table_id = 0x4E;
        auto event = std::make_shared<CEventInfo>();
        event->event_id = 0x55;
        event->start_time = CEventInfo::time_t_to_start_time(when);
        event->duration = CEventInfo::sec_to_duration(5400);
        event->running_status = 4;
        auto shortEvent = std::make_shared<short_event_descriptor>();
        std::memcpy(shortEvent->ISO_639_language_code, "eng", 3);
        shortEvent->event_name_length = 4;
        std::memcpy(shortEvent->event_name_char, "News", 4);
        shortEvent->text_length = 5;
        std::memcpy(shortEvent->text_char, "Today", 5);
        shortEvent->descriptor_length = 5 + 4 + 5;
        event->descriptors.descriptor.push_back(shortEvent);
        eit.eventInfo.push_back(event);
        eit.RenderTable();

        tdt = std::make_unique<CTDT>(CMpegMisc::time_t_to_utc_time(when), nullptr, 1024);
        tdt->RenderTable();

        tot.table_id = 0x73;
        tot.reserved = 3;
        tot.UTC_time = CMpegMisc::time_t_to_utc_time(when + 1);
        tot.reserved1 = 0xF;
        tot.RenderTable();

        set_long_header(cat, 0x01);
        cat.reserved1 = 0x3FFFF;
        cat.version_number = 1;
        cat.current_next_indicator = 1;
        auto emm = std::make_shared<CA_descriptor>();
        emm->descriptor_length = 4;
        emm->CA_system_ID = 0x0B00;
        emm->CA_PID = 0x1FF1;
        cat.descriptors.descriptor.push_back(emm);
        cat.RenderTable();

        std::vector<uint8_t> stream;
        uint8_t cc[8] = {};
        packetize(stream, 0x0000, vq_test::renderedBytes(pat), cc[0]);
        packetize(stream, 0x0100, vq_test::renderedBytes(pmt), cc[1]);
        packetize(stream, 0x0011, vq_test::renderedBytes(sdt), cc[2]);
        packetize(stream, 0x0010, vq_test::renderedBytes(nit), cc[3]);
        packetize(stream, 0x0012, vq_test::renderedBytes(eit), cc[4]);
        packetize(stream, 0x0014, vq_test::renderedBytes(*tdt), cc[5]);
        packetize(stream, 0x0014, vq_test::renderedBytes(tot), cc[5]);
        packetize(stream, 0x0001, vq_test::renderedBytes(cat), cc[6]);
        // A repeated PAT of the same version is not printed again.
        packetize(stream, 0x0000, vq_test::renderedBytes(pat), cc[0]);

        m_path = write_temporary(stream);
        tables = tables_of(m_path);
    }
    void TearDown() override {
        if (!m_path.empty())
            std::remove(m_path.c_str());
    }

    void add_program(uint16_t number, uint16_t pid) {
        CBaseMpegProgram program;
        program.program_number = number;
        program.reserved = 7;
        program.map_PID.program_map_PID = pid;
        pat.program_map[pid] = program;
    }
    void add_stream(uint8_t type, uint16_t pid, const char* language) {
        auto stream = std::make_shared<CBaseStreamTypeMap>();
        stream->stream_type = type;
        stream->reserved1 = 7;
        stream->elementary_PID = pid;
        stream->reserved2 = 0xF;
        if (*language) {
            auto iso = std::make_shared<ISO_639_language_descriptor>();
            iso->descriptor_length = 4;
            ISO_639_language_descriptor::language_item item;
            std::memcpy(item.ISO_639_language_code, language, 3);
            iso->language_list.push_back(item);
            stream->descriptors.descriptor.push_back(iso);
        }
        pmt.stream_map[pid] = stream;
    }

    const json& only(const std::string& name) {
        const auto found = tables_named(tables, name);
        EXPECT_EQ(found.size(), 1u) << name;
        static const json none;
        return found.empty() ? none : *found[0];
    }

    CPAT pat{nullptr, 1024};
    CPMT pmt{nullptr, 1024};
    CSDT sdt{nullptr, 1024};
    CNIT nit{nullptr, 1024};
    CEIT eit{nullptr, 4096};
    std::unique_ptr<CTDT> tdt;
    CTOT tot{nullptr, 1024};
    CCAT cat{nullptr, 1024};
    std::vector<json> tables;
    std::string m_path;
};

void expect_header(const json& printed, const CBaseMpegTable& table, uint16_t pid) {
    EXPECT_EQ(printed.at("pid").get<uint64_t>(), pid);
    EXPECT_EQ(printed.at("table_id").get<uint64_t>(), table.table_id);
    EXPECT_EQ(printed.at("section_syntax_indicator").get<uint64_t>(), table.section_syntax_indicator);
    EXPECT_EQ(printed.at("section_length").get<uint64_t>(), table.section_length);
}

template <class T>
void expect_version(const json& printed, const T& table) {
    EXPECT_EQ(printed.at("version_number").get<uint64_t>(), table.version_number);
    EXPECT_EQ(printed.at("current_next_indicator").get<uint64_t>(), table.current_next_indicator);
    EXPECT_EQ(printed.at("section_number").get<uint64_t>(), table.section_number);
    EXPECT_EQ(printed.at("last_section_number").get<uint64_t>(), table.last_section_number);
    EXPECT_EQ(printed.at("CRC_32").get<uint64_t>(), table.CRC);
}

TEST_F(TsTablesOnRenderedSections, EveryTableIsPrintedOnceInArrivalOrder) {
    std::vector<std::string> names;
    for (const auto& table : tables)
        names.push_back(table.at("table").get<std::string>());
    EXPECT_EQ(names, (std::vector<std::string>{"PAT", "PMT", "SDT", "NIT", "EIT", "TDT", "TOT", "CAT"}));
}

TEST_F(TsTablesOnRenderedSections, PatFieldsEqualTheRenderedOnes) {
    const json& p = only("PAT");
    expect_header(p, pat, 0);
    expect_version(p, pat);
    EXPECT_EQ(p.at("transport_stream_id").get<uint64_t>(), 0x1234u);
    ASSERT_EQ(p.at("programs").size(), 3u);
    EXPECT_EQ(p.at("programs").at(0).at("program_number").get<uint64_t>(), 0u);
    EXPECT_EQ(p.at("programs").at(0).at("network_PID").get<uint64_t>(), 0x10u);
    EXPECT_EQ(p.at("programs").at(1).at("program_number").get<uint64_t>(), 1u);
    EXPECT_EQ(p.at("programs").at(1).at("program_map_PID").get<uint64_t>(), 0x100u);
    EXPECT_EQ(p.at("programs").at(2).at("program_map_PID").get<uint64_t>(), 0x200u);
}

TEST_F(TsTablesOnRenderedSections, PmtFieldsAndDescriptorsEqualTheRenderedOnes) {
    const json& p = only("PMT");
    expect_header(p, pmt, 0x100);
    expect_version(p, pmt);
    EXPECT_EQ(p.at("program_number").get<uint64_t>(), 1u);
    EXPECT_EQ(p.at("PCR_PID").get<uint64_t>(), 0x101u);
    EXPECT_EQ(p.at("program_info_length").get<uint64_t>(), pmt.program_info_length);
    ASSERT_EQ(p.at("descriptors").size(), 1u);
    const json& ca = p.at("descriptors").at(0);
    EXPECT_EQ(ca.at("descriptor_tag").get<uint64_t>(), 0x09u);
    EXPECT_EQ(ca.at("descriptor_tag_name").get<std::string>(), "CA_descriptor");
    EXPECT_EQ(ca.at("CA_system_ID").get<uint64_t>(), 0x0B00u);
    EXPECT_EQ(ca.at("CA_PID").get<uint64_t>(), 0x1FF0u);
    ASSERT_EQ(p.at("streams").size(), 2u);
    const json& video = p.at("streams").at(0);
    EXPECT_EQ(video.at("stream_type").get<uint64_t>(), 0x1Bu);
    EXPECT_EQ(video.at("stream_type_name").get<std::string>(), "AVC video (H.264)");
    EXPECT_EQ(video.at("elementary_PID").get<uint64_t>(), 0x101u);
    EXPECT_EQ(video.at("ES_info_length").get<uint64_t>(), 0u);
    const json& audio = p.at("streams").at(1);
    EXPECT_EQ(audio.at("stream_type").get<uint64_t>(), 0x04u);
    EXPECT_EQ(audio.at("ES_info_length").get<uint64_t>(), pmt.stream_map.at(0x102)->ES_info_length);
    ASSERT_EQ(audio.at("descriptors").size(), 1u);
    EXPECT_EQ(audio.at("descriptors").at(0).at("languages").at(0).at("ISO_639_language_code").get<std::string>(),
              "eng");
}

TEST_F(TsTablesOnRenderedSections, SdtServicesEqualTheRenderedOnes) {
    const json& s = only("SDT");
    expect_header(s, sdt, 0x11);
    expect_version(s, sdt);
    EXPECT_EQ(s.at("table_id_name").get<std::string>(), "SDT actual");
    EXPECT_EQ(s.at("transport_stream_id").get<uint64_t>(), 0x1234u);
    EXPECT_EQ(s.at("original_network_id").get<uint64_t>(), 0x2222u);
    ASSERT_EQ(s.at("services").size(), 2u);
    const json& one = s.at("services").at(0);
    EXPECT_EQ(one.at("service_id").get<uint64_t>(), 1u);
    EXPECT_EQ(one.at("EIT_present_following_flag").get<uint64_t>(), 1u);
    EXPECT_EQ(one.at("running_status").get<uint64_t>(), 4u);
    EXPECT_EQ(one.at("running_status_name").get<std::string>(), "running");
    EXPECT_EQ(one.at("descriptors_loop_length").get<uint64_t>(), sdt.sds.at(1)->descriptors_loop_length);
    const json& d = one.at("descriptors").at(0);
    EXPECT_EQ(d.at("service_type").get<uint64_t>(), 0x19u);
    EXPECT_EQ(d.at("service_type_name").get<std::string>(), "H.264/AVC HD digital television service");
    EXPECT_EQ(d.at("service_provider_name").get<std::string>(), "Prov");
    EXPECT_EQ(d.at("service_name").get<std::string>(), "Chan One");
    const json& two = s.at("services").at(1);
    EXPECT_EQ(two.at("running_status_name").get<std::string>(), "not running");
    EXPECT_EQ(two.at("descriptors").at(0).at("service_name").get<std::string>(), "Radio");
}

TEST_F(TsTablesOnRenderedSections, NitFieldsEqualTheRenderedOnes) {
    const json& n = only("NIT");
    expect_header(n, nit, 0x10);
    expect_version(n, nit);
    EXPECT_EQ(n.at("network_id").get<uint64_t>(), 0x3333u);
    EXPECT_EQ(n.at("network_descriptors_length").get<uint64_t>(), nit.network_descriptors_length);
    EXPECT_EQ(n.at("descriptors").at(0).at("network_name").get<std::string>(), "Net");
    EXPECT_EQ(n.at("transport_stream_loop_length").get<uint64_t>(), nit.transport_stream_loop_length);
    const json& ts = n.at("transport_streams").at(0);
    EXPECT_EQ(ts.at("transport_stream_id").get<uint64_t>(), 0x1234u);
    EXPECT_EQ(ts.at("original_network_id").get<uint64_t>(), 0x2222u);
    const json& services = ts.at("descriptors").at(0).at("services");
    ASSERT_EQ(services.size(), 2u);
    EXPECT_EQ(services.at(1).at("service_id").get<uint64_t>(), 2u);
    EXPECT_EQ(services.at(1).at("service_type_name").get<std::string>(), "digital radio sound service");
}

TEST_F(TsTablesOnRenderedSections, EitEventEqualsTheRenderedOneWithItsTimeAsAUtcDate) {
    const json& e = only("EIT");
    expect_header(e, eit, 0x12);
    expect_version(e, eit);
    EXPECT_EQ(e.at("service_id").get<uint64_t>(), 1u);
    EXPECT_EQ(e.at("transport_stream_id").get<uint64_t>(), 0x1234u);
    EXPECT_EQ(e.at("original_network_id").get<uint64_t>(), 0x2222u);
    EXPECT_EQ(e.at("last_table_id").get<uint64_t>(), 0x4Eu);
    const json& event = e.at("events").at(0);
    EXPECT_EQ(event.at("event_id").get<uint64_t>(), 0x55u);
    EXPECT_EQ(event.at("start_time").get<std::string>(), "2026-11-15 19:40:02 UTC");
    EXPECT_EQ(event.at("duration").get<std::string>(), "01:30:00");
    EXPECT_EQ(event.at("running_status_name").get<std::string>(), "running");
    const json& d = event.at("descriptors").at(0);
    EXPECT_EQ(d.at("ISO_639_language_code").get<std::string>(), "eng");
    EXPECT_EQ(d.at("event_name").get<std::string>(), "News");
    EXPECT_EQ(d.at("text").get<std::string>(), "Today");
}

TEST_F(TsTablesOnRenderedSections, TimeTablesAndCatEqualTheRenderedOnes) {
    const json& t = only("TDT");
    expect_header(t, *tdt, 0x14);
    EXPECT_EQ(t.at("UTC_time").get<std::string>(), "2026-11-15 19:40:02 UTC");
    const json& o = only("TOT");
    expect_header(o, tot, 0x14);
    EXPECT_EQ(o.at("UTC_time").get<std::string>(), "2026-11-15 19:40:03 UTC");
    EXPECT_EQ(o.at("CRC_32").get<uint64_t>(), tot.CRC);
    const json& c = only("CAT");
    expect_header(c, cat, 0x01);
    expect_version(c, cat);
    EXPECT_EQ(c.at("descriptors").at(0).at("CA_PID").get<uint64_t>(), 0x1FF1u);
}

// ---- texts in every character table; standard output kept for the tables ----

class TsTablesOnTexts : public ::testing::Test {
protected:
    // Service names as sent (character table selector first) and as printed.
    const std::vector<std::pair<std::string, std::string>> kNames = {
        {"Caf\xC2"
         "e",
         "Caf\xC3\xA9"},                                   // ISO 6937: Café
        {"\x01\xB0\xB1", "\xD0\x90\xD0\x91"},              // ISO 8859-5: АБ
        {std::string("\x10\x00\x07\xC1", 4), "\xCE\x91"},  // ISO 8859-7: Α
        {std::string("\x11\x04\x10\xE0\x8A\x00"
                     "A",
                     7),
         "\xD0\x90\nA"},                                       // UCS-2
        {"\x13\xD6\xD0\xCE\xC4", "\xE4\xB8\xAD\xE6\x96\x87"},  // GB 2312: 中文
        {"\x14\xA4\xA4\xA4\xE5", "\xE4\xB8\xAD\xE6\x96\x87"},  // Big5: 中文
        {"\x15\xE2\x82\xAC 1", "\xE2\x82\xAC 1"},              // UTF-8: € 1
        {"\x86"
         "Bold\x87\x8A"
         "next",
         "Bold\nnext"},  // control codes
    };

    void SetUp() override {
        CSDT sdt(nullptr, 4096);
        set_long_header(sdt, 0x42);
        sdt.current_next_indicator = 1;
        for (size_t i = 0; i < kNames.size(); ++i)
            add_service(sdt, static_cast<uint16_t>(i + 1), 1, "", kNames[i].first, 4);
        sdt.RenderTable();

        // An EIT packet that continues a section never started makes the
        // library print its one message, on standard output.
        std::vector<uint8_t> stream(188, 0xFF);
        stream[0] = 0x47;
        stream[1] = 0x00;
        stream[2] = 0x12;
        stream[3] = 0x10;
        uint8_t cc = 0;
        packetize(stream, 0x0011, vq_test::renderedBytes(sdt), cc);

        m_path = write_temporary(stream);
        m_errors = m_path + ".stderr";
    }
    void TearDown() override {
        std::remove(m_path.c_str());
        std::remove(m_errors.c_str());
    }

    vq_test::tool_result run(const std::string& options) {
        return vq_test::run_tool(std::string(TS_TABLES_PATH) + " " + options + " " + vq_test::shell_quote(m_path) +
                                 " 2>" + vq_test::shell_quote(m_errors));
    }
    std::string errors() const {
        std::ifstream in(m_errors);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    std::string m_path;
    std::string m_errors;
};

TEST_F(TsTablesOnTexts, EveryStandardOutputLineIsJsonAndTheLibraryMessageGoesToStandardError) {
    const auto result = run("--json");
    ASSERT_EQ(result.status, 0);
    const auto lines = result.lines();
    ASSERT_EQ(lines.size(), 1u) << result.output;
    for (const auto& line : lines) {
        EXPECT_FALSE(json::parse(line, nullptr, false).is_discarded()) << line;
    }
    EXPECT_NE(errors().find("mpegcore: eit pkt skip\n"), std::string::npos) << errors();
}

TEST_F(TsTablesOnTexts, TextOutputKeepsTheLibraryMessageOutToo) {
    const auto result = run("");
    ASSERT_EQ(result.status, 0);
    EXPECT_EQ(result.output.find("eit pkt skip"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("service_name: Caf\xC3\xA9"), std::string::npos) << result.output;
    EXPECT_NE(errors().find("mpegcore: eit pkt skip\n"), std::string::npos) << errors();
}

TEST_F(TsTablesOnTexts, ServiceNamesInEveryCharacterTableArePrintedAsUtf8) {
    const auto result = run("--json");
    ASSERT_EQ(result.status, 0);
    const json sdt = json::parse(result.lines().at(0), nullptr, false);
    ASSERT_FALSE(sdt.is_discarded()) << result.output;
    const auto& services = sdt.at("services");
    ASSERT_EQ(services.size(), kNames.size());
    for (size_t i = 0; i < kNames.size(); ++i)
        EXPECT_EQ(services[i].at("descriptors").at(0).at("service_name").get<std::string>(), kNames[i].second)
            << "service " << i + 1;
}

}  // namespace
