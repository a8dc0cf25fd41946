#include "filter/FilterQuery.h"

#include "agent/OstComm.h"
#include "config/Configuration.h"
#include "packet/HijackPacket.h"
#include "support/AgentLinkWorld.h"
#include "support/ManualClock.h"
#include "support/PacketBuilder.h"
#include "support/Patience.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

using testsupport::AgentStandIn;
using testsupport::ManualClock;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;

namespace {

constexpr char blockPage[] = "http://localhost:6543/block_screen.html/?id=error";
constexpr int plainLife = 30000000;
constexpr int tlsLife = 120000000;

// A connection whose URL is asked about.
class Connection {
public:
    explicit Connection(int port)
        : packet_(PacketBuilder::ipv4().from("10.0.0.2", port).payload("GET /").build()) {}

    // Makes the record and queues the query, as the packet path does.
    void query(const std::string& url, bool https = false) {
        ASSERT_TRUE(HijackPacket::create(packet_.packet(), url.c_str(), https));
        FilterQuery::send(url.c_str(), https, nullptr);
    }

    HijackPacket* record() { return HijackPacket::find(packet_.packet()); }

    void awaitAnswer() {
        const auto end = std::chrono::steady_clock::now() + testsupport::patience;
        HijackPacket* found = record();
        while (found && !found->isResolved() && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
            found = record();
        }
        ASSERT_TRUE(found && found->isResolved());
    }

    // The redirect once the record is answered; empty when it is allowed.
    std::string redirect() {
        awaitAnswer();
        // The mark comes before the redirect.
        for (int i = 0; i < 1000 && !record()->redirectURL(); ++i)
            std::this_thread::yield();
        return record()->redirectURL() ? record()->redirectURL() : "";
    }

private:
    PacketBuffer packet_;
};

class FilterQueryTest : public testing::Test {
protected:
    // An agent that gives every question the same answer.
    void agentAnswers(const std::string& reply) {
        world.startAgent().answerPolicy([reply](const std::string&) { return reply; });
    }

    // A link that can never be opened, so that each query is answered with "{BOF}".
    void agentIsOutOfReach() { world.names.forget("127.0.0.1", AF_INET); }

    testsupport::AgentLinkWorld world;
    Connection connection{50000};
};

} // namespace

TEST_F(FilterQueryTest, AReplyOfExactlyEmptyBracesAllowsWithTheRecordsTimeUnchanged) {
    agentAnswers("{}");
    connection.query("http://a/");
    EXPECT_EQ(connection.redirect(), "");
    EXPECT_EQ(connection.record()->getTimeout(), plainLife);
}

TEST_F(FilterQueryTest, AnAllowedTlsConnectionKeepsTheWholeOfItsTwoMinutes) {
    Configuration::setLogLevel(64);
    agentAnswers("{}");
    connection.query("https://a", true);
    EXPECT_EQ(connection.redirect(), "");
    EXPECT_EQ(connection.record()->getTimeout(), tlsLife);
    world.awaitLog("Hijack-resolve:true: target='https://a' redirect='null' (timeout=-1)");
}

