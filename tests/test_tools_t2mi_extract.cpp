// t2mi-extract on the bundled T2-MI carrier: the extracted PLP against the
// independent reference extraction, the PLP listing and the error paths; on
// carriers made by the test encapsulator: every PLP at once, and a T2-MI PID
// that no PSI announces.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "support/t2mi_encapsulator.h"
#include "support/test_data.h"
#include "tools/tool_runner.h"

namespace {

const std::string kTool = T2MI_EXTRACT_PATH;
constexpr size_t kReferencePackets = 8386;

class T2miExtract : public ::testing::Test {
protected:
    void SetUp() override {
        char path[] = "/tmp/t2mi-extract-XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        close(fd);
        m_out = path;
    }
    void TearDown() override { std::remove(m_out.c_str()); }

    std::string m_out;
    const std::string m_in = vq_test::dataPath("t2mi-plp102.ts");
};

TEST_F(T2miExtract, Plp102MatchesTheReferenceExtraction) {
    const auto result =
        vq_test::run_tool(kTool + " --plp 102 " + vq_test::shell_quote(m_in) + " " + vq_test::shell_quote(m_out), true);
    ASSERT_EQ(result.status, 0) << result.output;
    const auto extracted = vq_test::readFile(m_out);
    const auto reference = vq_test::readDataFile("t2mi-plp102.reference-extracted.ts");
    ASSERT_EQ(reference.size(), kReferencePackets * 188);
    ASSERT_GE(extracted.size(), reference.size());
    EXPECT_EQ(extracted.size() % 188, 0u);
    EXPECT_TRUE(std::equal(reference.begin(), reference.end(), extracted.begin()))
        << "the first " << kReferencePackets << " packets differ from the reference";
    const std::string count = std::to_string(extracted.size() / 188);
    EXPECT_NE(result.output.find("PLP 102: " + count + " packets written"), std::string::npos) << result.output;
}

TEST_F(T2miExtract, WithoutPlpListsThePlpsAndExtractsTheOnlyOne) {
    const auto listing = vq_test::run_tool(kTool + " " + vq_test::shell_quote(m_in));
    EXPECT_EQ(listing.status, 0);
    EXPECT_NE(listing.output.find(": 102 ("), std::string::npos) << listing.output;
    EXPECT_EQ(listing.output.find(", "), std::string::npos) << "only PLP 102 is carried: " << listing.output;

    const auto result = vq_test::run_tool(kTool + " " + vq_test::shell_quote(m_in) + " " + vq_test::shell_quote(m_out));
    EXPECT_EQ(result.status, 0);
    const auto reference = vq_test::readDataFile("t2mi-plp102.reference-extracted.ts");
    const auto extracted = vq_test::readFile(m_out);
    ASSERT_GE(extracted.size(), reference.size());
    EXPECT_TRUE(std::equal(reference.begin(), reference.end(), extracted.begin()));
}

TEST_F(T2miExtract, AnAbsentPlpFailsAndNamesThePlpsThatExist) {
    const auto result =
        vq_test::run_tool(kTool + " --plp 7 " + vq_test::shell_quote(m_in) + " " + vq_test::shell_quote(m_out), true);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("PLP 7: 0 packets"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("102 ("), std::string::npos) << result.output;
}

TEST_F(T2miExtract, APlainTransportStreamHasNoPlp) {
    const auto result = vq_test::run_tool(kTool + " " + vq_test::shell_quote(vq_test::dataPath("live-072.ts")));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find(": none"), std::string::npos) << result.output;
}

TEST_F(T2miExtract, BadArgumentsAndHelp) {
    EXPECT_EQ(vq_test::run_tool(kTool + " --plp 256 a b", true).status, 2);
    EXPECT_EQ(vq_test::run_tool(kTool + " --plp x a b", true).status, 2);
    EXPECT_EQ(vq_test::run_tool(kTool, true).status, 2);
    const auto missing = vq_test::run_tool(kTool + " --plp 1 /nonexistent/in.ts " + vq_test::shell_quote(m_out), true);
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("cannot open /nonexistent/in.ts"), std::string::npos) << missing.output;
    const auto help = vq_test::run_tool(kTool + " --help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("Usage: t2mi-extract [--pid PID] [--plp N|all] IN [OUT]"), std::string::npos);
    EXPECT_EQ(vq_test::run_tool(kTool + " --pid 8191 a", true).status, 2);
    EXPECT_EQ(vq_test::run_tool(kTool + " --pid x a", true).status, 2);
}

// ---- every PLP at once, and a T2-MI PID given on the command line ----

// A temporary directory for the files of --plp all, removed with its files.
class T2miExtractAll : public ::testing::Test {
protected:
    void SetUp() override {
        char path[] = "/tmp/t2mi-extract-all-XXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        m_dir = path;
    }
    void TearDown() override {
        for (const auto& name : m_created)
            std::remove(name.c_str());
        std::remove((m_dir + "/carrier.ts").c_str());
        rmdir(m_dir.c_str());
    }

