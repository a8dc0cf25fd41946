// Whole replays: the lab as a program, over captures of a few packets, with the shipped daemon inside.

#include "filter/FilterQuery.h"
#include "lab/LabCaptures.h"
#include "lab/LabRun.h"
#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace {

using labtest::addExchange;
using labtest::CaptureWriter;
using labtest::get;
using labtest::LabRun;
using labtest::linesOf;
using labtest::pushAck;
using labtest::Talk;
using nlohmann::json;
using testsupport::readAll;

constexpr char errorPage[] = "http://localhost:6543/block_screen.html/?id=error";
constexpr std::size_t requestPlace = 2; // of addExchange's packets

class ReplayTest : public testing::Test {
protected:
    std::string capture() const { return folder_.file("test.pcap"); }

    // A capture of one exchange.
    void writeExchange(const std::string& request) {
        CaptureWriter writer(capture());
        addExchange(writer, 0, Talk(50000), request);
    }

    LabRun replay(const std::string& policy, const std::vector<std::string>& options = {}) {
        testsupport::writeAll(folder_.file("policy"), policy);
        std::vector<std::string> arguments = {
            "replay",  "--policy",           folder_.file("policy"), "--json", folder_.file("json"),
            "--asked", folder_.file("asked")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        if (captures_.empty()) captures_ = {capture()};
        arguments.insert(arguments.end(), captures_.begin(), captures_.end());
        return labtest::runLab(arguments);
    }

    // A replay that answers everything; its JSON rows.
    std::vector<json> rowsOf(const std::string& policy, const std::vector<std::string>& options = {}) {
        const LabRun run = replay(policy, options);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");
        output_ = run.out;
        std::vector<json> rows;
        for (const std::string& line : linesOf(readAll(folder_.file("json"))))
            rows.push_back(json::parse(line));
        return rows;
    }

    std::vector<std::string> asked() { return linesOf(readAll(folder_.file("asked"))); }

    testsupport::TemporaryFolder folder_;
    std::vector<std::string> captures_;
    std::string output_;
};

// What a row says of its packet's way, in short.
std::string fate(const json& row) {
    return (row["result"].is_null() ? "null" : std::to_string(row["result"].get<int>())) + " after " +
           std::to_string(row["presented"].get<int>());
}

TEST_F(ReplayTest, AnAllowedRequestIsHeldOnceAndPasses) {
    writeExchange(get("www.example.org", "/a"));
    const auto rows = rowsOf("allow *");
    ASSERT_EQ(rows.size(), 6u);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i]["n"], i + 1);
        EXPECT_EQ(rows[i]["dir"], i % 2 ? "in" : "out");
        EXPECT_EQ(fate(rows[i]), i == requestPlace ? "0 after 2" : "0 after 1");
    }
    EXPECT_EQ(rows[requestPlace]["urlSeen"], 1);
    EXPECT_EQ(rows[0]["urlSeen"], 0);
    EXPECT_EQ(rows[0]["src"], "10.0.0.2:50000");
    EXPECT_EQ(asked(), std::vector<std::string>{"http://www.example.org/a"});
}

TEST_F(ReplayTest, ABlockedRequestIsRedirectedAndWhatIsBehindItIsNotPresented) {
    writeExchange(get("www.example.org"));
    const auto rows = rowsOf("block * http://localhost:6543/b");
    EXPECT_EQ(fate(rows.at(requestPlace)), "2 after 2");
    EXPECT_EQ(rows[requestPlace]["redirectUrl"], "http://localhost:6543/b");
    EXPECT_EQ(rows[requestPlace]["redirectIsHttps"], 0);
    for (std::size_t i = requestPlace + 1; i < rows.size(); ++i)
        EXPECT_EQ(fate(rows[i]), "null after 0");
    EXPECT_NE(output_.find("Redirected to http://localhost:6543/b: 1 connections."), std::string::npos);
}

TEST_F(ReplayTest, ABlockedTlsConnectionIsRedirectedWhateverTheSizeOfItsHello) {
    writeExchange(testsupport::ClientHelloBuilder().serverName("b.example").build());
    const auto rows = rowsOf("block https://b.example http://localhost:6543/" + std::string(300, 'b'));
    EXPECT_EQ(fate(rows.at(requestPlace)), "2 after 2");
    EXPECT_EQ(rows[requestPlace]["redirectIsHttps"], 1);
    EXPECT_EQ(asked(), std::vector<std::string>{"https://b.example"});
}