TEST_F(FilterQueryTest, EmptyBracesGoingOnWithARedirectKeyAllow) {
    agentAnswers(R"({} {"redirect":"http://b/"})");
    connection.query("http://a/");
    EXPECT_EQ(connection.redirect(), "");
}

TEST_F(FilterQueryTest, ARedirectBlocksForThirtySeconds) {
    agentAnswers(R"({"id":1,"redirect":"http://b/?x","more":2})");
    connection.query("http://a/", true);
    EXPECT_EQ(connection.redirect(), "http://b/?x");
    EXPECT_EQ(connection.record()->getTimeout(), 30000000);
    EXPECT_TRUE(world.log.holds(R"([1] OstCommFilterQueryThread redirectURL: http://b/?x","more":2})"));
    EXPECT_TRUE(world.log.holds("[1] OstCommFilterQueryThread hijackRedirectURL: http://b/?x"));
}

TEST_F(FilterQueryTest, ARedirectKeyAtPositionZeroIsAFailure) {
    Configuration::setBOF(true);
    agentAnswers(R"("redirect":"http://b/")");
    connection.query("http://a/");
    EXPECT_EQ(connection.redirect(), blockPage);
}

TEST_F(FilterQueryTest, WithBothTheRedirectKeyAndTheHostLookupErrorTheRedirectWins) {
    agentAnswers(R"({"error":"TW Host lookup timeout","redirect":"http://b/"})");
    connection.query("http://a/");
    EXPECT_EQ(connection.redirect(), "http://b/");
}

TEST_F(FilterQueryTest, TheHostLookupErrorAsksAgainWithANewNumberForAsOftenAsTheAgentSaysIt) {
    // Many more rounds than calls inside one another would stand.
    auto rounds = std::make_shared<std::atomic<int>>(0);
    world.startAgent().answerPolicy([rounds](const std::string&) -> std::string {
        return ++*rounds <= 300 ? R"({"error":"TW Host lookup timeout"})" : "{}";
    });
    connection.query("http://a/");
    EXPECT_EQ(connection.redirect(), "");
    EXPECT_EQ(*rounds, 301);
    EXPECT_EQ(world.log.countContaining("OstCommFilterQueryThread TW Host lookup timeout >>> resending"),
              300);
    EXPECT_TRUE(world.log.holds("[300] OstCommFilterQueryThread TW Host lookup timeout >>> resending"));
}

TEST_F(FilterQueryTest, AClosedLinkWithBlockOnFailureShowsTheLocalBlockPageWithNoNewTime) {
    Configuration::setBOF(true);
    agentIsOutOfReach();
    connection.query("http://a/", true);
    EXPECT_EQ(connection.redirect(), blockPage);
    EXPECT_EQ(connection.record()->getTimeout(), tlsLife);
}

TEST_F(FilterQueryTest, AClosedLinkWithoutBlockOnFailureAllows) {
    Configuration::setBOF(false);
    agentIsOutOfReach();
    connection.query("http://a/");
    EXPECT_EQ(connection.redirect(), "");
    EXPECT_EQ(connection.record()->getTimeout(), plainLife);
}

TEST_F(FilterQueryTest, NonsenseIsAFailureThatBlockOnFailureDecides) {
    Configuration::setBOF(true);
    agentAnswers("nonsense");
    connection.query("http://a/");
    EXPECT_EQ(connection.redirect(), blockPage);
}

TEST_F(FilterQueryTest, AUrlTooLongForAFrameIsAFailure) {
    Configuration::setBOF(true);
    agentAnswers("{}");
    connection.query("http://a/" + std::string(5000, 'x'));
    EXPECT_EQ(connection.redirect(), blockPage);
}

TEST_F(FilterQueryTest, ALostLinkOpensTheQueryThatItInterrupted) {
    Configuration::setBOF(true);
    AgentStandIn& agent = world.startAgent();
    connection.query("http://a/");
    agent.awaitFrame(1);
    // Sleeps that pass would carry the record past its time.
    ManualClock::installed().letSleepsPass(false);
    agent.closeConnection();
    EXPECT_EQ(connection.redirect(), "");
}

TEST_F(FilterQueryTest, TwoConnectionsToOneUrlAreTwoQueriesAndEachReplyResolvesTheOldestOpenRecord) {
    AgentStandIn& agent = world.startAgent();
    Connection other(50001);
    connection.query("http://a/");
    const auto first = agent.awaitFrame(1);
    other.query("http://a/");
    const auto second = agent.awaitFrame(1);
    agent.reply(second.sequence, R"({"redirect":"http://b/"})");
    EXPECT_EQ(connection.redirect(), "http://b/");
    EXPECT_FALSE(other.record()->isResolved());
    agent.reply(first.sequence, "{}");
    EXPECT_EQ(other.redirect(), "");
}

TEST_F(FilterQueryTest, SendDoesNotWaitForASilentAgentAndTheRecordStaysOpen) {
    AgentStandIn& agent = world.startAgent();
    connection.query("http://silent/");
    agent.awaitFrame(1);
    EXPECT_FALSE(connection.record()->isResolved());
}

TEST_F(FilterQueryTest, SendDoesNotWaitForAnAbsentAgentEither) {
    ManualClock::installed().letSleepsPass(false);
    for (int i = 0; i < 40; ++i)
        FilterQuery::send("http://a/", false, nullptr);
    EXPECT_TRUE(ManualClock::installed().waitForSleepers(1));
}

TEST_F(FilterQueryTest, ThirtyQueriesRunAtOnceAndTheNextWaitsForOneToEnd) {
    AgentStandIn& agent = world.startAgent();
    // One after another, so that no two of them draw the same number.
    AgentStandIn::Frame first;
    static_assert(FilterQuery::queryThreads == 30);
    for (int i = 0; i < FilterQuery::queryThreads; ++i) {
        FilterQuery::send(("http://silent/" + std::to_string(i)).c_str(), false, nullptr);
        const auto frame = agent.awaitFrame(1);
        if (i == 0) first = frame;
    }
    FilterQuery::send("http://waiting/", false, nullptr);
    // A frame of another kind shows that no further question is on its way.
    OstComm::Instance()->getConfigurationCommand();
    EXPECT_EQ(agent.awaitFrame().type, 5u);
    agent.reply(first.sequence, "{}");
    EXPECT_EQ(agent.awaitFrame(1).body, R"({"url":"http://waiting/"})");
}

TEST_F(FilterQueryTest, AnAnswerForWhichNoRecordIsOpenFollowsNothing) {
    Configuration::setLogLevel(64);
    agentAnswers("{}");
    FilterQuery::send("http://nobody/", false, nullptr);
    world.awaitLog("Hijack-resolve:false: target='http://nobody/' redirect='null'");
}

TEST_F(FilterQueryTest, TheUrlIsCopiedBeforeSendReturns) {
    AgentStandIn& agent = world.startAgent();
    std::string url = "http://copied/";
    FilterQuery::send(url.c_str(), false, nullptr);
    url.assign(url.size(), '#');
    EXPECT_EQ(agent.awaitFrame(1).body, R"({"url":"http://copied/"})");
}

TEST_F(FilterQueryTest, SendLogsTheUrlWhenVerbose) {
    agentAnswers("{}");
    FilterQuery::send("http://quiet/", false, nullptr);
    Configuration::setVerboseMode(true);
    FilterQuery::send("http://loud/", false, nullptr);
    EXPECT_TRUE(world.log.holds("url being checked: http://loud/"));
    EXPECT_FALSE(world.log.holds("url being checked: http://quiet/"));
}

TEST_F(FilterQueryTest, InBalancedModeTheCurrentServerMovesOnWithEachQuery) {
    agentAnswers("{}");
    Configuration::removeAllServers(false);
    Configuration::addServerName("one.example.org", false);
    Configuration::addServerName("two.example.org", false);
    Configuration::resetCurrentServer();
    const std::string before = Configuration::serverName();
    Configuration::setBalancedMode(false);
    FilterQuery::send("http://a/", false, nullptr);
    EXPECT_EQ(Configuration::serverName(), before);
    Configuration::setBalancedMode(true);
    FilterQuery::send("http://a/", false, nullptr);
    EXPECT_NE(Configuration::serverName(), before);
    FilterQuery::send("http://a/", false, nullptr);
    EXPECT_EQ(Configuration::serverName(), before);
}
