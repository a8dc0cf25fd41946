// The lab's tables as comma-separated values, of each subcommand that shows one.

#include "lab/CsvFile.h"
#include "lab/LabCaptures.h"
#include "lab/LabRun.h"
#include "lab/Policy.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using labtest::LabRun;
using labtest::runLab;
using testsupport::readAll;
using testsupport::writeAll;

class CsvTest : public testing::Test {
protected:
    CsvTest() {
        writeAll(policy_, "allow *\n");
        writeAll(strict_, "block * http://p/\n");
        writeAll(folder_.file("fernhill00.log"), "[7 Sun Nov 22 10:00:00 2026]: a \"line\"\n"
                                                 "[8 Sun Nov 22 10:00:01 2026]: checking url http://a/\n");
        writeAll(folder_.file("fernhill.xml"), "<Fernhill><Proxy>a,b</Proxy></Fernhill>");
        labtest::CaptureWriter writer(capture_);
        labtest::addExchange(writer, 0, labtest::Talk(50000), labtest::get("www.example.org"));
    }

    // The rows, behind the heading, which must be that one, of what goes to standard output and nothing else.
    std::vector<std::string> rowsOf(std::vector<std::string> words, const std::string& heading) {
        words.insert(words.end(), {"--csv", "-"});
        const LabRun run = runLab(words);
        std::vector<std::string> rows;
        for (std::size_t at = 0, end = 0; (end = run.out.find("\r\n", at)) != std::string::npos; at = end + 2)
            rows.push_back(run.out.substr(at, end - at));
        EXPECT_EQ(run.out.substr(run.out.size() - std::min<std::size_t>(run.out.size(), 2)), "\r\n")
            << run.err;
        EXPECT_EQ(rows.empty() ? "" : rows.front(), heading) << run.err;
        if (!rows.empty()) rows.erase(rows.begin());
        return rows;
    }

    testsupport::TemporaryFolder folder_;
    const std::string capture_ = folder_.file("test.pcap");
    const std::string policy_ = folder_.file("policy");
    const std::string strict_ = folder_.file("strict");
};

TEST_F(CsvTest, AReplayHasARowForEachConnection) {
    const auto rows = rowsOf({"replay", capture_, "--policy", policy_},
                             "at,local,remote,questions,url,answer,held,packets,verdict");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_NE(rows[0].find(",1,\"http://www.example.org/\",\"allow\","), std::string::npos) << rows[0];
}

TEST_F(CsvTest, AComparisonHasARowForEachConnectionWithAnotherOutcome) {
    const auto rows = rowsOf({"compare", capture_, "--policy", policy_, "--policy", strict_},
                             "capture,at,local,remote,url,verdict before,verdict after,answer before,answer "
                             "after,held before,held after");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].rfind("\"test.pcap\",", 0), 0u) << rows[0];
}

TEST_F(CsvTest, TheLogHasARowForEachLineThatIsWanted) {
    const auto rows = rowsOf({"log", folder_.path()}, "time,thread,file,text,meaning");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_NE(rows[0].find(",7,\"fernhill00.log\",\"a \"\"line\"\"\",\"\""), std::string::npos) << rows[0];
    EXPECT_EQ(rowsOf({"log", folder_.path(), "--containing", "http"}, "time,thread,file,text,meaning").size(),
              1u);
    EXPECT_EQ(rowsOf({"log", folder_.path(), "--hangs"}, "sentence").size(), 1u);
}

TEST_F(CsvTest, ACheckHasARowForEachElement) {
    const auto rows = rowsOf({"check", folder_.file("fernhill.xml")}, "line,kind,element,text,meaning,lost");
    ASSERT_EQ(rows.size(), 18u);
    EXPECT_EQ(rows[0], "1,ignored,\"Proxy\",\"a,b\",\"no setting of the daemon's\",true");
}

TEST_F(CsvTest, TheDoctorHasARowForEachNeed) {
    const auto rows = rowsOf({"doctor"}, "what,runs,need,there,lack,remedy");
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows[0], "\"check, log\",true,,,,");
}

TEST_F(CsvTest, AFileLeavesTheTableWhereItIs) {
    const std::string configuration = folder_.file("fernhill.xml");
    const LabRun run = runLab({"check", configuration, "--csv", folder_.file("rows.csv")});
    EXPECT_EQ(run.out, runLab({"check", configuration}).out);
    EXPECT_EQ(readAll(folder_.file("rows.csv")), runLab({"check", configuration, "--csv", "-"}).out);
}

TEST_F(CsvTest, BothFormsOnStandardOutputAreRefused) {
    const std::vector<std::vector<std::string>> commands = {
        {"replay", capture_, "--policy", policy_, "--json", "-"},
        {"compare", capture_, "--policy", policy_, "--policy", strict_, "--json"},
        {"check", folder_.file("fernhill.xml"), "--json"},
        {"log", folder_.path(), "--json"},
        {"doctor", "--json"}};
    for (std::vector<std::string> words : commands) {
        words.insert(words.end(), {"--csv", "-"});
        const LabRun run = runLab(words);
        EXPECT_EQ(run.status, 2) << words[0];
        EXPECT_EQ(run.err, "fernhill-lab: --json and --csv exclude each other on standard output\n")
            << words[0];
        EXPECT_EQ(run.out, "") << words[0];
    }
}

TEST_F(CsvTest, APlaceThatCannotBeWrittenIsRefused) {
    EXPECT_THROW(lab::CsvFile(folder_.file("none/rows.csv"), "a,b"), lab::InputError);
    lab::CsvFile full("/dev/full", "a,b");
    EXPECT_THROW(full.finish(), lab::InputError);
}

} // namespace
