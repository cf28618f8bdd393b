// Descriptor loops of the PMTs and the SDT of real captures, checked against
// the independent analyses in tests/data/live-NNN.analysis.txt.

#include <gtest/gtest.h>

#include <string>

#include "mpegcore/vqdescriptorlist.h"
#include "support/descriptor_bytes.h"
#include "support/section_cutter.h"
#include "support/test_data.h"

using namespace mpegcore;
using vq_test::as;
using vq_test::Bytes;
using vq_test::readLoop;
using vq_test::writeLoop;

namespace {

struct EsLoop {
    uint8_t stream_type;
    uint16_t pid;
    VQDescriptorList descriptors{e_ts_desc_type};
};

struct PmtLoops {
    VQDescriptorList program{e_ts_desc_type};
    std::vector<EsLoop> streams;
    Bytes programBytes;
    std::vector<Bytes> streamBytes;
};

uint16_t length12(const Bytes& s, size_t at) { return static_cast<uint16_t>(((s[at] & 0x0F) << 8) | s[at + 1]); }

// Walks the first PMT on `pid`: program_info at offset 12, then the
// elementary streams up to the CRC.
PmtLoops readPmt(const std::string& file, uint16_t pid) {
    PmtLoops pmt;
    const auto sections = vq_test::cutSections(vq_test::readDataFile(file), pid, 1);
    EXPECT_EQ(sections.size(), 1u);
    if (sections.empty())
        return pmt;
    const Bytes& s = sections.front();
    EXPECT_EQ(s[0], 0x02);
    const size_t end = s.size() - 4;
    const uint16_t programInfo = length12(s, 10);
    pmt.programBytes.assign(s.begin() + 12, s.begin() + 12 + programInfo);
    EXPECT_TRUE(readLoop(pmt.program, pmt.programBytes));
    for (size_t at = 12u + programInfo; at + 5 <= end;) {
        const uint16_t esInfo = length12(s, at + 3);
        EsLoop& es = pmt.streams.emplace_back();
        es.stream_type = s[at];
        es.pid = static_cast<uint16_t>(((s[at + 1] & 0x1F) << 8) | s[at + 2]);
        pmt.streamBytes.emplace_back(s.begin() + at + 5, s.begin() + at + 5 + esInfo);
        EXPECT_TRUE(readLoop(es.descriptors, pmt.streamBytes.back()));
        at += 5u + esInfo;
    }
    return pmt;
}

std::string language(const ISO_639_language_descriptor& d) {
    return d.language_list.empty() ? "" : std::string(d.language_list.front().ISO_639_language_code, 3);
}

void expectRewritesSameBytes(const PmtLoops& pmt) {
    EXPECT_EQ(writeLoop(pmt.program), pmt.programBytes);
    EXPECT_EQ(pmt.program.getSize(), pmt.programBytes.size());
    for (size_t i = 0; i < pmt.streams.size(); ++i) {
        EXPECT_EQ(writeLoop(pmt.streams[i].descriptors), pmt.streamBytes[i]);
        EXPECT_EQ(pmt.streams[i].descriptors.getSize(), pmt.streamBytes[i].size());
    }
}

}  // namespace

TEST(RealDescriptors, Live012AudioLanguagesAndTeletext) {
    // live-012.analysis.txt: audio 1061 fra, 1062 eng, 1063 deu, 1067 qad
    // (visual impaired commentary); teletext 1068 fra, subtitles for the
    // hearing impaired and subtitles.
    const PmtLoops pmt = readPmt("live-012.ts", 160);
    ASSERT_EQ(pmt.streams.size(), 6u);
    EXPECT_TRUE(pmt.program.descriptor.empty());
    EXPECT_TRUE(pmt.streams[0].descriptors.descriptor.empty());

    const char* languages[] = {"fra", "eng", "deu", "qad"};
    const uint16_t pids[] = {1061, 1062, 1063, 1067};
    for (int i = 0; i < 4; ++i) {
        const EsLoop& es = pmt.streams[i + 1];
        EXPECT_EQ(es.pid, pids[i]);
        auto lang = as<ISO_639_language_descriptor>(es.descriptors.find(0x0A));
        ASSERT_TRUE(lang) << es.pid;
        EXPECT_EQ(language(*lang), languages[i]);
        EXPECT_EQ(lang->language_list.front().audio_type, i == 3 ? 3 : 0);  // 3: visual impaired commentary
    }

    const EsLoop& ttx = pmt.streams[5];
    EXPECT_EQ(ttx.pid, 1068);
    auto teletext = as<teletext_descriptor>(ttx.descriptors.find(0x56));
    ASSERT_TRUE(teletext);
    ASSERT_EQ(teletext->teletext_list.size(), 2u);
    const auto& first = *teletext->teletext_list.front();
    const auto& second = *teletext->teletext_list.back();
    EXPECT_EQ(std::string(first.ISO_639_language_code, 3), "fra");
    EXPECT_EQ(first.teletext_type, 5);  // subtitle page for the hearing impaired
    EXPECT_EQ(first.teletext_magazine_number, 0);
    EXPECT_EQ(first.teletext_page_number, 0x88);
    EXPECT_EQ(std::string(second.ISO_639_language_code, 3), "fra");
    EXPECT_EQ(second.teletext_type, 2);  // subtitle page
    EXPECT_EQ(second.teletext_page_number, 0x89);

    auto vbi = as<VBI_data_descriptor>(ttx.descriptors.find(0x45));
    ASSERT_TRUE(vbi);
    ASSERT_EQ(vbi->service_list.size(), 1u);
    EXPECT_EQ(vbi->service_list.front()->data_service_id, 1);  // EBU teletext
    EXPECT_EQ(vbi->service_list.front()->data_service_descriptor_length, 8);

    expectRewritesSameBytes(pmt);
}

