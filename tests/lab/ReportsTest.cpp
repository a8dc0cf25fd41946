#include "lab/JsonReport.h"
#include "lab/TableReport.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

namespace {

using lab::Action;
using lab::Connection;
using lab::Endpoint;
using lab::InputError;
using lab::JsonReport;
using lab::jsonRow;
using lab::PlayedPacket;

Endpoint endpoint(const std::string& address, int port) {
    char bytes[16];
    const bool ipv6 = address.find(':') != std::string::npos;
    EXPECT_EQ(inet_pton(ipv6 ? AF_INET6 : AF_INET, address.c_str(), bytes), 1);
    return {std::string(bytes, ipv6 ? 16 : 4), port};
}

PlayedPacket played(long number = 1) {
    PlayedPacket packet;
    packet.packet.number = number;
    packet.packet.source = endpoint("10.0.0.2", 50000);
    packet.packet.destination = endpoint("93.184.216.34", 80);
    packet.outbound = true;
    packet.presented = 1;
    return packet;
}

sysctl_result resultOf(int result, const std::string& redirect = "") {
    sysctl_result record{};
    record.result = result;
    std::memcpy(record.redirectUrl, redirect.data(), std::min(redirect.size(), sizeof record.redirectUrl));
    return record;
}

TEST(JsonReport, ARowHasItsKeysInTheirOrder) {
    EXPECT_EQ(
        jsonRow(played(), resultOf(0)),
        R"({"n":1,"dir":"out","src":"10.0.0.2:50000","dst":"93.184.216.34:80","result":0,"presented":1,)"
        R"("urlSeen":0,"redirectIsHttps":0,"redirectUrl":""})");
}

TEST(JsonReport, ARedirectShowsWhereToAndWhetherForTls) {
    sysctl_result result = resultOf(2, "http://localhost:6543/b");
    result.urlSeen = 1;
    result.redirectIsHttps = 1;
    PlayedPacket packet = played(7);
    packet.presented = 3;
    packet.outbound = false;
    EXPECT_EQ(jsonRow(packet, result),
              R"({"n":7,"dir":"in","src":"10.0.0.2:50000","dst":"93.184.216.34:80","result":2,"presented":3,)"
              R"("urlSeen":1,"redirectIsHttps":1,"redirectUrl":"http://localhost:6543/b"})");
}

TEST(JsonReport, APacketThatWasNotPresentedHasNullAndZero) {
    PlayedPacket packet = played(3);
    packet.presented = 0;
    EXPECT_EQ(
        jsonRow(packet, {}),
        R"({"n":3,"dir":"out","src":"10.0.0.2:50000","dst":"93.184.216.34:80","result":null,"presented":0,)"
        R"("urlSeen":0,"redirectIsHttps":0,"redirectUrl":""})");
}

TEST(JsonReport, Ipv6AddressesAreShortAndInBrackets) {
    PlayedPacket packet = played();
    packet.packet.source = endpoint("2001:db8:0:0:0:0:0:2", 50000);
    packet.packet.destination = endpoint("::1", 443);
    const std::string row = jsonRow(packet, resultOf(0));
    EXPECT_NE(row.find(R"("src":"[2001:db8::2]:50000","dst":"[::1]:443")"), std::string::npos) << row;
}

TEST(JsonReport, WithoutPortsThereIsTheAddressAlone) {
    PlayedPacket packet = played();
    packet.packet.source.port = packet.packet.destination.port = 0;
    const std::string row = jsonRow(packet, resultOf(0));
    EXPECT_NE(row.find(R"("src":"10.0.0.2","dst":"93.184.216.34")"), std::string::npos) << row;
}

TEST(JsonReport, BytesAbove127AreEscapedByTheirNumber) {
    const std::string row = jsonRow(played(), resultOf(2, "http://x/\xe9\xff\x80\"\\\n"));
    EXPECT_NE(row.find(R"("redirectUrl":"http://x/\u00e9\u00ff\u0080\"\\\n")"), std::string::npos) << row;
}

TEST(JsonReport, ARedirectUrlThatFillsItsFieldHasNoEndingZero) {
    EXPECT_EQ(lab::redirectUrlOf(resultOf(2, std::string(1024, 'u'))), std::string(1024, 'u'));
}

TEST(JsonReport, RowsLeaveInTheOrderOfTheirPlaces) {
    const testsupport::TemporaryFolder folder;
    {
        JsonReport report(folder.file("rows"));
        PlayedPacket first = played(1), second = played(2), third = played(3);
        first.row = report.reserve();
        second.row = report.reserve();
        report.fill(second, resultOf(0));
        third.row = report.reserve();
        report.fill(first, resultOf(3));
        report.fill(third, {});
        report.finish();
    }
    EXPECT_EQ(testsupport::readAll(folder.file("rows")), jsonRow(played(1), resultOf(3)) + "\n" +
                                                             jsonRow(played(2), resultOf(0)) + "\n" +
                                                             jsonRow(played(3), {}) + "\n");
}

TEST(JsonReport, AFileThatCannotBeMadeOrWrittenIsAnErrorThatNamesIt) {
    const testsupport::TemporaryFolder folder;
    try {
        JsonReport report(folder.file("none/rows"));
        FAIL() << "no error";
    } catch (const InputError& error) {
        EXPECT_EQ(error.what(), folder.file("none/rows") + ": No such file or directory");
    }
    JsonReport full("/dev/full");
    PlayedPacket packet = played();
    packet.row = full.reserve();
    full.fill(packet, {});
    EXPECT_THROW(full.finish(), InputError);
}

TEST(JsonReport, WithoutAFileNothingIsKept) {
    JsonReport report("");
    PlayedPacket packet = played();
    packet.row = report.reserve();
    report.fill(packet, resultOf(0));
    report.finish();
    EXPECT_EQ(packet.row, 0u);
}

lab::Query query(const std::string& url, Action action, long retries = 0, long milliseconds = 0) {
    return {url, {action, "", milliseconds, ""}, retries};
}

TEST(TableReport, AConnectionWithoutAQuestionHasNoAnswerAndPassed) {
    const Connection connection;
    EXPECT_EQ(lab::answerText(connection), "-");
    EXPECT_EQ(lab::verdictText(connection), "passed");
}

TEST(TableReport, AnswersAreSaidInAFewWords) {
    Connection connection;
    connection.queries = {query("http://a/", Action::silent)};
    EXPECT_EQ(lab::answerText(connection), "silent");
    connection.queries = {query("http://a/", Action::slow, 0, 2500)};
    EXPECT_EQ(lab::answerText(connection), "slow 2500 ms, allow");
    connection.queries = {query("http://a/", Action::block, 2)};
    EXPECT_EQ(lab::answerText(connection), "retry x2, block");
    connection.queries = {query("http://a/", Action::block), query("http://b/", Action::allow)};
    EXPECT_EQ(lab::answerText(connection), "allow");
}

TEST(TableReport, VerdictsAreSaidInAFewWords) {
    Connection connection;
    connection.dropped = 2;
    EXPECT_EQ(lab::verdictText(connection), "passed, 2 dropped");
    connection.gaveUp = true;
    EXPECT_EQ(lab::verdictText(connection), "held to the end");
    connection.redirected = true;
    EXPECT_EQ(lab::verdictText(connection), "held, redirected");
    connection.gaveUp = false;
    EXPECT_EQ(lab::verdictText(connection), "redirected");
}

// A table report into a file.
class TableReportTest : public testing::Test {
protected:
    TableReportTest()
        : file_(std::fopen(folder_.file("table").c_str(), "w"), std::fclose), report_(file_.get()) {}

    void begin(const std::string& capture) {
        lab::CaptureFacts facts;
        facts.records = 12;
        facts.computers[0] = endpoint("10.0.0.2", 0).address;
        report_.begin(capture, facts, {"/some/where/demo.policy", 3, true});
    }

    std::string text() {
        std::fflush(file_.get());
        return testsupport::readAll(folder_.file("table"));
    }

    std::string lastLine() {
        std::istringstream lines(text());
        std::string last;
        for (std::string line; std::getline(lines, line);)
            last = line;
        return last;
    }

    testsupport::TemporaryFolder folder_;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
    lab::TableReport report_;
};

TEST_F(TableReportTest, TheHeadingSaysWhatIsPlayedAndHowToReadTheTableOnce) {
    begin("/captures/one.pcap");
    begin("/captures/two.pcap");
    const std::string output = text();
    EXPECT_EQ(output.rfind("Replaying one.pcap (12 packets) through the daemon of the computer 10.0.0.2.\n"
                           "The agent answers by demo.policy (3 rules); block on failure is on.\n",
                           0),
              0u)
        << output;
    EXPECT_NE(output.find("Replaying two.pcap"), std::string::npos);
    const auto legend = output.find("1, 2, 4 ... seconds");
    EXPECT_NE(legend, std::string::npos);
    EXPECT_EQ(output.find("1, 2, 4 ... seconds", legend + 1), std::string::npos);
}

TEST_F(TableReportTest, NoLineOfTheHeadingIsWiderThan120Columns) {
    begin("/captures/one.pcap");
    std::istringstream lines(text());
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(line.size(), 120u) << line;
}

TEST_F(TableReportTest, ARowShowsTheLastQuestionItsAnswerAndTheTimeHeld) {
    Connection connection;
    connection.remote = endpoint("93.184.216.34", 443);
    connection.first = 2500000;
    connection.heldTime = 1000000;
    connection.queries = {query("https://a", Action::allow), query("https://b", Action::block)};
    connection.redirected = true;
    report_.row(connection, 1000000);
    EXPECT_EQ(lastLine(), "   1.500  93.184.216.34:443      https://b (+1)                          block"
                          "                   1.000  redirected");
}

TEST_F(TableReportTest, WhatIsTooLongIsShortenedAndControlBytesAreNotShown) {
    Connection connection;
    connection.remote = endpoint("2001:db8:1111:2222:3333:4444:5555:6666", 443);
    connection.queries = {query("http://\x1b[2J/" + std::string(2000, 'u'), Action::allow)};
    report_.row(connection, 0);
    const std::string line = lastLine();
    EXPECT_LE(line.size(), 120u);
    EXPECT_NE(line.find("[2001:db8:1111:222...  http://?[2J/uuu"), std::string::npos) << line;
}

TEST_F(TableReportTest, TheSummaryCountsPacketsAnswersAndRedirects) {
    lab::Totals totals;
    totals.records = 10;
    totals.packets = 9;
    totals.presented = 11;
    totals.unanswered = 1;
    totals.passed = 5;
    totals.redirected = 2;
    totals.heldToTheEnd = 1;
    totals.notPresented = 1;
    totals.connections = 4;
    totals.asked = 3;
    totals.answers = {{Action::allow, 1}, {Action::block, 2}};
    totals.redirects = {{"http://localhost:6543/b", 2}};
    totals.unsettled = 1;
    totals.playedMicroseconds = 2500000;
    report_.summary(totals, 0.5, "/some/root");
    const std::string output = text();
    for (const char* part :
         {"9 IP packets of 10 captured, 4 connections", "shown 11 packet records", "left 1 without an answer",
          "5 passed, 0 dropped, 2 redirected, 1 held to the end, 1 not presented",
          "asked 3 times: 1 allow, 2 block.", "Redirected to http://localhost:6543/b: 2 connections",
          "1 times a question or an answer did not get through in time", "2.5 s", "in 0.5 s", "/some/root"})
        EXPECT_NE(output.find(part), std::string::npos) << part << "\n" << output;
}

TEST_F(TableReportTest, TheSummaryOfALiveRunSaysWhichQuestionsNoRowHas) {
    lab::Totals totals;
    totals.asked = 3;
    report_.liveSummary(totals, "");
    EXPECT_EQ(text().find("no row has them"), std::string::npos) << text();
    totals.untold = 2;
    report_.liveSummary(totals, "");
    EXPECT_NE(
        text().find("asked 2 times more than it keeps until connections end (16 MB): those questions were "
                    "answered,\nand no row has them. See in the daemon's log why it asks so often (--root "
                    "DIR --log 65).\n"),
        std::string::npos)
        << text();
}

TEST(TableReport, WithoutAFileNothingIsWritten) {
    lab::TableReport report(nullptr);
    testing::internal::CaptureStdout();
    report.begin("one.pcap", {}, {});
    report.row({}, 0);
    report.progress(1, 2);
    report.summary({}, 0, "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

} // namespace
