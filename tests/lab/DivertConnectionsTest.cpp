// The connections of a live run: how far both ends have come, and which question belongs to which.

#include "lab/divert/LiveConnections.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using lab::CapturedPacket;
using lab::Endpoint;
using lab::LiveConnectionPointer;
using lab::LiveConnections;

constexpr unsigned syn = 0x02, synAck = 0x12, ack = 0x10, finAck = 0x11, rst = 0x04;

class DivertConnectionsTest : public testing::Test {
protected:
    LiveConnectionPointer out(unsigned flags, std::uint32_t sequence, std::uint32_t acknowledged,
                              const std::string& payload = "") {
        return note(true, flags, sequence, acknowledged, payload);
    }

    LiveConnectionPointer in(unsigned flags, std::uint32_t sequence, std::uint32_t acknowledged,
                             const std::string& payload = "") {
        return note(false, flags, sequence, acknowledged, payload);
    }

    // The last packet has gone on.
    void passes() { LiveConnections::passed(*last_, segment_, outbound_); }

    LiveConnectionPointer shakeHands() {
        out(syn, 1000, 0);
        passes();
        in(synAck, 5000, 1001);
        passes();
        out(ack, 1001, 5001);
        passes();
        return last_;
    }

    std::vector<std::string> ended_; // ports of the client
    LiveConnections connections_{[this](const lab::LiveConnection& connection) {
        ended_.push_back(std::to_string(connection.facts.local.port));
    }};
    int port_ = 50000;

private:
    LiveConnectionPointer note(bool outbound, unsigned flags, std::uint32_t sequence,
                               std::uint32_t acknowledged, const std::string& payload) {
        const Endpoint client{std::string("\x0a\x35\x01\x02", 4), port_};
        const Endpoint server{std::string("\x0a\x35\x02\x02", 4), 80};
        const auto bytes = lab::tcpPacket(outbound ? client : server, outbound ? server : client, sequence,
                                          acknowledged, flags, payload);
        CapturedPacket packet;
        EXPECT_TRUE(lab::dissect(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), packet));
        packet.time = ++time_;
        segment_ = lab::tcpSegmentOf(packet).value();
        outbound_ = outbound;
        last_ = connections_.note(packet, segment_, outbound);
        return last_;
    }

    LiveConnectionPointer last_;
    lab::TcpSegment segment_;
    bool outbound_ = false;
    std::int64_t time_ = 0;
};

TEST_F(DivertConnectionsTest, AHandshakeCountsOneNumberOnEachSide) {
    const auto connection = shakeHands();
    EXPECT_EQ(connection->clientEnd, 1001u);
    EXPECT_EQ(connection->serverGot, 1001u);
    EXPECT_EQ(connection->clientGot, 5001u);
}

TEST_F(DivertConnectionsTest, AnAnswerToTheHandshakeThatComesAgainMovesNothingBack) {
    const auto connection = shakeHands();
    in(synAck, 5000, 1001);
    EXPECT_EQ(connection->clientGot, 5001u);
}

TEST_F(DivertConnectionsTest, WhatIsHeldHasBeenSentAndHasNotCome) {
    const auto connection = shakeHands();
    out(ack, 1001, 5001, "GET / HTTP/1.1\r\n");
    EXPECT_EQ(connection->clientEnd, 1017u);
    EXPECT_EQ(connection->serverGot, 1001u);
    passes();
    EXPECT_EQ(connection->serverGot, 1017u);
}

TEST_F(DivertConnectionsTest, WhatComesBehindAGapHasNotCome) {
    const auto connection = shakeHands();
    in(ack, 5101, 1001, "the second part");
    passes();
    EXPECT_EQ(connection->clientGot, 5001u);
    out(ack, 1001, 5116); // the first part has come another way
    EXPECT_EQ(connection->clientGot, 5116u);
}

TEST_F(DivertConnectionsTest, NumbersGoRound) {
    out(ack, 0xfffffff0, 5001);
    const auto connection = out(ack, 0xfffffff0, 5001, std::string(32, 'x'));
    EXPECT_EQ(connection->clientEnd, 0x10u);
}

