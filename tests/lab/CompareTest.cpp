// What a change of policy changes, by fernhill-lab compare.

#include "lab/CompareCommand.h"
#include "lab/LabCaptures.h"
#include "lab/LabRun.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace {

using lab::Action;
using lab::Comparison;
using lab::ConnectionRow;
using labtest::LabRun;
using labtest::linesOf;
using labtest::runLab;
using testsupport::readAll;
using testsupport::writeAll;

// A connection of that local port, which asked once.
ConnectionRow asked(int port, Action action, const std::string& redirect = "") {
    ConnectionRow row;
    row.connection.local = {std::string("\x0a\0\0\x02", 4), port};
    row.connection.remote = {std::string("\x0a\0\0\x09", 4), 80};
    row.connection.queries.push_back({"http://page.test/", {action, redirect, 0, ""}, 0});
    row.connection.redirected = action == Action::block;
    return row;
}

Comparison compared(const std::vector<ConnectionRow>& before, const std::vector<ConnectionRow>& after) {
    Comparison comparison;
    lab::compareRows(comparison, "test.pcap", before, after);
    return comparison;
}

TEST(CompareRows, ConnectionsOfTheSameOutcomeAreNoDifference) {
    const Comparison comparison = compared({asked(1, Action::allow)}, {asked(1, Action::allow)});
    EXPECT_EQ(comparison.connections, 1);
    EXPECT_TRUE(comparison.differences.empty());
    EXPECT_TRUE(comparison.urls.empty());
}

TEST(CompareRows, AnotherVerdictIsCountedByItsChange) {
    const Comparison comparison =
        compared({asked(1, Action::allow), asked(2, Action::allow), asked(3, Action::allow)},
                 {asked(1, Action::block, "http://b/"), asked(2, Action::block, "http://b/"),
                  asked(3, Action::allow)});
    EXPECT_EQ(comparison.differences.size(), 2u);
    const auto change = std::make_pair(std::string("passed"), std::string("redirected to http://b/"));
    EXPECT_EQ(comparison.changes.at(change), 2);
}

TEST(CompareRows, AnotherPageInPlaceOfABlockedOneIsADifference) {
    EXPECT_EQ(compared({asked(1, Action::block, "http://b/")}, {asked(1, Action::block, "http://c/")})
                  .differences.size(),
              1u);
}

TEST(CompareRows, ALongerHoldIsADifferenceWithoutAnotherVerdict) {
    ConnectionRow longer = asked(1, Action::allow);
    longer.connection.heldTime = 3000000;
    const Comparison comparison = compared({asked(1, Action::allow)}, {longer});
    EXPECT_EQ(comparison.differences.size(), 1u);
    EXPECT_TRUE(comparison.changes.empty());
}

TEST(CompareRows, AreNoneWhereADaemonHasLeftPacketsWithoutAnAnswer) {
    lab::Totals totals;
    EXPECT_NO_THROW(lab::requireAnswers("one.pcap", "a.policy", totals));
    totals.unanswered = 2;
    try {
        lab::requireAnswers("one.pcap", "a.policy", totals);
        FAIL() << "no error";
    } catch (const lab::InputError& error) {
        EXPECT_STREQ(error.what(), "one.pcap: under a.policy the daemon left 2 packets without an answer, so "
                                   "nothing can be compared; replay the capture with that policy and --json "
                                   "FILE, where their results are null");
    }
}

TEST(CompareRows, AConnectionOfOneSideAloneIsADifference) {
    const Comparison comparison = compared({}, {asked(1, Action::allow)});
    ASSERT_EQ(comparison.differences.size(), 1u);
    EXPECT_EQ(comparison.differences[0].before.verdict, "no connection");
}

class CompareCommandTest : public testing::Test {
protected:
    CompareCommandTest() {
        labtest::CaptureWriter writer(folder_.file("test.pcap"));
        addExchange(writer, 0, labtest::Talk(50000), labtest::get("a.test"));
        addExchange(writer, 1, labtest::Talk(50001), labtest::get("b.test"));
        writeAll(folder_.file("old"), "allow *\n");
        writeAll(folder_.file("new"), "block *b.test* http://p/\n");
    }

    LabRun compare(const std::string& before, const std::string& after,
                   const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments = {"compare",  folder_.file("test.pcap"),
                                              "--policy", folder_.file(before),
                                              "--policy", folder_.file(after)};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return runLab(arguments);
    }

    testsupport::TemporaryFolder folder_;
};

TEST_F(CompareCommandTest, APolicyAgainstItselfChangesNothing) {
    const LabRun run = compare("old", "old");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("with another outcome: 0"), std::string::npos) << run.out;
}

TEST_F(CompareCommandTest, ABlockedHostIsTheOneDifference) {
    const LabRun run = compare("old", "new", {"--csv", folder_.file("csv")});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_NE(run.out.find("Connections in 1 captures: 2; with another outcome: 1."), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("http://b.test/"), std::string::npos);
    EXPECT_EQ(run.out.find("http://a.test/"), std::string::npos);
    const auto lines = linesOf(readAll(folder_.file("csv")));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[1].find("\"passed\",\"redirected to http://p/\",\"allow\",\"block\""), std::string::npos)
        << lines[1];
}

TEST_F(CompareCommandTest, JsonHasChangesUrlsAndConnections) {
    const LabRun run = compare("new", "old", {"--json"});
    EXPECT_EQ(run.status, 1);
    const auto all = nlohmann::json::parse(run.out);
    EXPECT_EQ(all["connections"], 2);
    EXPECT_EQ(all["changes"][0]["connections"], 1);
    EXPECT_EQ(all["urls"][0]["before"], "block http://p/");
    EXPECT_EQ(all["differences"][0]["after"]["verdict"], "passed");
}

TEST_F(CompareCommandTest, OnePolicyOrThreeAreRefused) {
    EXPECT_EQ(runLab({"compare", folder_.file("test.pcap"), "--policy", folder_.file("old")}).status, 2);
    EXPECT_EQ(compare("old", "new", {"--policy", folder_.file("old")}).status, 2);
    EXPECT_EQ(compare("old", "none").status, 2);
}

} // namespace