TEST_F(ReplayTest, ARedirectThatDoesNotFitHoldsItsRequestToTheEnd) {
    const std::string page = "http://localhost:6543/b";
    writeExchange(get("www.example.org", "/", 53 + page.size()));
    const auto rows = rowsOf("block * " + page);
    EXPECT_EQ(fate(rows.at(requestPlace)), "3 after 9");
    EXPECT_EQ(asked().size(), 9u);
    EXPECT_EQ(fate(rows.at(3)), "0 after 1");
    EXPECT_NE(output_.find("(+8)"), std::string::npos);
    EXPECT_NE(output_.find("255.000  held to the end"), std::string::npos) << output_;
}

TEST_F(ReplayTest, ARedirectFitsARequestOfOneByteMore) {
    const std::string page = "http://localhost:6543/b";
    writeExchange(get("www.example.org", "/", 54 + page.size()));
    EXPECT_EQ(fate(rowsOf("block * " + page).at(requestPlace)), "2 after 2");
}

TEST_F(ReplayTest, ASlowAnswerComesWhenItsTimeHasBeenPlayed) {
    writeExchange(get("www.example.org"));
    EXPECT_EQ(fate(rowsOf("slow 700 *").at(requestPlace)), "0 after 2");
    // Presented at 0, 1 and 3 seconds.
    EXPECT_EQ(fate(rowsOf("slow 2500 *").at(requestPlace)), "0 after 3");
    EXPECT_EQ(fate(rowsOf("slow 3000 *").at(requestPlace)), "0 after 3");
    EXPECT_EQ(fate(rowsOf("slow 3100 *").at(requestPlace)), "0 after 4");
}

TEST_F(ReplayTest, ASilentAgentLeavesARequestHeldAndItsRecordExpiresAfter30Seconds) {
    writeExchange(get("www.example.org"));
    const auto rows = rowsOf("silent *");
    EXPECT_EQ(fate(rows.at(requestPlace)), "3 after 9");
    // Presented at 0, 1, 3, 7, 15, 31, 63, 127 and 255 seconds: five times without a live record.
    EXPECT_EQ(asked().size(), 5u);
    // What waited behind it finds the last record open: inbound it is dropped.
    EXPECT_EQ(fate(rows.at(requestPlace + 1)), "1 after 1");
}

TEST_F(ReplayTest, ATlsRecordExpiresAfter120Seconds) {
    writeExchange(testsupport::ClientHelloBuilder().build());
    EXPECT_EQ(fate(rowsOf("silent *").at(requestPlace)), "3 after 9");
    EXPECT_EQ(asked().size(), 3u);
}

TEST_F(ReplayTest, AnAgentThatWantsToBeAskedAgainIsAskedUntilItAnswers) {
    writeExchange(get("www.example.org", "/r"));
    EXPECT_EQ(fate(rowsOf("retry 3 *\nallow *").at(requestPlace)), "0 after 2");
    EXPECT_EQ(asked(), std::vector<std::string>(4, "http://www.example.org/r"));
    EXPECT_NE(output_.find("retry x3, allow"), std::string::npos) << output_;
}

TEST_F(ReplayTest, NonsensePassesWithoutBlockOnFailureAndIsRedirectedWithIt) {
    writeExchange(get("www.example.org"));
    EXPECT_EQ(fate(rowsOf("garble *").at(requestPlace)), "0 after 2");
    EXPECT_EQ(fate(rowsOf("garble *", {"--bof", "off"}).at(requestPlace)), "0 after 2");
    const auto rows = rowsOf("garble *", {"--bof", "on"});
    EXPECT_EQ(fate(rows.at(requestPlace)), "2 after 2");
    EXPECT_EQ(rows[requestPlace]["redirectUrl"], errorPage);
}

TEST_F(ReplayTest, ADroppedLinkIsMadeAgainAndTheDaemonGoesOn) {
    {
        CaptureWriter writer(capture());
        addExchange(writer, 0, Talk(50000), get("drop.example"));
        addExchange(writer, 2, Talk(50001), get("www.example.org"));
        addExchange(writer, 4, Talk(50002), get("drop.example"));
        addExchange(writer, 6, Talk(50003), get("block.example"));
    }
    const auto rows =
        rowsOf("drop http://drop.example/\nblock http://block.example/ http://page/", {"--bof", "on"});
    // The reconnect answers the question with an empty reply, which allows.
    EXPECT_EQ(fate(rows.at(requestPlace)), "0 after 2");
    EXPECT_EQ(fate(rows.at(6 + requestPlace)), "0 after 2");
    EXPECT_EQ(fate(rows.at(12 + requestPlace)), "0 after 2");
    EXPECT_EQ(fate(rows.at(18 + requestPlace)), "2 after 2");
    EXPECT_EQ(asked().size(), 4u);
    EXPECT_EQ(output_.find("did not get through"), std::string::npos) << output_;
}

