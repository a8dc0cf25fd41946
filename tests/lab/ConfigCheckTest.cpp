// What `fernhill-lab check` says of a configuration file.

#include "lab/ConfigCheck.h"
#include "lab/LabRun.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using lab::ConfigFinding;
using Kind = ConfigFinding::Kind;

class ConfigCheck : public testing::Test {
protected:
    std::vector<ConfigFinding> check(const std::string& content) const {
        testsupport::writeAll(file(), content);
        return lab::checkConfiguration(file());
    }

    std::string file() const { return folder_.file("fernhill.xml"); }

    // The finding of that element; the first of them.
    static ConfigFinding of(const std::vector<ConfigFinding>& findings, const std::string& element,
                            int nth = 0) {
        for (const ConfigFinding& finding : findings)
            if (finding.element == element && nth-- == 0) return finding;
        ADD_FAILURE() << "nothing is said of " << element;
        return {};
    }

private:
    testsupport::TemporaryFolder folder_;
};

} // namespace

TEST_F(ConfigCheck, ASettingIsTakenWithItsLineAndTheDaemonsValue) {
    const auto findings =
        check("<Fernhill>\n<LogLevel>64</LogLevel>\n<VerboseLogging>TRUE</VerboseLogging></Fernhill>");
    EXPECT_EQ(of(findings, "LogLevel").kind, Kind::taken);
    EXPECT_EQ(of(findings, "LogLevel").line, 2);
    EXPECT_EQ(of(findings, "LogLevel").meaning, "64");
    EXPECT_FALSE(of(findings, "LogLevel").lost);
    EXPECT_EQ(of(findings, "VerboseLogging").line, 3);
    EXPECT_EQ(of(findings, "VerboseLogging").meaning.substr(0, 5), "true;");
}

TEST_F(ConfigCheck, WhatIsNotThereHasItsDefault) {
    const auto findings = check("<Fernhill><LogLevel>1</LogLevel></Fernhill>");
    EXPECT_EQ(std::count_if(findings.begin(), findings.end(),
                            [](const ConfigFinding& finding) { return finding.kind == Kind::defaulted; }),
              16);
    EXPECT_EQ(of(findings, "BlockOnFailure").meaning, "false");
}

TEST_F(ConfigCheck, AnUnknownElementIsIgnoredAndLost) {
    const ConfigFinding finding = of(check("<Fernhill><Proxy>a</Proxy></Fernhill>"), "Proxy");
    EXPECT_EQ(finding.kind, Kind::ignored);
    EXPECT_TRUE(finding.lost);
}

TEST_F(ConfigCheck, TheFirstOfTwoCountsAndTheSecondIsLost) {
    const auto findings = check("<Fernhill><kll>1</kll>\n<kll>2</kll></Fernhill>");
    EXPECT_EQ(of(findings, "kll").meaning, "1");
    EXPECT_EQ(of(findings, "kll", 1).kind, Kind::ignored);
    EXPECT_EQ(of(findings, "kll", 1).line, 2);
    EXPECT_TRUE(of(findings, "kll", 1).lost);
}

TEST_F(ConfigCheck, ASettingInsideAnUnknownElementIsTaken) {
    EXPECT_EQ(of(check("<Fernhill><Group><kll>3</kll></Group></Fernhill>"), "kll").meaning, "3");
}

TEST_F(ConfigCheck, AWordThatIsNotTrueIsFalseAndSaysSo) {
    EXPECT_EQ(of(check("<Fernhill><OEMMode>yes</OEMMode></Fernhill>"), "OEMMode").meaning,
              "false; only \"true\" and numbers above 0 are true");
}

TEST_F(ConfigCheck, ALevelThatIsNoNumberIsAllLevels) {
    EXPECT_EQ(of(check("<Fernhill><LogLevel>high</LogLevel></Fernhill>"), "LogLevel").meaning,
              "-1, all levels, since that is no number");
}

TEST_F(ConfigCheck, AnEmptyNameCountsAsNone) {
    EXPECT_EQ(of(check("<Fernhill><CachedUserName></CachedUserName></Fernhill>"), "CachedUserName").kind,
              Kind::ignored);
}

TEST_F(ConfigCheck, AServerWithoutANameIsLostAndARelayOfAUserToo) {
    const auto findings =
        check("<Fernhill><Users><alice UserFormatType=\"1\">x</alice></Users>"
              "<Servers><ServerName></ServerName><ServerName>two</ServerName></Servers></Fernhill>");
    EXPECT_EQ(of(findings, "alice").kind, Kind::ignored);
    EXPECT_TRUE(of(findings, "alice").lost);
    EXPECT_TRUE(of(findings, "ServerName").lost);
    EXPECT_EQ(of(findings, "ServerName", 1).kind, Kind::taken);
}

TEST_F(ConfigCheck, AFileWithoutAnElementCountsAsAnEmptyOne) {
    const auto findings = check("not xml");
    EXPECT_EQ(findings.front().kind, Kind::note);
    EXPECT_NE(findings.front().meaning.find("no element in it"), std::string::npos);
}

TEST_F(ConfigCheck, ElementsBehindTheFirstAreNotRead) {
    const auto findings = check("<Fernhill></Fernhill>\n<Fernhill><kll>9</kll></Fernhill>");
    EXPECT_EQ(of(findings, "kll").kind, Kind::defaulted);
    EXPECT_EQ(of(findings, "").meaning, "2 elements behind the end of the first one are not read");
}

TEST_F(ConfigCheck, CommentsAreLost) {
    EXPECT_TRUE(of(check("<Fernhill>\n<!-- mine -->\n<kll>1</kll></Fernhill>"), "<!--").lost);
}

TEST_F(ConfigCheck, WhatTheDaemonWroteItselfLosesNothing) {
    testsupport::writeAll(file(),
                          "<Fernhill><BlockOnFailure>false</BlockOnFailure><BalancedMode>false</BalancedMode>"
                          "<LogLevel>0</LogLevel><kll>0</kll><Users></Users><Servers></Servers></Fernhill>");
    const labtest::LabRun run = labtest::runLab({"check", file()});
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_EQ(run.out.find("LOST"), std::string::npos);
}

TEST_F(ConfigCheck, TheTableMarksWhatIsLostAndEndsWithStatusOne) {
    testsupport::writeAll(file(), "<Fernhill><Proxy>a</Proxy></Fernhill>");
    const labtest::LabRun run = labtest::runLab({"check", file()});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("1     ignored  Proxy              a     no setting of the daemon's; "
                           "LOST at the next save"),
              std::string::npos)
        << run.out;
}

TEST_F(ConfigCheck, JsonHasTheSameFindings) {
    testsupport::writeAll(file(), "<Fernhill><Proxy>a\xff</Proxy></Fernhill>");
    const labtest::LabRun run = labtest::runLab({"check", "--json", file()});
    const nlohmann::json rows = nlohmann::json::parse(run.out);
    EXPECT_EQ(rows[0]["element"], "Proxy");
    EXPECT_EQ(rows[0]["lost"], true);
    EXPECT_EQ(rows.size(), 18u);
}

TEST_F(ConfigCheck, AFileThatIsNotThereIsRefused) {
    const labtest::LabRun run = labtest::runLab({"check", "/nonexistent/fernhill.xml"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: /nonexistent/fernhill.xml: No such file or directory\n");
}
