// Whatever the agent does or leaves undone, the daemon answers every packet, and no packet waits for the agent.

#include "filter/FilterQuery.h"
#include "lab/LabCaptures.h"
#include "lab/LabStage.h"
#include "support/Patience.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <ostream>
#include <string>

namespace {

using lab::PolicyAgent;
using labtest::get;
using labtest::hold;
using labtest::LabStage;
using labtest::pass;
using labtest::pushAck;
using labtest::Talk;

std::string request(int port, const std::string& host) { return Talk(port).out(pushAck, get(host)); }

// The daemon answers packets that have nothing to do with the agent, in both directions.
void expectTrafficGoesOn(LabStage& stage) {
    EXPECT_EQ(stage.present(Talk(40000).out(labtest::syn)), pass);
    EXPECT_EQ(stage.present(Talk(40000, true).out(labtest::ack)), pass);
    const std::string packet = Talk(40000).in(labtest::synAck);
    const auto inbound = stage.extension().present(lab::Direction::in, {packet.begin(), packet.end()},
                                                   testsupport::patienceMilliseconds);
    ASSERT_TRUE(inbound.has_value());
    EXPECT_EQ(inbound->result, pass);
}

TEST(DaemonAndAgent, NoPacketWaitsForASilentAgent) {
    LabStage stage("silent *");
    stage.raise();
    constexpr int connections = 100;
    constexpr int threads = FilterQuery::queryThreads;
    for (int i = 0; i < connections; ++i) {
        // Each of these is answered while all questions before it are still open.
        EXPECT_EQ(stage.present(request(41000 + i, "silent.example")), hold) << i;
        EXPECT_EQ(stage.present(request(41000 + i, "silent.example")), hold) << i;
        expectTrafficGoesOn(stage);
    }
    stage.awaitQuestions(threads);
    expectTrafficGoesOn(stage);
    EXPECT_EQ(stage.agent().counters().questions, threads);
    EXPECT_EQ(stage.agent().counters().answers, 0);
    EXPECT_EQ(stage.daemon().resolved(), 0);
}

// The length of an IPv6 packet is read unswapped on purpose. So a packet without payload counts as one with, and what is
// read as its payload is what the listener's one buffer holds of the packet before.
TEST(DaemonAndAgent, ABareIpv6AcknowledgementIsReadFromWhatTheBufferHoldsOfTheRequestBefore) {
    LabStage stage("block *birch* http://p/\nsilent *");
    stage.raise();
    const std::string request = Talk(40001, true).out(pushAck, get("birch.example"));
    EXPECT_EQ(stage.present(request), hold);
    EXPECT_EQ(stage.present(Talk(40002, true).out(labtest::ack)), hold);
    stage.awaitQuestions(2);
    for (const lab::Question& question : stage.agent().takeQuestions())
        EXPECT_EQ(question.url, "http://birch.example/");
    EXPECT_EQ(stage.presentUntilDecided(Talk(40002, true).out(labtest::ack)), labtest::redirect);
}

TEST(DaemonAndAgent, ABareIpv4AcknowledgementIsNeverAskedAbout) {
    LabStage stage("allow *");
    stage.raise();
    EXPECT_EQ(stage.present(Talk(40001).out(pushAck, get("birch.example"))), hold);
    EXPECT_EQ(stage.present(Talk(40002).out(labtest::ack)), pass);
}

TEST(DaemonAndAgent, AnAbsentAgentNeverStopsTheDaemonFromAnsweringPackets) {
    LabStage stage("allow *");
    stage.raise(false);
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(stage.present(request(42000 + i, "absent.example")), hold) << i;
        EXPECT_EQ(stage.present(request(42000 + i, "absent.example")), hold) << i;
        expectTrafficGoesOn(stage);
    }
    EXPECT_EQ(stage.daemon().resolved(), 0);
    stage.letTheAgentCome();
    EXPECT_EQ(stage.presentUntilDecided(request(42000, "absent.example")), pass);
}