TEST_F(DivertConnectionsTest, TheSamePortsBelongToANewConnectionOnceTheOldOneIsOver) {
    const auto old = shakeHands();
    out(finAck, 1001, 5001);
    EXPECT_EQ(out(syn, 9000, 0), old) << "the server has not closed its side";
    in(finAck, 5001, 1002);
    connections_.endIfOver(*old);
    EXPECT_EQ(ended_, std::vector<std::string>{"50000"});
    EXPECT_NE(out(syn, 9000, 0), old);
    EXPECT_EQ(connections_.count(), 2);
    EXPECT_EQ(ended_.size(), 1u) << "it is told once";
}

TEST_F(DivertConnectionsTest, AnAnswerBelongsToTheOldestConnectionThatAskedForTheUrl) {
    const auto first = shakeHands();
    port_ = 50001;
    const auto second = shakeHands();
    connections_.asked(first, "http://a/");
    connections_.asked(second, "http://a/");
    connections_.take({"http://a/", {lab::Action::retry, "", 0, ""}, false});
    EXPECT_TRUE(first->facts.queries[0].answered);
    EXPECT_FALSE(second->facts.queries[0].answered);
    connections_.take({"http://a/", {lab::Action::block, "", 0, ""}, true});
    EXPECT_EQ(first->facts.queries[0].retries, 1);
    EXPECT_EQ(first->facts.queries[0].decision.action, lab::Action::block);
    connections_.take({"http://a/", {}, false});
    EXPECT_TRUE(second->facts.queries[0].answered);
}

TEST_F(DivertConnectionsTest, AnAnswerThatIsTakenBeforeThePacketsResultWaitsForIt) {
    const lab::Decision again{lab::Action::retry, "", 0, ""}, blocked{lab::Action::block, "", 0, ""};
    connections_.take({"http://other/", again, false});
    connections_.take({"http://a/", again, false});
    connections_.take({"http://a/", blocked, true});
    const auto connection = shakeHands();
    connections_.asked(connection, "http://a/");
    EXPECT_TRUE(connection->facts.queries[0].answered);
    EXPECT_EQ(connection->facts.queries[0].retries, 1);
    EXPECT_EQ(connection->facts.queries[0].decision.action, lab::Action::block);
    connections_.asked(connection, "http://a/");
    EXPECT_FALSE(connection->facts.queries[1].answered) << "each is given once";
}

TEST_F(DivertConnectionsTest, AThousandAnswersWaitForTheirPacketsResult) {
    const lab::Decision allowed;
    for (int i = 0; i <= 1000; ++i)
        connections_.take({"http://" + std::to_string(i), allowed, false});
    const auto connection = shakeHands();
    connections_.asked(connection, "http://0");
    connections_.asked(connection, "http://1");
    EXPECT_FALSE(connection->facts.queries[0].answered);
    EXPECT_TRUE(connection->facts.queries[1].answered);
}

TEST_F(DivertConnectionsTest, WhatIsStillHeldWhenItIsForgottenWasHeldToTheEnd) {
    const auto connection = shakeHands();
    connection->facts.held = true;
    connections_.sweep(0, true);
    EXPECT_TRUE(connection->facts.gaveUp);
    EXPECT_EQ(ended_, std::vector<std::string>{"50000"});
}

TEST_F(DivertConnectionsTest, AConnectionThatBothSidesHaveClosedIsNotOverWhileItsRequestIsHeld) {
    const auto connection = shakeHands();
    in(finAck, 5001, 1001);
    out(ack, 1001, 5002, "GET / HTTP/1.1\r\n");
    connection->facts.held = true;
    out(finAck, 1017, 5002);
    connections_.endIfOver(*connection);
    EXPECT_TRUE(ended_.empty());
    connection->facts.held = false; // its repetition has gone on
    connections_.endIfOver(*connection);
    EXPECT_FALSE(connection->facts.gaveUp);
    EXPECT_EQ(ended_, std::vector<std::string>{"50000"});
}

TEST_F(DivertConnectionsTest, AHeldConnectionIsOverOnceItIsReset) {
    const auto connection = shakeHands();
    connection->facts.held = true;
    out(rst, 1001, 5001);
    connections_.endIfOver(*connection);
    EXPECT_TRUE(connection->facts.gaveUp);
}

TEST_F(DivertConnectionsTest, AConnectionIsForgottenAfterFiveMinutesWithoutAPacket) {
    const auto connection = shakeHands();
    connections_.sweep(connection->facts.last + 299999999, false);
    EXPECT_TRUE(ended_.empty());
    connections_.sweep(connection->facts.last + 300000000, false);
    EXPECT_EQ(ended_.size(), 1u);
}

} // namespace