TEST_F(ReplayTest, APushedBypassOfFalseTurnsBlockOnFailureOn) {
    writeExchange(get("www.example.org"));
    const auto rows = rowsOf("push {\"bypass_on_failure\": false}\ngarble *", {"--bof", "off"});
    EXPECT_EQ(fate(rows.at(requestPlace)), "2 after 2");
    EXPECT_EQ(rows[requestPlace]["redirectUrl"], errorPage);
}

TEST_F(ReplayTest, APushedBypassOfTrueTurnsBlockOnFailureOff) {
    writeExchange(get("www.example.org"));
    EXPECT_EQ(fate(rowsOf("push {\"bypass_on_failure\": true}\ngarble *", {"--bof", "on"}).at(requestPlace)),
              "0 after 2");
}

TEST_F(ReplayTest, FortySilentQuestionsAtOnceLeaveEveryPacketAnswered) {
    constexpr int connections = 40;
    constexpr std::size_t threads = FilterQuery::queryThreads;
    {
        CaptureWriter writer(capture());
        for (int i = 0; i < connections; ++i)
            addExchange(writer, 0.01 * i, Talk(50000 + i), get("silent.example", "/" + std::to_string(i)));
    }
    const auto rows = rowsOf("silent *");
    ASSERT_EQ(rows.size(), connections * 6u);
    for (const json& row : rows)
        EXPECT_NE(fate(row).substr(0, 4), "null") << row;
    for (std::size_t i = requestPlace; i < rows.size(); i += 6)
        EXPECT_EQ(fate(rows[i]), "3 after 9");
    // The other questions wait for a thread inside the daemon, for ever.
    EXPECT_EQ(asked().size(), threads);
    EXPECT_EQ(output_.find("did not get through"), std::string::npos) << output_;
}

// A query that ends before the daemon has marked its slot as busy takes the slot away for good; the agent's
// answers wait so that none does.
TEST_F(ReplayTest, QuickAnswersToManyQuestionsLeaveTheDaemonAllOfItsThreads) {
    constexpr int connections = 1500;
    {
        CaptureWriter writer(capture());
        for (int i = 0; i < connections; ++i)
            writer.add(2 * i, Talk(10000 + i).out(pushAck, get("www.example.org")));
    }
    const auto rows = rowsOf("allow *");
    ASSERT_EQ(rows.size(), static_cast<std::size_t>(connections));
    for (const json& row : rows)
        EXPECT_EQ(fate(row), "0 after 2");
    EXPECT_EQ(output_.find("did not get through"), std::string::npos) << output_;
}

TEST_F(ReplayTest, LaterPacketsWaitBehindAHeldOne) {
    {
        CaptureWriter writer(capture());
        const Talk talk(50000);
        writer.add(0, talk.out(pushAck, get("www.example.org", "/1")));
        writer.add(0.1, talk.out(pushAck, get("www.example.org", "/2")));
        writer.add(0.2, talk.in(labtest::ack));
    }
    const auto rows = rowsOf("slow 700 */1\nsilent *");
    // The second request meets the first one's record, allowed by then.
    EXPECT_EQ(fate(rows.at(0)), "0 after 2");
    EXPECT_EQ(fate(rows.at(1)), "0 after 1");
    EXPECT_EQ(fate(rows.at(2)), "0 after 1");
    EXPECT_EQ(asked(), std::vector<std::string>{"http://www.example.org/1"});
}

TEST_F(ReplayTest, AConnectionOfTheSameEndsBeginsAnewAfterARedirect) {
    {
        CaptureWriter writer(capture());
        addExchange(writer, 0, Talk(50000), get("block.example"));
        addExchange(writer, 60, Talk(50000), get("www.example.org"));
    }
    const auto rows = rowsOf("block http://block.example/ http://page/");
    EXPECT_EQ(fate(rows.at(requestPlace)), "2 after 2");
    EXPECT_EQ(fate(rows.at(5)), "null after 0");
    EXPECT_EQ(fate(rows.at(6)), "0 after 1");
    EXPECT_EQ(fate(rows.at(6 + requestPlace)), "0 after 2");
    EXPECT_NE(output_.find("2 connections. The daemon"), std::string::npos) << output_;
}