    std::string write_carrier(const std::vector<uint8_t>& ts) {
        const std::string path = m_dir + "/carrier.ts";
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(ts.data()), static_cast<std::streamsize>(ts.size()));
        return path;
    }
    std::string plp_file(unsigned plp) {
        const std::string path = m_dir + "/plp" + std::to_string(plp) + ".ts";
        m_created.push_back(path);
        return path;
    }
    // Every file in the directory but the carrier.
    std::vector<std::string> files() const {
        std::vector<std::string> out;
        const auto listing = vq_test::run_tool("ls " + vq_test::shell_quote(m_dir));
        for (const auto& name : listing.lines())
            if (name != "carrier.ts")
                out.push_back(name);
        return out;
    }

    std::string m_dir;
    std::vector<std::string> m_created;
    const std::string m_in_capture = vq_test::dataPath("t2mi-plp102.ts");
};

// 188-byte packets on one PID whose payload bytes tell the packets apart.
std::vector<uint8_t> numbered_stream(uint16_t pid, size_t packets) {
    std::vector<uint8_t> ts;
    for (size_t i = 0; i < packets; ++i) {
        std::vector<uint8_t> payload(184);
        for (size_t j = 0; j < payload.size(); ++j)
            payload[j] = static_cast<uint8_t>(i * 7 + j + pid);
        const auto packet = vq_test::makeTsPacket(pid, static_cast<uint8_t>(i), false, payload);
        ts.insert(ts.end(), packet.begin(), packet.end());
    }
    return ts;
}

// A carrier of PLPs 1 (300 packets) and 2 (210 packets) on T2-MI PID 0x0040;
// every baseband frame of PLP 2 holds a packet start, as the decapsulator needs.
std::vector<uint8_t> two_plp_carrier(std::map<unsigned, std::vector<uint8_t>>& plpStreams) {
    plpStreams[1] = numbered_stream(0x0100, 300);
    plpStreams[2] = numbered_stream(0x0200, 210);
    std::vector<vq_test::PlpInput> plps(2);
    plps[0].plpId = 1;
    plps[0].ts = plpStreams[1];
    plps[1].plpId = 2;
    plps[1].ts = plpStreams[2];
    plps[1].dflBytes = 187 * 13 + 50;  // user packets straddle baseband frames
    vq_test::CarrierOptions options;
    options.timestampEvery = 3;
    return vq_test::wrapIntoTransportStream(vq_test::encapsulate(plps, options), vq_test::CarrierTsOptions());
}

// The carrier without its PAT and PMT packets.
std::vector<uint8_t> without_psi(const std::vector<uint8_t>& ts, uint16_t pmtPid) {
    std::vector<uint8_t> out;
    for (size_t at = 0; at + 188 <= ts.size(); at += 188) {
        const uint16_t pid = static_cast<uint16_t>(((ts[at + 1] & 0x1F) << 8) | ts[at + 2]);
        if (pid != 0 && pid != pmtPid)
            out.insert(out.end(), ts.begin() + static_cast<long>(at), ts.begin() + static_cast<long>(at + 188));
    }
    return out;
}

TEST_F(T2miExtractAll, EveryPlpGoesToItsOwnFile) {
    std::map<unsigned, std::vector<uint8_t>> plps;
    const std::string carrier = write_carrier(two_plp_carrier(plps));
    const std::string one = plp_file(1), two = plp_file(2);
    const auto result = vq_test::run_tool(
        kTool + " --plp all " + vq_test::shell_quote(carrier) + " " + vq_test::shell_quote(m_dir + "/plp%d.ts"), true);
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(vq_test::readFile(one), plps[1]);
    EXPECT_EQ(vq_test::readFile(two), plps[2]);
    EXPECT_EQ(files(), (std::vector<std::string>{"plp1.ts", "plp2.ts"}));
    EXPECT_NE(result.output.find("PLP 1: 300 packets written to " + one), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("PLP 2: 210 packets written to " + two), std::string::npos) << result.output;
}

TEST_F(T2miExtractAll, ThePatternMayGiveAWidth) {
    std::map<unsigned, std::vector<uint8_t>> plps;
    const std::string carrier = write_carrier(two_plp_carrier(plps));
    m_created.push_back(m_dir + "/plp-001.ts");
    m_created.push_back(m_dir + "/plp-002.ts");
    const auto result = vq_test::run_tool(
        kTool + " --plp all " + vq_test::shell_quote(carrier) + " " + vq_test::shell_quote(m_dir + "/plp-%03d.ts"),
        true);
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(vq_test::readFile(m_dir + "/plp-002.ts"), plps[2]);
    EXPECT_EQ(files(), (std::vector<std::string>{"plp-001.ts", "plp-002.ts"}));
}

