#include "agent/OstComm.h"

#include "agent/AgentFrames.h"
#include "agent/AgentLink.h"
#include "agent/UpdatePrompts.h"
#include "config/Configuration.h"
#include "gp/GPDate.h"
#include "gp/GPSockets.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AgentLinkWorld.h"
#include "support/Await.h"
#include "support/HeldLocks.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedUrlSession.h"
#include "support/ThreadStarts.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

using testsupport::AgentStandIn;
using testsupport::ManualClock;

namespace {

// Asks on a thread of its own, which may wait for ever and is not waited for.
class Asker {
public:
    explicit Asker(const std::string& url) : promise_(std::make_shared<std::promise<std::string>>()) {
        std::thread([promise = promise_, text = url]() mutable {
            const auto reply = Owned<GPString>::adopt(OstComm::Instance()->getPolicyCommand(text.data(), 1));
            promise->set_value(reply ? reply->cstr() : "(null)");
        }).detach();
    }

    std::string answer() {
        if (future_.wait_for(testsupport::patience) != std::future_status::ready) return "(still waiting)";
        return future_.get();
    }

    bool isWaiting() { return future_.wait_for(std::chrono::seconds(0)) != std::future_status::ready; }

private:
    // Shared with the thread, which may outlive this object.
    std::shared_ptr<std::promise<std::string>> promise_;
    std::future<std::string> future_ = promise_->get_future();
};

class ResponseThreadTest : public testing::Test {
protected:
    ResponseThreadTest() : agent(world.startAgent()) {
        link = OstComm::Instance();
        agent.awaitFrame();
        Configuration::setLogLevel(1);
    }

    // Blocks until the link has been built anew and answers again.
    void awaitReconnect(int connections) {
        agent.awaitConnections(connections);
        agent.awaitFrame(agentLogonFrame);
    }

    // A request that has gone out, and the number of its frame.
    struct Request {
        Asker asker;
        std::uint32_t sequence;
    };
    Request ask(const std::string& url) {
        Asker asker(url);
        const auto frame = agent.awaitFrame(agentPolicyFrame);
        return {std::move(asker), frame.sequence};
    }

    // Whether the link still serves: one question, one answer.
    void expectService() {
        Request request = ask("http://probe/");
        agent.reply(request.sequence, "{probe}");
        EXPECT_EQ(request.asker.answer(), "{probe}");
    }