TEST_F(ReplayTest, WhatIsNotTcpIsPresentedOnceAndPasses) {
    {
        CaptureWriter writer(capture());
        writer.add(0, testsupport::PacketBuilder::ipv4().udp().payload("question").bytes());
        writer.add(1, testsupport::PacketBuilder::ipv4().protocol(1).bytes());
        writer.add(2, testsupport::PacketBuilder::ipv6().udp().payload("question").bytes());
    }
    const auto rows = rowsOf("silent *");
    ASSERT_EQ(rows.size(), 3u);
    for (const json& row : rows)
        EXPECT_EQ(fate(row), "0 after 1");
    EXPECT_EQ(rows[1]["src"], "10.0.0.2");
    EXPECT_EQ(rows[2]["src"], "[2001:db8::2]:50000");
}

TEST_F(ReplayTest, Ipv6ConnectionsAreDecidedToo) {
    {
        CaptureWriter writer(capture());
        addExchange(writer, 0, Talk(50000, true), get("block.example"));
    }
    const auto rows = rowsOf("block * http://page/");
    EXPECT_EQ(fate(rows.at(requestPlace)), "2 after 2");
    EXPECT_EQ(rows[requestPlace]["dst"], "[2001:db8::22]:80");
}

TEST_F(ReplayTest, BytesAbove127OfARedirectAreEscaped) {
    writeExchange(get("www.example.org"));
    replay("block * http://page/\xe9");
    EXPECT_NE(readAll(folder_.file("json")).find(R"("redirectUrl":"http://page/\u00e9")"), std::string::npos);
}

TEST_F(ReplayTest, CapturesArePlayedOneBehindTheOtherAndTimeNeverRunsBack) {
    {
        CaptureWriter first(folder_.file("first.pcap"));
        addExchange(first, 100, Talk(50000), get("silent.example"));
        CaptureWriter second(folder_.file("second.pcap"));
        addExchange(second, 0, Talk(50000), get("www.example.org"));
        CaptureWriter third(folder_.file("third.pcap"));
        third.add(9000, Talk(50001).out(labtest::syn));
    }
    captures_ = {folder_.file("first.pcap"), folder_.file("second.pcap"), folder_.file("third.pcap")};
    const auto rows = rowsOf("silent http://silent.example/");
    ASSERT_EQ(rows.size(), 13u);
    EXPECT_EQ(rows[6]["n"], 1);
    EXPECT_EQ(fate(rows.at(requestPlace)), "3 after 9");
    // 255 seconds later the first capture's record has just been made anew, and it is of these ends.
    EXPECT_EQ(fate(rows.at(12)), "0 after 1");
    for (const char* name : {"Replaying first.pcap (6 packets)", "Replaying second.pcap (6 packets)",
                             "Replaying third.pcap (1 packets)"})
        EXPECT_NE(output_.find(name), std::string::npos) << name;
}

TEST_F(ReplayTest, ACaptureWithoutIpPlaysNothing) {
    { CaptureWriter(capture(), 1).add(0, std::string(12, '\2') + "\x08\x06" + std::string(46, '\0')); }
    EXPECT_TRUE(rowsOf("allow *").empty());
    EXPECT_NE(output_.find("0 IP packets of 1 captured, 0 connections."), std::string::npos) << output_;
    EXPECT_NE(output_.find("\n0.0 s of the daemon's time were played"), std::string::npos) << output_;
}

TEST_F(ReplayTest, TwoReplaysGiveTheSameJson) {
    {
        CaptureWriter writer(capture());
        const char* hosts[] = {"a.example",      "block.example",  "slow.example", "retry.example",
                               "silent.example", "garble.example", "drop.example"};
        for (int i = 0; i < 42; ++i)
            addExchange(writer, 0.05 * i, Talk(50000 + i, i % 3 == 0),
                        get(hosts[i % 7], "/" + std::to_string(i % 10)));
    }
    const std::string policy = "push {\"bypass_on_failure\": false}\nblock http://block* http://page/\n"
                               "slow 1500 http://slow*\nretry 1 http://retry*\ngarble http://garble*\n"
                               "drop http://drop.example/6\n";
    ASSERT_EQ(replay(policy).status, 0);
    const std::string first = readAll(folder_.file("json")), firstAsked = readAll(folder_.file("asked"));
    ASSERT_EQ(replay(policy).status, 0);
    EXPECT_EQ(linesOf(first).size(), 252u);
    EXPECT_EQ(readAll(folder_.file("json")), first);
    EXPECT_EQ(readAll(folder_.file("asked")), firstAsked);
}

} // namespace