TEST(RealDescriptors, Live025SdtServiceDescriptor) {
    // live-025.analysis.txt: service 2064, servtype=1, provider=DVB, name=P1.1.
    const auto sections = vq_test::cutSections(vq_test::readDataFile("live-025.ts"), 0x11, 1);
    ASSERT_EQ(sections.size(), 1u);
    const Bytes& s = sections.front();
    ASSERT_EQ(s[0], 0x42);
    const size_t at = 11;  // first service after original_network_id and reserved byte
    const uint16_t serviceId = static_cast<uint16_t>((s[at] << 8) | s[at + 1]);
    EXPECT_EQ(serviceId, 2064);
    const uint16_t loopLength = length12(s, at + 3);
    const Bytes loop(s.begin() + at + 5, s.begin() + at + 5 + loopLength);
    VQDescriptorList list(e_ts_desc_type);
    ASSERT_TRUE(readLoop(list, loop));
    auto service = as<service_descriptor>(list.find(0x48));
    ASSERT_TRUE(service);
    EXPECT_EQ(service->service_type, 1);
    // Texts are kept raw: the first byte selects the character table.
    ASSERT_GE(service->service_provider_name_length, 1);
    EXPECT_LT(service->service_provider_name[0], 0x20);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(service->service_provider_name) + 1,
                          service->service_provider_name_length - 1),
              "DVB");
    ASSERT_GE(service->service_name_length, 1);
    EXPECT_LT(service->service_name[0], 0x20);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(service->service_name) + 1, service->service_name_length - 1),
              "P1.1");
    EXPECT_EQ(writeLoop(list), loop);
}

TEST(RealDescriptors, Live025And072PmtsHaveEmptyLoops) {
    const PmtLoops p025 = readPmt("live-025.ts", 2064);
    ASSERT_EQ(p025.streams.size(), 2u);  // MPEG-2 video 4096, MPEG-1 audio 4097
    EXPECT_EQ(p025.streams[0].pid, 4096);
    EXPECT_EQ(p025.streams[1].pid, 4097);
    const PmtLoops p072 = readPmt("live-072.ts", 99);
    ASSERT_EQ(p072.streams.size(), 2u);  // audio 100, AVC video 101
    for (const PmtLoops* pmt : {&p025, &p072}) {
        EXPECT_TRUE(pmt->program.descriptor.empty());
        for (const auto& es : pmt->streams)
            EXPECT_TRUE(es.descriptors.descriptor.empty());
        expectRewritesSameBytes(*pmt);
    }
}

TEST(RealDescriptors, Live139RegistrationAndLanguages) {
    // live-139.analysis.txt: HDMV registration, DTS-HD audio 4352 eng, MPEG-2
    // audio 4353 eng.
    const PmtLoops pmt = readPmt("live-139.ts", 256);
    auto registration = as<registration_descriptor>(pmt.program.find(0x05));
    ASSERT_TRUE(registration);
    EXPECT_EQ(registration->format_identifier, 0x48444D56u);  // "HDMV"
    ASSERT_EQ(pmt.program.descriptor.size(), 2u);
    const auto& raw = *pmt.program.descriptor.back();
    EXPECT_EQ(typeid(raw), typeid(base_descriptor));  // tag 0x88 is not modelled
    EXPECT_EQ(raw.descriptor_tag, 0x88);
    EXPECT_EQ(raw.descriptor_data.size(), 4u);

    ASSERT_EQ(pmt.streams.size(), 3u);
    EXPECT_EQ(pmt.streams[1].pid, 4352);
    EXPECT_EQ(pmt.streams[2].pid, 4353);
    for (int i = 1; i < 3; ++i) {
        auto lang = as<ISO_639_language_descriptor>(pmt.streams[i].descriptors.find(0x0A));
        ASSERT_TRUE(lang);
        EXPECT_EQ(language(*lang), "eng");
    }
    expectRewritesSameBytes(pmt);
}

TEST(RealDescriptors, AnalysisFilesNameTheValuesChecked) {
    // Guards the expectations above against a changed analysis file.
    auto contains = [](const char* file, const std::string& needle) {
        const Bytes data = vq_test::readDataFile(file);
        return std::string(data.begin(), data.end()).find(needle) != std::string::npos;
    };
    EXPECT_TRUE(contains("live-012.analysis.txt", "pid=1068:access=clear:streamid=189:language=fra"));
    EXPECT_TRUE(contains("live-012.analysis.txt", "pid=1067:access=clear:audio:language=qad"));
    EXPECT_TRUE(contains("live-025.analysis.txt", "servtype=1:pmtpid=2064"));
    EXPECT_TRUE(contains("live-025.analysis.txt", "provider=DVB:name=P1.1"));
    EXPECT_TRUE(contains("live-139.analysis.txt", "pid=4352:access=clear:streamid=253:audio:language=eng"));
}
