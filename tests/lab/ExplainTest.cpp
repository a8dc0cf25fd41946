// What fernhill-lab explain tells of packets: held to what a replay of the same capture did.

#include "lab/Explanation.h"
#include "lab/LabCaptures.h"
#include "lab/LabRun.h"
#include "packet/PacketVerdicts.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using lab::Call;
using lab::ObservedStep;
using labtest::LabRun;
using labtest::linesOf;
using labtest::runLab;
using nlohmann::json;
using testsupport::writeAll;

// Of every kind of answer something: blocks that fit into a request and one that does not, answers that come while a
// packet is held, and none at all.
constexpr char mixedPolicy[] =
    "block *alder* http://b/\nblock *birch* http://b/\nblock *hazel* http://b/\n"
    "block *gum* "
    "http://localhost:6543/a-page-whose-address-is-longer-than-most-of-the-requests-of-the-captures/"
    "?and-so-it-does-not-fit-into-them-but-for-a-few-that-are-longer-than-others\n"
    "slow 2500 *cedar*\nslow 2500 *fir*\nsilent *elm*\nretry 1 *ivy*\ngarble *juniper*\nallow *\n";

std::vector<std::string> captures() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(OSTLER_TEST_DATA "/captures")) {
        const std::string extension = entry.path().extension();
        if (extension == ".pcap" || extension == ".pcapng") names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<json> rowsOf(const LabRun& run) {
    std::vector<json> rows;
    for (const std::string& line : linesOf(run.out))
        rows.push_back(json::parse(line));
    return rows;
}

class ExplainedCapture : public testing::TestWithParam<std::string> {};

TEST_P(ExplainedCapture, SaysOfEveryPacketWhatTheReplayDid) {
    const testsupport::TemporaryFolder folder;
    const std::string capture = OSTLER_TEST_DATA "/captures/" + GetParam();
    writeAll(folder.file("policy"), mixedPolicy);
    const LabRun explained =
        runLab({"explain", capture, "--packet", "all", "--json", "--policy", folder.file("policy")});
    EXPECT_EQ(explained.status, 0) << explained.err;
    const std::vector<json> told = rowsOf(explained);
    const std::vector<json> played =
        rowsOf(runLab({"replay", capture, "--json", "-", "--policy", folder.file("policy")}));
    ASSERT_EQ(told.size(), played.size());
    ASSERT_FALSE(told.empty());
    for (std::size_t i = 0; i < told.size(); ++i) {
        EXPECT_EQ(told[i]["packet"], played[i]["n"]);
        EXPECT_EQ(told[i]["result"], played[i]["result"]) << told[i];
        EXPECT_EQ(told[i]["presentations"].size(), played[i]["presented"]) << told[i];
        for (const json& presentation : told[i]["presentations"]) {
            EXPECT_EQ(presentation["told"], presentation["verdict"]) << told[i];
            const json& tests = presentation["tests"];
            EXPECT_EQ(
                std::count_if(tests.begin(), tests.end(), [](const json& test) { return test["decides"]; }),
                1)
                << told[i];
        }
    }
}

std::string nameOf(const testing::TestParamInfo<std::string>& info) {
    std::string name = info.param.substr(0, info.param.rfind('.'));
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(All, ExplainedCapture, testing::ValuesIn(captures()), nameOf);

class ExplainTest : public testing::Test {
protected:
    ExplainTest() {
        labtest::CaptureWriter writer(folder_.file("test.pcap"));
        addExchange(writer, 0, labtest::Talk(50000), labtest::get("www.example.org"));
    }

    LabRun explain(const std::string& policy, const std::vector<std::string>& options) {
        writeAll(folder_.file("policy"), policy);
        std::vector<std::string> arguments = {"explain", folder_.file("test.pcap"), "--policy",
                                              folder_.file("policy")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return runLab(arguments);
    }

    static bool has(const LabRun& run, const std::string& text) {
        return run.out.find(text) != std::string::npos;
    }

    testsupport::TemporaryFolder folder_;
};

TEST_F(ExplainTest, ARequestsStoryHasItsTestsItsRecordAndTheAgentsReply) {
    setenv("COLUMNS", "160", 1);
    const LabRun run = explain("allow *example*\n", {"--packet", "3"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(has(run, "Packet 3 of test.pcap: outbound, 10.0.0.2:50000 -> 93.184.216.34:80")) << run.out;
    EXPECT_TRUE(has(run, "Shown at 0.002 s: held (verdict 7, result 3)")) << run.out;
    EXPECT_TRUE(has(run, "Shown at 1.002 s (presentation 2): passed (verdict 1, result 0)")) << run.out;
    EXPECT_TRUE(has(run, "of http://www.example.org/, made by packet 3 at 0.002 s; not blocked")) << run.out;
    EXPECT_TRUE(has(run, "asked at 0.002 s, replied at 0.002 s: {} (allow *example*)")) << run.out;
}

TEST_F(ExplainTest, ThePresentationsOfASilentAgentAreToldOnce) {
    const LabRun run = explain("silent *\n", {"--packet", "3", "--json"});
    const std::vector<json> rows = rowsOf(run);
    ASSERT_EQ(rows.size(), 1u) << run.err;
    EXPECT_EQ(rows[0]["presentations"].size(), 9u);
    EXPECT_TRUE(rows[0]["agent"][0]["replied"].is_null());
    EXPECT_EQ(rows[0]["agent"][0]["rule"], "silent *");
    EXPECT_TRUE(
        has(explain("silent *\n", {"--packet", "3"}), "The same again at 3.002 s, 7.002 s, 15.002 s"));
}

TEST_F(ExplainTest, APacketBehindARedirectWasNotShown) {
    const LabRun run = explain("block * http://b/\n", {"--packet", "4"});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(has(run, "It was not shown to the daemon")) << run.out;
}

TEST_F(ExplainTest, APictureOfTheBytesHasTheUrlsMarked) {
    const LabRun run = explain("allow *\n", {"--packet", "3"});
    // "GET / HTTP/1.1" begins at offset 40, behind both headers.
    EXPECT_TRUE(has(run, "47 45 54 20 2f 20 48 54")) << run.out;
    EXPECT_TRUE(has(run, "      UU                      UU UU UU UU UU UU UU UU\n")) << run.out;
}

TEST_F(ExplainTest, ALinkThatEndsIsToldAsItWas) {
    const std::vector<json> rows = rowsOf(explain("drop *\n", {"--packet", "all", "--json"}));
    ASSERT_EQ(rows.size(), 6u);
    for (const json& row : rows)
        EXPECT_EQ(row["explained"], true) << row;
    EXPECT_EQ(rows[2]["agent"][0]["reply"], ""); // the reconnect's empty text, which allows
}

TEST_F(ExplainTest, APacketThatIsNotThereIsRefused) {
    for (const char* packet : {"7", "0", "x", "3-2", "", "3x"}) {
        const LabRun run = explain("allow *\n", {"--packet", packet});
        EXPECT_EQ(run.status, 2) << packet;
        EXPECT_EQ(linesOf(run.err).size(), 1u) << run.err;
    }
}

TEST_F(ExplainTest, ARangeIsExplainedInItsOrder) {
    const std::vector<json> rows =
        rowsOf(explain("allow *\n", {"--packet", "5-6", "--packet", "2", "--json"}));
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0]["packet"], 2);
    EXPECT_EQ(rows[2]["packet"], 6);
}

// A step without texts.
ObservedStep step(Call call, std::int64_t answer) { return {call, answer, "", "", 0}; }

TEST(ToldVerdict, NoVerdictFollowsFromATestThatLetsAPacketGoOn) {
    EXPECT_EQ(lab::toldVerdict({}, true), verdictUndecided);
    for (const Call call : {Call::filteringDisabled, Call::filterServer, Call::updateSource,
                            Call::filteringSuspended, Call::blockedAddress, Call::httpsUrl})
        EXPECT_EQ(lab::toldVerdict({step(call, 0)}, true), verdictUndecided);
    EXPECT_EQ(lab::toldVerdict({step(Call::usable, 1)}, true), verdictUndecided);
    EXPECT_EQ(lab::toldVerdict({step(Call::record, lab::noRecord)}, true), verdictUndecided);
    EXPECT_EQ(lab::toldVerdict({step(Call::newRecord, 1)}, true), verdictUndecided);
}

TEST(ToldVerdict, ABlockedAddressIsDropped) {
    EXPECT_EQ(lab::toldVerdict({step(Call::usable, 1), step(Call::blockedAddress, 1)}, true), verdictDrop);
}

TEST(ToldVerdict, ARedirectThatDoesNotFitPassesOnlyInbound) {
    EXPECT_EQ(lab::toldVerdict({step(Call::redirectFits, 0)}, false), verdictPass);
    EXPECT_EQ(lab::toldVerdict({step(Call::redirectFits, 0)}, true), verdictUndecided);
    EXPECT_EQ(lab::toldVerdict({step(Call::redirectFits, 1)}, true), verdictRedirect);
}

} // namespace
