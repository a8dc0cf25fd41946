// The daemon beside an agent that is not there, does not answer, answers badly, or comes and goes.

#include "agent/AgentFrames.h"
#include "app/FaultsWorld.h"
#include "support/Sanitizers.h"
#include "support/Thorough.h"

#include <csignal>
#include <iterator>
#include <map>

using testsupport::AgentStandIn;
using testsupport::eventually;

namespace {

class DaemonAgentFaults : public FaultsWorld {
protected:
    // So many pages asked about, by their ports from the first on: the numbers of their questions.
    std::map<int, std::uint32_t> askFrom(int first, int count) {
        std::map<int, std::uint32_t> numbers;
        for (int port = first; port < first + count; ++port)
            numbers[port] = ask(port);
        return numbers;
    }

    // The agent's end of the link goes, and the daemon has made another.
    void restartAgent() {
        agent->closeConnection();
        agent->awaitFrame(3);
    }

    static constexpr int page = 40000;
};

} // namespace

TEST_F(DaemonAgentFaults, AnAgentThatComesLateIsAskedWhatHasWaitedForIt) {
    prepare(8, false).start();
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    ASSERT_TRUE(daemon->awaitLog("setUserLogonCommand socket send failed"));
    EXPECT_EQ(verdictOf(page), resultHold);
    EXPECT_TRUE(answersBothDirections());
    agent = std::make_unique<AgentStandIn>();
    agent->reply(agent->awaitFrame(1).sequence, "{}");
    EXPECT_TRUE(comesToPass(page));
}

TEST_F(DaemonAgentFaults, AKilledAgentIsWaitedForAndPacketsAreAnsweredMeanwhile) {
    startLinked();
    agent->stopListening();
    agent->resetConnection();
    ASSERT_TRUE(daemon->awaitLog("setUserLogonCommand socket send failed"));
    EXPECT_EQ(verdictOf(page), resultHold);
    EXPECT_TRUE(answersBothDirections());
    agent->listenAgain();
    agent->reply(agent->awaitFrame(1).sequence, "{}");
    EXPECT_TRUE(comesToPass(page));
}

TEST_F(DaemonAgentFaults, AnAgentThatIsRestartedUpToAThousandTimesIsFoundAgainEachTime) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker may open descriptors of its own";
    const int restarts = testsupport::thorough() ? 1000 : 50;
    startListening();
    expectAPageToPass(page);
    const long all = descriptors();
    const long queues = descriptors("anon_inode:");
    const long links = linkSockets();
    restartAgent();
    // The old connection and its queue are never given back; how many descriptors a queue has is the program's.
    ASSERT_TRUE(
        eventually([&] { return linkSockets() == links + 1 && descriptors("anon_inode:") > queues; }));
    expectAPageToPass(page + 1);
    const long each = descriptors("anon_inode:") - queues;
    for (int i = 1; i < restarts; ++i)
        restartAgent();
    expectAPageToPass(page + 2);
    EXPECT_TRUE(eventually([&] { return linkSockets() == links + restarts; })) << linkSockets() - links;
    EXPECT_TRUE(eventually([&] { return descriptors("anon_inode:") == queues + restarts * each; }))
        << descriptors("anon_inode:") - queues;
    // Nothing else stays. What came and went as `all` were counted made them no fewer.
    EXPECT_TRUE(eventually([&] { return descriptors() <= all + restarts * (1 + each); }))
        << descriptors() - all;
    EXPECT_TRUE(eventually([&] { return queryThreads() == 0; }));
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(DaemonAgentFaults, ARestartWithSeveralQuestionsOpenLetsTheOldestPassAndHoldsTheOthers) {
    startLinked();
    askFrom(page, 5);
    restartAgent();
    EXPECT_TRUE(comesToPass(page));
    for (int port = page + 1; port < page + 5; ++port)
        EXPECT_EQ(verdictOf(port), resultHold);
    EXPECT_TRUE(eventually([&] { return queryThreads() == 4; })) << queryThreads();
    expectAPageToPass(page + 5);
}

TEST_F(DaemonAgentFaults, APageThatARestartHasHeldIsAskedAboutAnewWhenItsRecordHasEnded) {
    startLinked();
    askFrom(page, 2);
    restartAgent();
    EXPECT_TRUE(comesToPass(page));
    EXPECT_EQ(verdictOf(page + 1), resultHold);
    advanceSeconds(31);
    agent->reply(ask(page + 9), "{}"); // a walk that drops a record passes over the next one
    expectAPageToPass(page + 1);
}