TEST(DaemonAndAgent, AnAgentThatGoesSilentDoesNotTakeTheAnswersOfOthersAway) {
    LabStage stage("silent http://silent.example/\n");
    stage.raise();
    EXPECT_EQ(stage.present(request(43000, "silent.example")), hold);
    stage.awaitQuestions(1);
    EXPECT_EQ(stage.presentUntilDecided(request(43001, "open.example")), pass);
    EXPECT_EQ(stage.present(request(43000, "silent.example")), hold);
    expectTrafficGoesOn(stage);
}

TEST(DaemonAndAgent, AnAgentThatClosesTheLinkInTheMiddleOfAFrameNeverStopsTheDaemon) {
    LabStage stage("allow *");
    std::atomic<int> cuts{0};
    stage.agent().setConduct(
        [&](std::uint32_t sequence, const std::string&) -> std::optional<PolicyAgent::Conduct> {
            if (cuts == 2) return {};
            // The first time inside the body, the second time inside the header.
            const std::string whole = lab::agentFrame(1, sequence, "{\"redirect\":\"http://page/\"}");
            return PolicyAgent::Conduct{whole.substr(0, cuts++ == 0 ? 20 : 7), true};
        });
    stage.raise();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(stage.present(request(44000 + i, "cut.example")), hold);
        stage.awaitQuestions(i + 1);
        expectTrafficGoesOn(stage);
        // The reconnect wakes the question with an empty answer, which allows.
        EXPECT_EQ(stage.presentUntilDecided(request(44000 + i, "cut.example")), pass);
        stage.awaitLogons(i + 2);
    }
    EXPECT_EQ(stage.presentUntilDecided(request(44100, "whole.example")), pass);
    expectTrafficGoesOn(stage);
}

// What an agent out of its mind may send in place of an answer.
struct Nonsense {
    const char* name;
    std::string bytes;
};

void PrintTo(const Nonsense& nonsense, std::ostream* out) { *out << nonsense.bytes.size() << " bytes"; }

class NonsenseTest : public testing::TestWithParam<Nonsense> {};

TEST_P(NonsenseTest, NeverStopsTheDaemonFromAnsweringPackets) {
    LabStage stage("allow *");
    std::atomic<bool> sane{false};
    stage.agent().setConduct([&](std::uint32_t, const std::string&) -> std::optional<PolicyAgent::Conduct> {
        if (sane) return {};
        return PolicyAgent::Conduct{GetParam().bytes, true};
    });
    stage.raise();
    EXPECT_EQ(stage.present(request(45000, "nonsense.example")), hold);
    stage.awaitQuestions(1);
    expectTrafficGoesOn(stage);
    stage.awaitLogons(2);
    sane = true;
    EXPECT_EQ(stage.presentUntilDecided(request(45001, "sane.example")), pass);
    expectTrafficGoesOn(stage);
}

std::string header(std::uint32_t length, std::uint32_t type, std::uint32_t sequence) {
    std::string bytes;
    for (std::uint32_t word : {length, type, sequence}) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(word >> shift);
    }
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    AnAgentThatSends, NonsenseTest,
    testing::Values(Nonsense{"Text", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"},
                    Nonsense{"Zeroes", std::string(5000, '\0')},
                    Nonsense{"AllBitsSet", std::string(5000, '\xff')},
                    Nonsense{"ALengthBelowTheHeaders", header(3, 1, 1) + "abc"},
                    Nonsense{"AnAbsurdLength", header(0x7fffffff, 1, 1) + "abc"},
                    Nonsense{"AnswersToQuestionsOfNobody",
                             lab::agentFrame(1, 0x12345678, "{}") + lab::agentFrame(77, 1, "?")},
                    Nonsense{"AHugeFrame", lab::agentFrame(1, 0x12345678, std::string(300000, 'x'))},
                    Nonsense{"AConfigurationOfGarbage", lab::agentFrame(5, 0x12345678, "\"bypass_on_fail")}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(DaemonAndAgent, NonsenseInAWholeFrameIsDecidedByBlockOnFailure) {
    LabStage stage("garble *", true);
    stage.raise();
    EXPECT_EQ(stage.presentUntilDecided(request(46000, "nonsense.example")), labtest::redirect);
    expectTrafficGoesOn(stage);
}

} // namespace