    // Blocks until as many entries wait in the table.
    static void awaitEntries(int count) {
        const auto end = std::chrono::steady_clock::now() + testsupport::patience;
        while (agentLink.responses().count() != count && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        EXPECT_EQ(agentLink.responses().count(), count);
    }

    // Pushes a frame and blocks until it has been read.
    void pushAndAwait(const std::string& body) {
        agent.push(body);
        world.awaitLog("OstComm loadConfigResponseThread response " + body);
        awaitEntries(0);
    }

    testsupport::AgentLinkWorld world;
    AgentStandIn& agent;
    OstComm* link;
};

} // namespace

TEST_F(ResponseThreadTest, TwoFramesArrivingInOneReadAnswerTwoRequests) {
    Request one = ask("http://one/");
    Request two = ask("http://two/");
    agent.sendBytes(AgentStandIn::frame(1, one.sequence, "{one}") +
                    AgentStandIn::frame(1, two.sequence, "{two}"));
    EXPECT_EQ(one.asker.answer(), "{one}");
    EXPECT_EQ(two.asker.answer(), "{two}");
}

TEST_F(ResponseThreadTest, AFrameSplitOverSeveralReadsIsPutTogetherBeforeItIsHandled) {
    Request request = ask("http://split/");
    const std::string bytes = AgentStandIn::frame(1, request.sequence, "{\"redirect\":\"http://b/\"}");
    for (const char byte : bytes)
        agent.sendBytes(std::string(1, byte));
    EXPECT_EQ(request.asker.answer(), "{\"redirect\":\"http://b/\"}");
}

TEST_F(ResponseThreadTest, AWholeFrameBeforeASplitOneIsHandledAtOnce) {
    Request one = ask("http://one/");
    Request two = ask("http://two/");
    const std::string second = AgentStandIn::frame(1, two.sequence, "{two}");
    agent.sendBytes(AgentStandIn::frame(1, one.sequence, "{one}") + second.substr(0, 13));
    EXPECT_EQ(one.asker.answer(), "{one}");
    EXPECT_TRUE(two.asker.isWaiting());
    agent.sendBytes(second.substr(13));
    EXPECT_EQ(two.asker.answer(), "{two}");
}

TEST_F(ResponseThreadTest, AReplyWhoseNumberHasNoWaiterStaysInTheTable) {
    agent.reply(0xFFFF0000, "{logon answer}");
    awaitEntries(1);
    expectService();
    EXPECT_EQ(agentLink.responses().count(), 1);
}

TEST_F(ResponseThreadTest, ALengthOfZeroIsHandledOnceAndTheReaderGoesOn) {
    Request request = ask("http://zero/");
    agent.sendBytes(AgentStandIn::frameOfLength(0, 1, request.sequence, "{zero}"));
    EXPECT_EQ(request.asker.answer(), "{zero}");
    expectService();
}

TEST_F(ResponseThreadTest, ALengthBelowTheHeadersDoesNotStopTheReader) {
    agent.sendBytes(std::string("\0\0\0\x04", 4));
    expectService();
}

TEST_F(ResponseThreadTest, AnAbsurdLengthIsGivenUpByReconnecting) {
    Request interrupted = ask("http://interrupted/");
    agent.sendBytes("HTTP/1.1 400 Bad Request\r\n\r\n");
    awaitReconnect(2);
    EXPECT_EQ(interrupted.asker.answer(), "");
    expectService();
    EXPECT_TRUE(world.log.holds("OstComm responseThread reconnecting"));
}

TEST_F(ResponseThreadTest, AConnectionClosedInTheMiddleOfAFrameIsGivenUpByReconnecting) {
    Request request = ask("http://half/");
    agent.sendBytes(AgentStandIn::frame(1, request.sequence, "{\"redirect\":\"http://b/\"}").substr(0, 20));
    agent.closeConnection();
    awaitReconnect(2);
    EXPECT_EQ(request.asker.answer(), "");
    expectService();
}

TEST_F(ResponseThreadTest, AConnectionResetInTheMiddleOfAFrameIsGivenUpByReconnecting) {
    agent.sendBytes(std::string("\0\0\0\x40", 4));
    agent.resetConnection();
    awaitReconnect(2);
    expectService();
}

TEST_F(ResponseThreadTest, AnOrderlyCloseReconnectsWhateverErrnoHolds) {
    agent.closeConnection();
    awaitReconnect(2);
    expectService();
    agent.closeConnection();
    awaitReconnect(3);
    expectService();
}

TEST_F(ResponseThreadTest, AReconnectWakesTheHeadOfTheWaitersAloneWithAnEmptyAnswer) {
    Request head = ask("http://head/");
    Request later = ask("http://later/");
    agent.closeConnection();
    awaitReconnect(2);
    EXPECT_EQ(head.asker.answer(), "");
    expectService();
    EXPECT_TRUE(later.asker.isWaiting());
    // The later one still has its place: a reply over the new connection reaches it.
    agent.reply(later.sequence, "{later}");
    EXPECT_EQ(later.asker.answer(), "{later}");
}

TEST_F(ResponseThreadTest, AReconnectNeitherClosesNorReleasesTheOldSocketObject) {
    GPSockets* old = agentLink.socket();
    agent.closeConnection();
    awaitReconnect(2);
    expectService();
    EXPECT_NE(agentLink.socket(), old);
    EXPECT_EQ(old->retainonly(), 2);
    EXPECT_EQ(old->releaseonly(), 1);
    // A closed object refuses with EBADF; this one still has its descriptor, whose peer is gone.
    errno = 0;
    old->send("x", 1);
    EXPECT_NE(errno, EBADF);
}

TEST_F(ResponseThreadTest, AReconnectThatCannotOpenASocketLeavesTheLinkClosedForGood) {
    Request interrupted = ask("http://interrupted/");
    world.names.forget("127.0.0.1", AF_INET);
    agent.closeConnection();
    EXPECT_EQ(interrupted.asker.answer(), "");
    world.awaitLog("WARNING: Socket open error in OstComm.");
    world.names.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
    EXPECT_EQ(Asker("http://after/").answer(), "{BOF}");
    EXPECT_FALSE(link->isOpened());
    while (agentLink.isBeingRead())
        std::this_thread::yield();
}

TEST_F(ResponseThreadTest, AnEntryWithoutAWaiterAtTheHeadHidesTheWaitersFromAReconnect) {
    agent.reply(0xFFFF0000, "{logon answer}");
    awaitEntries(1);
    Request waiter = ask("http://hidden/");
    agent.closeConnection();
    awaitReconnect(2);
    expectService();
    EXPECT_TRUE(waiter.asker.isWaiting());
}

TEST_F(ResponseThreadTest, WhileTheAgentIsGoneCallersWaitForTheReconnect) {
    const testsupport::WatchedLock atInstance(testsupport::firstLockOf([] { OstComm::Instance(); }));
    ManualClock::installed().letSleepsPass(false);
    agent.stopListening();
    agent.closeConnection();
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    Asker asker("http://meanwhile/");
    ASSERT_TRUE(atInstance.awaitWaiters(1));
    EXPECT_TRUE(asker.isWaiting());
    agent.listenAgain();
    ManualClock::installed().letSleepsPass(true);
    const auto frame = agent.awaitFrame(agentPolicyFrame);
    agent.reply(frame.sequence, "{}");
    EXPECT_EQ(asker.answer(), "{}");
}

TEST_F(ResponseThreadTest, TheNextReaderWaitsASecondAtATimeUntilTheOneBeforeHasEnded) {
    static std::promise<void> mayEnd;
    static std::int64_t sleptBefore = 0;
    expectService();
    const auto starts = [this] { return world.log.countContaining("OstComm responseThread starting"); };
    const int before = starts();
    // The one before comes here inside of its reconnect and stays until it may end.
    testsupport::playThreadStarts([](auto* thread, auto* attributes, auto* function, auto* argument) {
        ManualClock::installed().letSleepsPass(false);
        sleptBefore = ManualClock::installed().sleptMicroseconds();
        const int result = testsupport::startThread(thread, attributes, function, argument);
        mayEnd.get_future().wait();
        return result;
    });
    agent.closeConnection();
    awaitReconnect(2);
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    EXPECT_EQ(ManualClock::installed().sleptMicroseconds() - sleptBefore, 1000000);
    EXPECT_EQ(starts(), before);
    testsupport::playThreadStarts(nullptr);
    mayEnd.set_value();
    EXPECT_TRUE(testsupport::comesTrue([&] {
        ManualClock::installed().advanceSeconds(1);
        return starts() == before + 1;
    }));
    expectService();
}

TEST_F(ResponseThreadTest, TheReaderNotesItsStartPlus300SecondsAndAReconnectMovesIt) {
    const auto started = [] {
        const auto date = Owned<GPDate>::adopt(OstComm::responseThreadStarted());
        return date ? static_cast<long long>(date->toRawTime()) : 0;
    };
    expectService();
    const long long first = started();
    EXPECT_EQ(first, ManualClock::start / 1000000 + 300);
    ManualClock::installed().advanceSeconds(1000);
    agent.closeConnection();
    awaitReconnect(2);
    expectService();
    EXPECT_GE(started(), first + 1000);
}

TEST_F(ResponseThreadTest, BypassFalseBlocksOnFailureAndTrueDoesNot) {
    pushAndAwait(R"({"bypass_on_failure":false,"other":1})");
    world.awaitLog("OstComm loadConfigResponseThread bypass_on_failure is false");
    EXPECT_TRUE(testsupport::comesTrue(Configuration::isBOFEnabled));
    pushAndAwait(R"({"bypass_on_failure":true,"other":1})");
    EXPECT_TRUE(testsupport::comesTrue([] { return !Configuration::isBOFEnabled(); }));
}

TEST_F(ResponseThreadTest, ABypassValueWithNoCommaBehindItMeansNoBlockOnFailure) {
    Configuration::setBOF(true);
    pushAndAwait(R"({"bypass_on_failure":false})");
    EXPECT_TRUE(testsupport::comesTrue([] { return !Configuration::isBOFEnabled(); }));
}

TEST_F(ResponseThreadTest, AConfigurationFrameWithoutAnUpdateUrlLeavesTheUpdateStateAlone) {
    pushAndAwait(R"({"bypass_on_failure":true,"other":1})");
    expectService();
    EXPECT_EQ(updating, 0);
    EXPECT_EQ(world.log.countContaining("valueBypassStr"), 0);
    EXPECT_EQ(world.log.countContaining("updateThread entry"), 0);
}

TEST_F(ResponseThreadTest, AnUpdateUrlStartsAnUpdate) {
    auto& session = testsupport::PlayedUrlSession::install();
    pushAndAwait(R"({"update_url":"http://h/p.dmg","other":1})");
    world.awaitLog("OstComm loadConfigResponseThread valueBypassStr is <\"http://h/p.dmg\">");
    world.awaitLog("OstComm loadConfigResponseThread valueBypassStr is now <http://h/p.dmg>");
    EXPECT_EQ(session.await(1).url, "http://h/p.dmg");
    EXPECT_TRUE(world.log.holds("updateThread entry"));
    EXPECT_EQ(updating, 1);
}

TEST_F(ResponseThreadTest, AnUpdateUrlOfNullYieldsTheTwoLettersUlAndAnUpdateIsAttempted) {
    auto& session = testsupport::PlayedUrlSession::install();
    pushAndAwait(R"({"update_url":null,"other":1})");
    world.awaitLog("OstComm loadConfigResponseThread valueBypassStr is now <ul>");
    EXPECT_EQ(session.await(1).url, "ul");
}

TEST_F(ResponseThreadTest, AnEmptyUpdateUrlStartsNothing) {
    pushAndAwait(R"({"update_url":"","other":1})");
    world.awaitLog("OstComm loadConfigResponseThread valueBypassStr is now <>");
    pushAndAwait(R"({"update_url":"http://h/no-comma"})");
    EXPECT_TRUE(testsupport::comesTrue([this] {
        return world.log.countContaining("loadConfigResponseThread valueBypassStr is now <>") == 2;
    }));
    expectService();
    EXPECT_EQ(world.log.countContaining("updateThread entry"), 0);
}

TEST_F(ResponseThreadTest, ASecondConfigurationFrameWhileUpdatingIsSetStartsNoSecondUpdate) {
    updating = 1;
    pushAndAwait(R"({"update_url":"http://h/p.dmg","other":1})");
    world.awaitLog("valueBypassStr is now <http://h/p.dmg>");
    expectService();
    EXPECT_EQ(world.log.countContaining("updateThread entry"), 0);
}

TEST_F(ResponseThreadTest, AConfigurationFrameWithTheNumberOfARequestEndsThatRequestToo) {
    Request request = ask("http://shared/");
    agent.sendBytes(AgentStandIn::frame(5, request.sequence, R"({"bypass_on_failure":false,"x":1})"));
    EXPECT_EQ(request.asker.answer(), R"({"bypass_on_failure":false,"x":1})");
    expectService();
}

TEST_F(ResponseThreadTest, AnAgentThatSpeaksNonsenseAgainAndAgainIsReconnectedEachTime) {
    std::uint32_t state = 99;
    for (int round = 2; round < 12; ++round) {
        std::string bytes = "\x7F";
        for (int i = 0; i < 200; ++i)
            bytes += static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
        agent.sendBytes(bytes);
        awaitReconnect(round);
        expectService();
    }
}

TEST_F(ResponseThreadTest, ALoadOfANumberThatIsNotFiledEndsQuietly) {
    EXPECT_EQ(loadConfigResponseThread(new std::uint32_t(123456)), nullptr);
    EXPECT_TRUE(world.log.holds("OstComm loadConfigResponseThread entry"));
    EXPECT_EQ(world.log.countContaining("loadConfigResponseThread response"), 0);
}