TEST_F(T2miExtractAll, APatternWithoutExactlyOneNumberIsRefused) {
    for (const char* pattern : {"plp.ts", "plp%d-%d.ts", "plp%s.ts", "plp%x.ts", "100%%.ts", "plp%"}) {
        const auto result = vq_test::run_tool(kTool + " --plp all " + vq_test::shell_quote(m_in_capture) + " " +
                                                  vq_test::shell_quote(m_dir + "/" + pattern),
                                              true);
        EXPECT_EQ(result.status, 2) << pattern;
        EXPECT_NE(result.output.find("with --plp all, OUT names the file of each PLP with exactly one %d"),
                  std::string::npos)
            << result.output;
    }
    EXPECT_TRUE(files().empty());
    EXPECT_EQ(vq_test::run_tool(kTool + " --plp all " + vq_test::shell_quote(m_in_capture), true).status, 2);
}

TEST_F(T2miExtractAll, TheCaptureGivesItsOnePlpEqualToTheReference) {
    const std::string out = plp_file(102);
    const auto result = vq_test::run_tool(
        kTool + " --plp all " + vq_test::shell_quote(m_in_capture) + " " + vq_test::shell_quote(m_dir + "/plp%d.ts"),
        true);
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(files(), std::vector<std::string>{"plp102.ts"});
    const auto reference = vq_test::readDataFile("t2mi-plp102.reference-extracted.ts");
    const auto extracted = vq_test::readFile(out);
    ASSERT_GE(extracted.size(), reference.size());
    EXPECT_TRUE(std::equal(reference.begin(), reference.end(), extracted.begin()));
}

TEST_F(T2miExtractAll, AGivenPidFindsAT2miStreamThatNoPsiAnnounces) {
    std::map<unsigned, std::vector<uint8_t>> plps;
    const std::string carrier = write_carrier(without_psi(two_plp_carrier(plps), 0x0020));
    const std::string listed = vq_test::run_tool(kTool + " " + vq_test::shell_quote(carrier)).output;
    EXPECT_NE(listed.find(": none"), std::string::npos) << "without --pid nothing is found: " << listed;

    const auto listing = vq_test::run_tool(kTool + " --pid 0x40 " + vq_test::shell_quote(carrier));
    EXPECT_EQ(listing.status, 0);
    EXPECT_NE(listing.output.find(": 1 ("), std::string::npos) << listing.output;
    EXPECT_NE(listing.output.find(", 2 ("), std::string::npos) << listing.output;

    const std::string two = plp_file(2);
    const auto one = vq_test::run_tool(
        kTool + " --pid 64 --plp 2 " + vq_test::shell_quote(carrier) + " " + vq_test::shell_quote(two), true);
    ASSERT_EQ(one.status, 0) << one.output;
    EXPECT_EQ(vq_test::readFile(two), plps[2]);

    plp_file(1);
    const auto all = vq_test::run_tool(kTool + " --pid 64 --plp all " + vq_test::shell_quote(carrier) + " " +
                                           vq_test::shell_quote(m_dir + "/plp%d.ts"),
                                       true);
    ASSERT_EQ(all.status, 0) << all.output;
    EXPECT_EQ(vq_test::readFile(m_dir + "/plp1.ts"), plps[1]);
    EXPECT_EQ(vq_test::readFile(two), plps[2]);

    const auto wrong = vq_test::run_tool(kTool + " --pid 65 " + vq_test::shell_quote(carrier));
    EXPECT_EQ(wrong.status, 1);
    EXPECT_NE(wrong.output.find(": none"), std::string::npos) << wrong.output;
}

TEST_F(T2miExtractAll, AGivenPidOverridesThePmtOfTheCapture) {
    const auto capture = vq_test::readDataFile("t2mi-plp102.ts");
    const std::string carrier = write_carrier(without_psi(capture, 33));
    const std::string out = plp_file(102);
    const auto result = vq_test::run_tool(
        kTool + " --pid 64 --plp 102 " + vq_test::shell_quote(carrier) + " " + vq_test::shell_quote(out), true);
    ASSERT_EQ(result.status, 0) << result.output;
    // Without a PMT to wait for, collection starts with the first T2-MI
    // packet, so the reference extraction follows some earlier packets.
    const auto reference = vq_test::readDataFile("t2mi-plp102.reference-extracted.ts");
    const auto extracted = vq_test::readFile(out);
    const auto found = std::search(extracted.begin(), extracted.end(), reference.begin(), reference.end());
    ASSERT_NE(found, extracted.end()) << "the reference packets are not in the extraction";
    const size_t before = static_cast<size_t>(found - extracted.begin());
    EXPECT_EQ(before % 188, 0u);
    EXPECT_GT(before, 0u);
    for (size_t at = 0; at < extracted.size(); at += 188)
        ASSERT_EQ(extracted[at], 0x47) << "packet " << at / 188;

    // With the PSI kept, a PID that is not the announced one wins over the PMT.
    const auto other = vq_test::run_tool(kTool + " --pid 65 " + vq_test::shell_quote(m_in_capture));
    EXPECT_EQ(other.status, 1);
    EXPECT_NE(other.output.find(": none"), std::string::npos) << other.output;
}

}  // namespace
