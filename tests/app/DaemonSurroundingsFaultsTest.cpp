// The daemon beside a name service that does not answer, a clock that jumps, and more connections than anybody has.

#include "app/FaultsWorld.h"
#include "platform/NameLookup.h"
#include "support/PlayedNames.h"
#include "support/Thorough.h"

#include <csignal>

using testsupport::eventually;

namespace {

constexpr int page = 40000;
constexpr int hours = 3600;

// One of the daemon's played names is never answered.
class DaemonNameFaults : public FaultsWorld {
protected:
    void withoutAnAnswerFor(const std::string& name) {
        surroundings = [this, name] {
            playClock();
            static_cast<testsupport::PlayedNames&>(platform::nameLookup()).neverAnswer(name);
        };
    }

    static std::vector<char> recordOf(const std::vector<char>& packet) {
        std::vector<char> record(24);
        record.insert(record.end(), packet.begin(), packet.end());
        return record;
    }
};

class DaemonClockFaults : public FaultsWorld {
protected:
    // The clock jumps, and the link and new pages are as before.
    void jump(std::int64_t seconds) {
        advanceSeconds(seconds);
        expectAPageToPass(page + 100);
        daemon->changeConsoleUser("bob");
        EXPECT_NE(agent->awaitFrame(3).body.find("bob"), std::string::npos);
        EXPECT_TRUE(answersBothDirections());
    }

    // Whether the daemon asks about the page once more.
    bool asksAnew(int port) {
        EXPECT_EQ(verdictOf(port), resultHold);
        return agent->awaitFrame(1).body.find("page-" + std::to_string(port)) != std::string::npos;
    }
};

class DaemonManyConnections : public FaultsWorld {};

} // namespace

TEST_F(DaemonNameFaults, ARedirectsHostThatIsNotFoundOutStopsItsDirectionAlone) {
    withoutAnAnswerFor("blocked.test");
    startLinked();
    agent->reply(ask(page), R"({"redirect":"http://blocked.test/"})");
    // The page's next request meets the redirect, and its look-up has no end.
    ASSERT_TRUE(daemon->awaitLog("hijackRedirectURL: http://blocked.test/"));
    ASSERT_TRUE(eventually([&] { return queryThreads() == 0; }));
    ASSERT_TRUE(extension->sendBytes(lab::Direction::out, recordOf(requestFrom(page))));
    EXPECT_TRUE(answers(lab::Direction::in));
    ASSERT_TRUE(extension->sendBytes(lab::Direction::out, recordOf(requestFrom(page + 1))));
    daemon->changeConsoleUser("bob");
    EXPECT_EQ(agent->awaitFrame().type, 3u); // and no question of the other page in front of it
    EXPECT_TRUE(answers(lab::Direction::in));
    EXPECT_FALSE(extension->awaitAnyResult(lab::Direction::out, 0));
}

TEST_F(DaemonNameFaults, TheAgentsOwnAddressWithoutAnAnswerKeepsPagesWaitingAndPacketsNot) {
    withoutAnAnswerFor("127.0.0.1");
    startDaemon();
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    EXPECT_EQ(verdictOf(page), resultHold);
    EXPECT_EQ(verdictOf(page + 1), resultHold);
    EXPECT_TRUE(answersBothDirections());
    EXPECT_TRUE(eventually([&] { return queryThreads() == 2; }));
    EXPECT_FALSE(daemon->logs("OstComm socket opened"));
}

TEST_F(DaemonNameFaults, TheServersNameWithoutAnAnswerKeepsNothingWaiting) {
    withoutAnAnswerFor("localhost");
    startLinked();
    expectAPageToPass(page);
    EXPECT_TRUE(answersBothDirections());
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(DaemonClockFaults, AClockSetBackByHoursKeepsWhatIsKnownForThatMuchLonger) {
    startLinked();
    expectAPageToPass(page);
    ask(page + 1);
    jump(-3 * hours);
    advanceSeconds(3 * hours - 1);
    EXPECT_EQ(verdictOf(page), resultPass);
    EXPECT_EQ(verdictOf(page + 1), resultHold);
    advanceSeconds(32);
    EXPECT_TRUE(asksAnew(page));
}

TEST_F(DaemonClockFaults, AClockSetForwardByHoursEndsWhatIsKnown) {
    startLinked();
    expectAPageToPass(page);
    jump(3 * hours);
    EXPECT_TRUE(asksAnew(page));
}

TEST_F(DaemonClockFaults, AnAnswerThatComesBehindAJumpStillReachesItsPage) {
    startLinked();
    const std::uint32_t number = ask(page);
    advanceSeconds(-3 * hours);
    agent->reply(number, "{}");
    EXPECT_TRUE(comesToPass(page));
}

TEST_F(DaemonManyConnections, UpToTenThousandAreHeldAtOnceAndEachGetsItsAnswer) {
    const int count = testsupport::thorough() ? 10000 : 500;
    startLinked();
    for (int port = page; port < page + count; ++port)
        ASSERT_EQ(verdictOf(port), resultHold) << port;
    ASSERT_TRUE(answersBothDirections());
    EXPECT_TRUE(eventually([&] { return queryThreads() == 30; }));
    agent->answerPolicy([](const std::string&) { return "{}"; });
    for (int open = 0; open < 30; ++open)
        agent->reply(agent->awaitFrame(1).sequence, "{}");
    for (int port = page; port < page + count; ++port)
        ASSERT_TRUE(comesToPass(port)) << port;
    EXPECT_TRUE(eventually([&] { return queryThreads() == 0; }));
    advanceSeconds(31);
    expectAPageToPass(page - 1);
}
