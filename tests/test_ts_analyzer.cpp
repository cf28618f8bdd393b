// The stream analyzer on generated constant-rate streams with exactly known
// faults: every case counts exactly what it contains, and nothing else.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "mpegcore/TsAnalyzer.h"
#include "support/section_bytes.h"
#include "support/ts_fault_stream.h"

using namespace mpegcore;
using vq_test::ts_fault_stream;

namespace {

using counts = std::map<std::string, uint64_t>;

// Records the errors reported through the callback and the alarm hooks.
class recording_analyzer : public CTsAnalyzer {
public:
    using CTsAnalyzer::CTsAnalyzer;
    void on_error(tr101290_check check, uint16_t, uint64_t, const char* detail) override {
        ++events[tr101290_name(check)];
        EXPECT_NE(detail, nullptr);
    }
    void on_ts_sync_lost() override { ++hooks["sync_lost"]; }
    void on_sync_byte_error() override { ++hooks["sync_byte"]; }
    void on_pat_error(unsigned short) override { ++hooks["pat"]; }
    void on_pmt_error(unsigned short, unsigned short) override { ++hooks["pmt"]; }
    void on_pid_error(unsigned short) override { ++hooks["pid"]; }
    counts events, hooks;
};

counts countsOf(const CTsAnalyzer& analyzer) {
    counts out;
    for (size_t i = 0; i < tr101290_check_count; ++i) {
        const auto check = static_cast<tr101290_check>(i);
        if (analyzer.count(check))
            out[tr101290_name(check)] = analyzer.count(check);
    }
    return out;
}

// The stream through the raw entry point, in runs of 1,000 bytes timed by
// their byte position at the stream's rate.
counts analyseRaw(const std::vector<uint8_t>& bytes, CTsAnalyzer::options opts = {}) {
    recording_analyzer analyzer(opts);
    const uint64_t nsPerByte = ts_fault_stream::packet_ns / 188;
    for (size_t at = 0; at < bytes.size(); at += 1000) {
        const size_t n = std::min<size_t>(1000, bytes.size() - at);
        analyzer.push_raw(at * nsPerByte, (at + n) * nsPerByte, bytes.data() + at, n);
    }
    analyzer.finish();
    const counts result = countsOf(analyzer);
    // Every counted error was reported once through the callback.
    counts reported = analyzer.events;
    for (const auto& e : result) {
        if (e.first != "PCR_error") {
            EXPECT_EQ(reported[e.first], e.second) << e.first;
        }
    }
    return result;
}

// The stream as aligned packets, each timed at its slot.
counts analysePackets(const std::vector<uint8_t>& bytes, CTsAnalyzer::options opts = {}) {
    CTsAnalyzer analyzer(opts);
    for (size_t at = 0; at + 188 <= bytes.size(); at += 188)
        analyzer.push_packet((at / 188 + 1) * ts_fault_stream::packet_ns, bytes.data() + at);
    analyzer.finish();
    return countsOf(analyzer);
}

struct fault_case {
    const char* name;
    std::function<void(ts_fault_stream&)> fault;
    counts expected;
    CTsAnalyzer::options opts{};
    size_t packets = 7500;  // three seconds; the long SI limits need longer streams
};

// A long-form SI section without loops, its CRC set.
std::vector<uint8_t> siSection(uint8_t tableId, uint16_t ext) {
    return vq_test::withCrc({tableId, 0xF0, 0, uint8_t(ext >> 8), uint8_t(ext), 0xC1, 0, 0, 0x00, 0x02, 0xF0, 0x00});
}
// An EIT present/following "other" section: transport stream 2, network 1.
std::vector<uint8_t> eitOtherSection(uint8_t number) {
    return vq_test::withCrc({0x4F, 0xF0, 0, 0x00, 0x05, 0xC1, number, 1, 0x00, 0x02, 0x00, 0x01, 1, 0x4F});
}
// A running status section: one entry (transport stream, network, service, event, status).
const std::vector<uint8_t> kRstSection{0x71, 0x70, 0x09, 0, 1, 0, 1, 0, 1, 0, 1, 0xF4};
const std::vector<uint8_t> kTdtSection{0x70, 0x70, 0x05, 0xE9, 0x3C, 0x12, 0x00, 0x00};

constexpr size_t k12s = 30000;  // packets: longer than the 10 s limits
constexpr size_t k33s = 82500;  // longer than the TDT's 30 s

std::vector<fault_case> faultCases() {
    CTsAnalyzer::options shortPidTimeout;
    shortPidTimeout.pid_timeout = 1000 * CTsAnalyzer::ms;
    return {
        {"Clean", [](ts_fault_stream&) {}, {}},
        {"LostPacket", [](ts_fault_stream& s) { s.lose_packet(1010); }, {{"Continuity_count_error", 1}}},
        {"RepeatedPacket", [](ts_fault_stream& s) { s.send_again(1040, 1); }, {}},
        {"ThriceSentPacket", [](ts_fault_stream& s) { s.send_again(1040, 2); }, {{"Continuity_count_error", 1}}},
        {"FourTimesSentPacket", [](ts_fault_stream& s) { s.send_again(1040, 3); }, {{"Continuity_count_error", 2}}},
        {"BadSyncBytesApart",
         [](ts_fault_stream& s) {
             s.break_sync_byte(2000);
             s.break_sync_byte(2010);
         },
         {{"Sync_byte_error", 2}}},
        {"BadSyncBytesInABurst",
         [](ts_fault_stream& s) {
             s.break_sync_byte(3000);
             s.break_sync_byte(3001);
             s.break_sync_byte(3002);
         },
         {{"Sync_byte_error", 2}, {"TS_sync_loss", 1}}},
        {"PatGap", [](ts_fault_stream& s) { s.drop_pid(0, 1000, 2500); }, {{"PAT_error", 1}, {"PAT_error_2", 1}}},
        {"PmtGap",
         [](ts_fault_stream& s) { s.drop_pid(ts_fault_stream::pmt_pid, 1000, 2500); },
         {{"PMT_error", 1}, {"PMT_error_2", 1}}},
        {"PidGap",
         [](ts_fault_stream& s) { s.drop_pid(ts_fault_stream::data_pid, 1000, 5000); },
         {{"PID_error", 1}},
         shortPidTimeout},
        {"PcrGap",
         [](ts_fault_stream& s) { s.drop_pcrs(1100, 1300); },
         {{"PCR_repetition_error", 1}, {"PCR_discontinuity_indicator_error", 1}, {"PCR_error", 2}}},
        {"PtsGap", [](ts_fault_stream& s) { s.drop_pts(1000, 3000); }, {{"PTS_error", 1}}},
        {"SdtGap", [](ts_fault_stream& s) { s.drop_pid(0x11, 1000, 7000); }, {{"SDT_actual_error", 1}}},
        {"EitGap", [](ts_fault_stream& s) { s.drop_pid(0x12, 1000, 7000); }, {{"EIT_actual_error", 1}}},
        {"EitFollowingMissing", [](ts_fault_stream& s) { s.drop_eit_section(1); }, {{"EIT_PF_error", 1}}},
        {"SdtTooOften",
         [](ts_fault_stream& s) { s.add_section(1265, 0x11, ts_fault_stream::sdt_section()); },
         {{"SDT_actual_error", 1}, {"SI_repetition_error", 1}}},
        {"WrongTableIdOnPid0",
         [](ts_fault_stream& s) { s.add_section(1070, 0, ts_fault_stream::sdt_section()); },
         {{"PAT_error", 1}, {"PAT_error_2", 1}}},
        {"ShortSectionOnPid0",
         [](ts_fault_stream& s) {
             s.add_section(1070, 0, {0x70, 0x70, 0x05, 0xE9, 0x3C, 0x12, 0x00, 0x00});
         },
         {{"PAT_error", 1}, {"PAT_error_2", 1}}},
        {"WrongTableIdOnPid1",
         [](ts_fault_stream& s) { s.add_section(1070, 1, ts_fault_stream::sdt_section()); },
         {{"CAT_error", 1}}},
        {"WrongTableIdOnNitPid",
         [](ts_fault_stream& s) { s.add_section(1070, 0x10, ts_fault_stream::sdt_section()); },
         {{"NIT_error", 1}}},
        {"TransportErrorIndicator", [](ts_fault_stream& s) { s.set_tei(1020); }, {{"Transport_error", 1}}},
        {"BadCrc", [](ts_fault_stream& s) { s.break_crc(1255); }, {{"CRC_error", 1}}},
        {"PcrJumpWithoutIndicator",
         [](ts_fault_stream& s) { s.shift_pcrs(2000, 27000000, false); },
         {{"PCR_discontinuity_indicator_error", 1}, {"PCR_error", 1}}},
        {"PcrJumpWithIndicator", [](ts_fault_stream& s) { s.shift_pcrs(2000, 27000000, true); }, {}},
        {"PcrOffBy2us", [](ts_fault_stream& s) { s.offset_pcr(s.find_pcr(2000), 54); }, {{"PCR_accuracy_error", 1}}},
        {"PcrOffBy300ns", [](ts_fault_stream& s) { s.offset_pcr(s.find_pcr(2000), 8); }, {}},
        {"ScrambledWithoutCat",
         [](ts_fault_stream& s) {
             for (size_t k = 2010; k < 2015; ++k)
                 s.scramble(k);
         },
         {{"CAT_error", 5}}},
        {"ScrambledWithCat",
         [](ts_fault_stream& s) {
             s.add_cat();
             for (size_t k = 2010; k < 2015; ++k)
                 s.scramble(k);
         },
         {}},
        {"UnreferencedPid", [](ts_fault_stream& s) { s.add_unreferenced_pid(); }, {{"Unreferenced_PID", 1}}},
        // A NIT every second, then none for 11 s.
        {"NitActualGap",
         [](ts_fault_stream& s) { s.drop_pid(0x10, 1000, 26000); },
         {{"NIT_error", 1}, {"NIT_actual_error", 1}},
         {},
         k12s},
        {"NitActualTooOften",
         [](ts_fault_stream& s) { s.add_section(60, 0x10, siSection(0x40, 1)); },
         {{"NIT_actual_error", 1}, {"SI_repetition_error", 1}}},
        // An "other" table seen once at 0.43 s: the gap still open at 12 s counts.
        {"NitOtherGap",
         [](ts_fault_stream& s) { s.add_section(1070, 0x10, siSection(0x41, 2)); },
         {{"NIT_other_error", 1}},
         {},
         k12s},
        {"NitOtherWithinItsLimit", [](ts_fault_stream& s) { s.add_section(1070, 0x10, siSection(0x41, 2)); }, {}},
        {"SdtOtherGap",
         [](ts_fault_stream& s) { s.add_section(1070, 0x11, siSection(0x46, 2)); },
         {{"SDT_other_error", 1}},
         {},
         k12s},
        {"WrongTableIdOnSdtPid",
         [](ts_fault_stream& s) { s.add_section(1070, 0x11, siSection(0x40, 1)); },
         {{"SDT_error", 1}}},
        {"EitOtherGap",
         [](ts_fault_stream& s) {
             s.add_section(1070, 0x12, eitOtherSection(0));
             s.add_section(1071, 0x12, eitOtherSection(1));
         },
         {{"EIT_other_error", 1}},
         {},
         k12s},
        {"WrongTableIdOnEitPid",
         [](ts_fault_stream& s) { s.add_section(1070, 0x12, ts_fault_stream::sdt_section()); },
         {{"EIT_error", 1}}},
        {"RstOnce", [](ts_fault_stream& s) { s.add_section(1070, 0x13, kRstSection); }, {}},
        {"RstTooOften",
         [](ts_fault_stream& s) {
             s.add_section(1070, 0x13, kRstSection);
             s.add_section(1071, 0x13, kRstSection);
         },
         {{"RST_error", 1}, {"SI_repetition_error", 1}}},
        {"WrongTableIdOnRstPid",
         [](ts_fault_stream& s) { s.add_section(1070, 0x13, ts_fault_stream::sdt_section()); },
         {{"RST_error", 1}}},
        // A TDT every second, then none for 32 s.
        {"TdtGap", [](ts_fault_stream& s) { s.drop_pid(0x14, 1000, 78000); }, {{"TDT_error", 1}}, {}, k33s},
        {"TdtTooOften",
         [](ts_fault_stream& s) { s.add_section(60, 0x14, kTdtSection); },
         {{"TDT_error", 1}, {"SI_repetition_error", 1}}},
        {"WrongTableIdOnTdtPid",
         [](ts_fault_stream& s) { s.add_section(1070, 0x14, ts_fault_stream::sdt_section()); },
         {{"TDT_error", 1}}},
    };
}

class AnalyzerFaultCase : public ::testing::TestWithParam<fault_case> {};

TEST_P(AnalyzerFaultCase, CountsExactlyTheFaultAndNothingElse) {
    ts_fault_stream stream(GetParam().packets);
    GetParam().fault(stream);
    const auto bytes = stream.bytes();
    EXPECT_EQ(analyseRaw(bytes, GetParam().opts), GetParam().expected) << "raw bytes";
    EXPECT_EQ(analysePackets(bytes, GetParam().opts), GetParam().expected) << "aligned packets";
}

INSTANTIATE_TEST_SUITE_P(Generated, AnalyzerFaultCase, ::testing::ValuesIn(faultCases()),
                         [](const ::testing::TestParamInfo<fault_case>& info) { return info.param.name; });

TEST(Analyzer, GivenTransportRateFindsTheSameInaccuratePcr) {
    ts_fault_stream stream;
    stream.offset_pcr(stream.find_pcr(2000), -54);
    CTsAnalyzer::options opts;
    opts.transport_rate = ts_fault_stream::bitrate;
    EXPECT_EQ(analyseRaw(stream.bytes(), opts), (counts{{"PCR_accuracy_error", 1}}));
}

TEST(Analyzer, AlarmHooksFireWithTheirChecks) {
    ts_fault_stream stream;
    stream.break_sync_byte(3000);
    stream.break_sync_byte(3001);
    stream.drop_pid(0, 1000, 2500);
    stream.drop_pid(ts_fault_stream::pmt_pid, 1000, 2500);
    const auto bytes = stream.bytes();
    recording_analyzer analyzer;
    for (size_t at = 0; at + 188 <= bytes.size(); at += 188)
        analyzer.push_packet((at / 188 + 1) * ts_fault_stream::packet_ns, bytes.data() + at);
    analyzer.finish();
    EXPECT_EQ(analyzer.hooks, (counts{{"sync_lost", 1}, {"sync_byte", 2}, {"pat", 1}, {"pmt", 1}}));
}

TEST(Analyzer, FiguresOfTheCleanStream) {
    ts_fault_stream stream;
    stream.send_again(1040, 2);
    stream.scramble(2010);
    const auto bytes = stream.bytes();
    CTsAnalyzer analyzer;
    analyzer.push_raw(0, bytes.size() / 188 * ts_fault_stream::packet_ns, bytes.data(), bytes.size());
    analyzer.finish();
    const ts_stream_figures ts = analyzer.stream_figures();
    EXPECT_EQ(ts.packets, 7500u);
    EXPECT_EQ(ts.bitrate, ts_fault_stream::bitrate);
    EXPECT_NEAR(static_cast<double>(ts.duration_ms), 3000.0, 1.0);
    std::map<uint16_t, ts_pid_figures> pids;
    for (const auto& f : analyzer.pid_figures())
        pids[f.pid] = f;
    const ts_pid_figures& video = pids[ts_fault_stream::video_pid];
    EXPECT_EQ(video.pcr, 75u);
    EXPECT_EQ(video.pts, 75u);
    EXPECT_EQ(video.dts, 0u);
    EXPECT_EQ(video.duplicates, 2u);
    EXPECT_EQ(video.cc_errors, 1u);
    EXPECT_EQ(video.scrambled, 1u);
    EXPECT_EQ(video.service, 1);
    EXPECT_EQ(video.packets, 75u * 39 + 2);
    EXPECT_EQ(video.bitrate, (75u * 39 + 2) * ts_fault_stream::bitrate / 7500);
    EXPECT_EQ(pids[0].packets, 30u);
    EXPECT_EQ(pids[0].service, -1);
    bool sawPat = false;
    for (const auto& t : analyzer.table_figures()) {
        if (t.pid == 0 && t.table_id == 0) {
            sawPat = true;
            EXPECT_EQ(t.sections, 30u);
            EXPECT_EQ(t.table_id_ext, 1u);
            EXPECT_EQ(t.repetition_ms_min, 100);
            EXPECT_EQ(t.repetition_ms_max, 100);
        }
    }
    EXPECT_TRUE(sawPat);
    const auto services = analyzer.service_figures();
    ASSERT_EQ(services.size(), 1u);
    EXPECT_EQ(services[0].service_id, 1);
    EXPECT_EQ(services[0].pmt_pid, ts_fault_stream::pmt_pid);
    EXPECT_EQ(services[0].pcr_pid, ts_fault_stream::video_pid);
    EXPECT_EQ(services[0].pids, (std::vector<uint16_t>{ts_fault_stream::video_pid, ts_fault_stream::data_pid}));
}

TEST(Analyzer, ResynchronisesAcrossGarbageAndSplitRuns) {
    ts_fault_stream stream(3000);
    auto bytes = stream.bytes();
    bytes.insert(bytes.begin() + 188 * 100, 7, 0x00);  // lost alignment in the middle
    CTsAnalyzer analyzer;
    for (size_t at = 0; at < bytes.size(); at += 97)
        analyzer.push_raw(at, at + 97, bytes.data() + at, std::min<size_t>(97, bytes.size() - at));
    analyzer.finish();
    EXPECT_EQ(analyzer.count(tr101290_check::TS_sync_loss), 1u);
    EXPECT_EQ(analyzer.count(tr101290_check::Sync_byte_error), 2u);
    // The first bad sync byte is still in sync, so that packet is analysed
    // (its sync byte taken as good); the next one is where sync is lost, and
    // the search finds the packet after it.
    EXPECT_EQ(analyzer.stream_figures().packets, 3000u);
}

TEST(Analyzer, NamesAndPrioritiesOfTheChecks) {
    EXPECT_STREQ(tr101290_name(tr101290_check::TS_sync_loss), "TS_sync_loss");
    EXPECT_STREQ(tr101290_name(tr101290_check::PCR_discontinuity_indicator_error), "PCR_discontinuity_indicator_error");
    EXPECT_STREQ(tr101290_name(tr101290_check::TDT_error), "TDT_error");
    EXPECT_EQ(tr101290_priority(tr101290_check::PID_error), 1);
    EXPECT_EQ(tr101290_priority(tr101290_check::CAT_error), 2);
    EXPECT_EQ(tr101290_priority(tr101290_check::Unreferenced_PID), 3);
}

}  // namespace