TEST_F(DaemonAgentFaults, ASilentAgentHasThirtyQuestionsAndTheOthersWait) {
    startLinked();
    const auto numbers = askFrom(page, 30);
    for (int port = page + 30; port < page + 35; ++port)
        EXPECT_EQ(verdictOf(port), resultHold);
    EXPECT_TRUE(answersBothDirections());
    // One answer frees one thread, which takes the oldest that waits.
    agent->reply(numbers.at(page), "{}");
    EXPECT_NE(agent->awaitFrame(1).body.find("page-" + std::to_string(page + 30)), std::string::npos);
    EXPECT_EQ(verdictOf(page + 1), resultHold);
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(DaemonAgentFaults, AnAnswerOfOneByteASecondIsPutTogether) {
    startLinked();
    const std::string answer = AgentStandIn::frame(1, ask(page), "{}");
    for (char byte : answer) {
        EXPECT_EQ(verdictOf(page), resultHold);
        agent->sendBytes(std::string(1, byte));
        ASSERT_TRUE(hasReadAll());
        advanceSeconds(1);
    }
    EXPECT_TRUE(comesToPass(page));
}

TEST_F(DaemonAgentFaults, AFrameThatIsCutAtAnyPlaceIsPutTogether) {
    startLinked();
    const std::size_t length = agentFrameHeader + 2;
    for (std::size_t cut = 1; cut < length; ++cut) {
        const int port = page + static_cast<int>(cut);
        const std::string answer = AgentStandIn::frame(1, ask(port), "{}");
        ASSERT_EQ(answer.size(), length);
        agent->sendBytes(answer.substr(0, cut));
        ASSERT_TRUE(hasReadAll());
        EXPECT_EQ(verdictOf(port), resultHold) << cut;
        agent->sendBytes(answer.substr(cut));
        EXPECT_TRUE(comesToPass(port)) << cut;
    }
}

TEST_F(DaemonAgentFaults, AFrameThatStaysShortHoldsWhatComesBehindItUntilTheAgentIsRestarted) {
    startLinked();
    const auto numbers = askFrom(page, 2);
    agent->sendBytes(AgentStandIn::frameOfLength(1000, 1, numbers.at(page), "{}"));
    agent->reply(numbers.at(page + 1), "{}");
    ASSERT_TRUE(hasReadAll());
    EXPECT_EQ(verdictOf(page), resultHold);
    EXPECT_EQ(verdictOf(page + 1), resultHold);
    restartAgent();
    EXPECT_TRUE(comesToPass(page));
    expectAPageToPass(page + 2);
}

TEST_F(DaemonAgentFaults, AnswersOutOfOrderReachTheirOwnPages) {
    startLinked();
    const auto numbers = askFrom(page, 30);
    for (auto answered = numbers.rbegin(); answered != std::prev(numbers.rend()); ++answered) {
        agent->reply(answered->second, "{}");
        EXPECT_TRUE(comesToPass(answered->first));
        EXPECT_EQ(verdictOf(answered->first - 1), resultHold);
    }
}

TEST_F(DaemonAgentFaults, AnswersInOneBurstReachTheirOwnPages) {
    startLinked();
    std::string burst;
    const auto numbers = askFrom(page, 30);
    for (const auto& [port, number] : numbers)
        burst += AgentStandIn::frame(1, number, port % 2 ? R"({"redirect":"http://10.0.0.1/"})" : "{}");
    agent->sendBytes(burst);
    for (const auto& [port, number] : numbers) {
        const int expected = port % 2 ? resultRedirect : resultPass;
        EXPECT_TRUE(eventually([&, at = port] { return verdictOf(at) == expected; })) << port;
    }
}

TEST_F(DaemonAgentFaults, AnswersOfUnknownNumbersAreFiledAndTheNextOneCounts) {
    startLinked();
    const std::uint32_t number = ask(page);
    for (std::uint32_t unknown : {0u, 0x7fffffffu, 0x80000000u, 0xffffffffu})
        agent->reply(unknown, "{}");
    ASSERT_TRUE(hasReadAll());
    EXPECT_EQ(verdictOf(page), resultHold);
    agent->reply(number, "{}");
    EXPECT_TRUE(comesToPass(page));
}

TEST_F(DaemonAgentFaults, AnAnswerOfAnUnknownNumberHidesThePageThatARestartWouldHaveLetGo) {
    startLinked();
    agent->reply(0x7fffffff, "{}");
    expectAPageToPass(page); // the entry stands in front of what follows
    ask(page + 1);
    restartAgent();
    expectAPageToPass(page + 2);
    EXPECT_EQ(verdictOf(page + 1), resultHold);
}

TEST_F(DaemonAgentFaults, AFrameBelow128MiBIsReadWhole) {
    if (!testsupport::thorough()) GTEST_SKIP() << "takes seconds: OSTLER_THOROUGH has it done";
    startLinked();
    std::string rest = AgentStandIn::frameOfLength(agentFrameLimit - 1, 1, ask(page), "{}");
    const std::string part(1 << 20, '\0');
    for (std::size_t left = agentFrameLimit - 1 - rest.size(); !rest.empty(); left -= rest.size()) {
        agent->sendBytes(rest);
        rest = part.substr(0, std::min(left, part.size()));
    }
    EXPECT_TRUE(comesToPass(page));
    expectAPageToPass(page + 1);
}

TEST_F(DaemonAgentFaults, AFrameOf128MiBEndsTheLinkWhichIsMadeAnew) {
    startLinked();
    agent->sendBytes(AgentStandIn::frameOfLength(agentFrameLimit, 1, ask(page), "{}"));
    agent->awaitFrame(3);
    agent->awaitConnections(2);
    EXPECT_TRUE(comesToPass(page));
    expectAPageToPass(page + 1);
}
