// A replay's connections: the choice for a screen, as comma-separated values, and as a page for a browser.

#include "lab/ConnectionRows.h"
#include "lab/HtmlReport.h"
#include "lab/LabCaptures.h"
#include "lab/LabRun.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace {

using lab::Action;
using lab::ConnectionRow;
using testsupport::readAll;

// A connection that began at that second, with one question and its answer.
ConnectionRow asked(int second, Action action, const std::string& url = "http://page.test/") {
    ConnectionRow row;
    row.at = second * 1000000LL;
    row.connection.local = {std::string("\x0a\0\0\x02", 4), 50000};
    row.connection.remote = {std::string("\x0a\0\0\x09", 4), 80};
    row.connection.queries.push_back({url, {action, "", 0, ""}, 0});
    row.connection.redirected = action == Action::block;
    return row;
}

ConnectionRow plain(int second) {
    ConnectionRow row = asked(second, Action::allow);
    row.connection.queries.clear();
    return row;
}

std::vector<long> secondsOf(const std::vector<ConnectionRow>& rows) {
    std::vector<long> seconds;
    for (const ConnectionRow& row : rows)
        seconds.push_back(static_cast<long>(row.at / 1000000));
    return seconds;
}

// What the page's script is given.
nlohmann::json dataOf(const std::string& page) {
    const std::string mark = "const data = ";
    const std::size_t start = page.find(mark) + mark.size();
    return nlohmann::json::parse(page.substr(start, page.find(";\n", start) - start));
}

using Seconds = std::vector<long>;

} // namespace

TEST(ChosenRows, AreSortedByTime) {
    EXPECT_EQ(secondsOf(lab::chosenRows(
                  {asked(3, Action::allow), asked(1, Action::allow), asked(2, Action::allow)}, 9)),
              (Seconds{1, 2, 3}));
}

TEST(ChosenRows, HoldTheFirstOfEachKindHoweverLateItComes) {
    std::vector<ConnectionRow> rows;
    for (int i = 0; i < 100; ++i)
        rows.push_back(asked(i, Action::allow));
    rows.push_back(asked(100, Action::block));
    rows.push_back(plain(101));
    const Seconds seconds = secondsOf(lab::chosenRows(rows, 3));
    EXPECT_EQ(seconds, (Seconds{0, 100, 101}));
}

TEST(ChosenRows, WithMoreKindsThanRoomTheSeldomOnesCome) {
    EXPECT_EQ(secondsOf(lab::chosenRows(
                  {asked(1, Action::allow), asked(2, Action::allow), asked(3, Action::block)}, 1)),
              (Seconds{3}));
}

TEST(ChosenRows, TheOthersComeFromAllOfTheTime) {
    std::vector<ConnectionRow> rows;
    for (int i = 0; i < 100; ++i)
        rows.push_back(asked(i, Action::allow));
    const Seconds seconds = secondsOf(lab::chosenRows(rows, 5));
    EXPECT_EQ(seconds.size(), 5u);
    EXPECT_GE(seconds.back(), 70);
}

TEST(ChosenRows, NumbersInAnAnswerMakeNoKind) {
    ConnectionRow quick = asked(1, Action::slow), slow = asked(2, Action::slow);
    quick.connection.queries[0].decision.milliseconds = 10;
    slow.connection.queries[0].decision.milliseconds = 900;
    EXPECT_EQ(lab::kindOf(quick.connection), lab::kindOf(slow.connection));
}

TEST(ConnectionCsv, QuotesWhatAUrlMayHold) {
    const testsupport::TemporaryFolder folder;
    lab::writeCsv(folder.file("rows.csv"), {asked(1, Action::allow, "http://a/,\"b")});
    EXPECT_EQ(
        readAll(folder.file("rows.csv")),
        "at,local,remote,questions,url,answer,held,packets,verdict\r\n"
        "1.000000,10.0.0.2:50000,10.0.0.9:80,1,\"http://a/,\"\"b\",\"allow\",0.000000,0,\"passed\"\r\n");
}

TEST(HtmlReport, NeedsNothingBesideItself) {
    const std::string page = lab::htmlReport("many.pcap", {asked(1, Action::allow)}, {});
    EXPECT_EQ(page.find("src="), std::string::npos);
    EXPECT_EQ(page.find("href="), std::string::npos);
    EXPECT_EQ(page.find("@import"), std::string::npos);
    EXPECT_NE(page.find("default-src 'none'"), std::string::npos);
}

TEST(HtmlReport, ARowHasItsTimesQuestionsAndVerdict) {
    ConnectionRow row = asked(2, Action::block);
    row.connection.first = 7000000;
    row.connection.last = 9500000;
    row.connection.heldTime = 1000000;
    row.connection.heldSpans = {{7500000, 8500000}};
    const nlohmann::json rows = dataOf(lab::htmlReport("many.pcap", {row}, {}))["rows"];
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0]["at"], 2000);
    EXPECT_EQ(rows[0]["end"], 4500);
    EXPECT_EQ(rows[0]["spans"], nlohmann::json::parse("[[2500,3500]]"));
    EXPECT_EQ(rows[0]["questions"][0]["url"], "http://page.test/");
    EXPECT_EQ(rows[0]["answer"], "block");
    EXPECT_EQ(rows[0]["class"], "redirected");
}

TEST(HtmlReport, AUrlCannotEndTheScript) {
    const std::string url = "http://a/</script><!--\xff\"\n";
    const std::string page = lab::htmlReport("many.pcap", {asked(1, Action::allow, url)}, {});
    EXPECT_EQ(page.find("</script><!--"), std::string::npos);
    EXPECT_EQ(dataOf(page)["rows"][0]["questions"][0]["url"], "http://a/</script><!--\xef\xbf\xbd\"\n");
}

TEST(ReplayReports, AReplayWritesBothAndShowsAChoice) {
    const testsupport::TemporaryFolder folder;
    {
        labtest::CaptureWriter writer(folder.file("test.pcap"));
        for (int i = 0; i < 6; ++i)
            labtest::addExchange(writer, i * 1000000, labtest::Talk(50000 + i),
                                 labtest::get("www.example.org"));
    }
    testsupport::writeAll(folder.file("test.policy"), "allow *\n");
    const labtest::LabRun run =
        labtest::runLab({"replay", folder.file("test.pcap"), "--policy", folder.file("test.policy"), "--rows",
                         "2", "--report", folder.file("report.html"), "--csv", folder.file("rows.csv")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("6 connections in all"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("The whole of it, for a browser: " + folder.file("report.html")),
              std::string::npos);
    EXPECT_EQ(dataOf(readAll(folder.file("report.html")))["rows"].size(), 6u);
    EXPECT_EQ(labtest::linesOf(readAll(folder.file("rows.csv"))).size(), 7u);
}

TEST(ReplayReports, APlaceThatCannotBeWrittenIsRefused) {
    const testsupport::TemporaryFolder folder;
    EXPECT_THROW(lab::writeCsv(folder.file("none/rows.csv"), {}), lab::InputError);
    EXPECT_THROW(lab::writeHtmlReport(folder.file("none/report.html"), "", {}, {}), lab::InputError);
}
