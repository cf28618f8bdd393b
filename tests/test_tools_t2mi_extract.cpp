// t2mi-extract on the bundled T2-MI carrier: the extracted PLP against the
// independent reference extraction, the PLP listing and the error paths.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/test_data.h"
#include "tools/tool_runner.h"

namespace {

const std::string kTool = T2MI_EXTRACT_PATH;
constexpr size_t kReferencePackets = 8386;

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

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
    const auto result = vq_test::run_tool(kTool + " --plp 102 " + vq_test::shell_quote(m_in) + " " +
                                          vq_test::shell_quote(m_out), true);
    ASSERT_EQ(result.status, 0) << result.output;
    const auto extracted = read_file(m_out);
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
    const auto extracted = read_file(m_out);
    ASSERT_GE(extracted.size(), reference.size());
    EXPECT_TRUE(std::equal(reference.begin(), reference.end(), extracted.begin()));
}

TEST_F(T2miExtract, AnAbsentPlpFailsAndNamesThePlpsThatExist) {
    const auto result = vq_test::run_tool(kTool + " --plp 7 " + vq_test::shell_quote(m_in) + " " +
                                          vq_test::shell_quote(m_out), true);
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
    EXPECT_NE(help.output.find("Usage: t2mi-extract [--plp N] IN [OUT]"), std::string::npos);
}

}  // namespace
