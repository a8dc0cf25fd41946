// The daemon beside a name service that does not answer, a clock that jumps, and more connections than anybody has.

#include "app/FaultsWorld.h"
#include "platform/NameLookup.h"
#include "support/PlayedNames.h"
#include "support/Thorough.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <string>
#include <vector>

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

// Questions that two threads begin at one moment may draw one number, by rule. Then one of them may wait for ever, and its
// page stays held.
class DaemonManyConnections : public FaultsWorld {
protected:
    void answerAndNoteItsNumber() {
        const auto question = agent->awaitFrame(1);
        questions_[question.sequence].push_back(question.body);
        agent->reply(question.sequence, "{}");
    }

    bool sharesItsNumber(int port) const {
        const std::string host = "page-" + std::to_string(port) + ".test";
        const auto isOfThePage = [&](const std::string& body) {
            return body.find(host) != std::string::npos;
        };
        return std::any_of(questions_.begin(), questions_.end(), [&](const auto& asked) {
            return asked.second.size() > 1 &&
                   std::any_of(asked.second.begin(), asked.second.end(), isOfThePage);
        });
    }

    // Of those that share a number one has its answer.
    long pagesThatMayStayHeld() const {
        long pages = 0;
        for (const auto& asked : questions_)
            pages += static_cast<long>(asked.second.size()) - 1;
        return pages;
    }

    long notPassed(const std::vector<int>& ports) {
        return std::count_if(ports.begin(), ports.end(),
                             [this](int port) { return verdictOf(port) != resultPass; });
    }

private:
    std::map<std::uint32_t, std::vector<std::string>> questions_;
};

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
    for (int question = 0; question < count; ++question)
        answerAndNoteItsNumber();
    std::vector<int> sharing;
    for (int port = page; port < page + count; ++port)
        if (sharesItsNumber(port))
            sharing.push_back(port);
        else
            ASSERT_TRUE(comesToPass(port)) << port;
    EXPECT_TRUE(eventually([&] { return notPassed(sharing) <= pagesThatMayStayHeld(); }));
    EXPECT_TRUE(eventually([&] { return queryThreads() <= pagesThatMayStayHeld(); }));
    advanceSeconds(31);
    expectAPageToPass(page - 1);
}
