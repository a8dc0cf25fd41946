// The locks of the link, and what holds while it is built anew.

#include "agent/AgentFrames.h"
#include "agent/OstComm.h"
#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AgentLinkWorld.h"
#include "support/Await.h"
#include "support/HeldLocks.h"
#include "support/ManualClock.h"
#include "support/PlayedInterfaces.h"
#include "support/ProcessDescriptors.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <future>
#include <string>
#include <vector>

using testsupport::AgentStandIn;
using testsupport::firstLockOf;
using testsupport::locksTakenBy;
using testsupport::ManualClock;
using testsupport::StoppedAtLock;

namespace {

using Lines = std::vector<std::string>;

// Has a lock, so that others wait for it.
class HeldUp {
public:
    explicit HeldUp(const GPMutex* mutex) : lock_(const_cast<GPMutex*>(mutex)), watched_(mutex) {}

    bool someoneWaits() const { return watched_.awaitWaiters(1); }

private:
    GPMutexLock lock_;
    testsupport::WatchedLock watched_;
};

// A link that has been used once, so that its reader runs.
class OstCommLocks : public testing::Test {
protected:
    OstCommLocks() : agent(world.startAgent()), link(OstComm::Instance()) {
        interfaces.install();
        interfaces.show(testsupport::EntryBuilder());
        auto answered = std::async(std::launch::async, [this] { return ask("http://first/"); });
        agent.reply(agent.awaitFrame(agentPolicyFrame).sequence, "{}");
        EXPECT_EQ(answered.get(), "{}");
        commandMutex = firstLockOf([this] { link->getConfigurationCommand(); });
        lastNumber = agent.awaitFrame(agentConfigurationFrame).sequence;
    }

    std::string ask(std::string url) {
        const auto reply = Owned<GPString>::adopt(link->getPolicyCommand(url.data(), 7));
        return reply ? reply->cstr() : "(null)";
    }

    bool logOn(std::string name) { return link->setUserLogonCommand(name.data(), nullptr); }

    // The log from a line on.
    Lines linesSince(std::size_t line) const {
        const Lines all = world.log.messages();
        return {all.begin() + static_cast<std::ptrdiff_t>(std::min(line, all.size())), all.end()};
    }

    std::size_t lineCount() const { return world.log.messages().size(); }

    static long sockets() {
        const auto all = testsupport::descriptorsOf(getpid());
        return std::count_if(all.begin(), all.end(),
                             [](const auto& one) { return one.second.rfind("socket:", 0) == 0; });
    }

    testsupport::AgentLinkWorld world;
    testsupport::PlayedInterfaces interfaces;
    AgentStandIn& agent;
    OstComm* link;
    const GPMutex* commandMutex = nullptr;
    std::uint32_t lastNumber = 0;
};

// The same with the link in the middle of a reconnect: closed, with a socket that is not open yet.
class OstCommReconnecting : public OstCommLocks {
protected:
    OstCommReconnecting() {
        const std::size_t asked = world.names.asked().size();
        world.names.neverAnswer("127.0.0.1");
        agent.closeConnection();
        EXPECT_TRUE(testsupport::comesTrue([&] { return world.names.asked().size() > asked; }));
    }

    // Lets the reconnect go on; the logon that ends it.
    AgentStandIn::Frame reconnect() {
        world.names.answerAgain("127.0.0.1");
        return agent.awaitFrame(agentLogonFrame);
    }
};

} // namespace

TEST_F(OstCommLocks, NoFrameGoesOutInTheMiddleOfAnother) {
    ASSERT_TRUE(commandMutex);
    const std::vector<std::pair<std::uint32_t, std::function<void()>>> commands = {
        {agentLogonFrame, [this] { logOn("alice"); }},
        {agentConfigurationFrame, [this] { link->getConfigurationCommand(); }},
        {agentAddressesFrame, [this] { link->sendIpAddressesCommand(); }},
    };
    for (const auto& [type, command] : commands) {
        StoppedAtLock stopped(commandMutex, command);
        EXPECT_TRUE(stopped.waits()) << type;
        stopped.letGo();
        EXPECT_EQ(agent.awaitFrame().type, type);
    }
}

TEST_F(OstCommLocks, APolicyRequestHasItsSlotBeforeItIsSent) {
    StoppedAtLock stopped(commandMutex, [this] { EXPECT_EQ(ask("http://early/"), "{early}"); });
    ASSERT_TRUE(stopped.waits());
    agent.reply(lastNumber + 1, "{early}");
    // A second reply shows that the first has been filed.
    agent.push(R"({"bypass_on_failure":false,"x":1})");
    EXPECT_TRUE(testsupport::comesTrue(Configuration::isBOFEnabled));
    stopped.letGo();
    EXPECT_EQ(agent.awaitFrame(agentPolicyFrame).sequence, lastNumber + 1);
}

TEST_F(OstCommLocks, TheLinkIsNotClosedInTheMiddleOfAFrame) {
    StoppedAtLock stopped(commandMutex, [this] { link->OstCommClose(); });
    EXPECT_TRUE(stopped.waits());
    EXPECT_FALSE(link->isOpened());
    EXPECT_FALSE(world.log.holds("OstComm socket closed"));
    stopped.letGo();
    EXPECT_TRUE(world.log.holds("OstComm socket closed"));
}

TEST_F(OstCommLocks, AFrameThatWaitedWhileTheLinkWasClosedIsNotSent) {
    world.names.neverAnswer("127.0.0.1"); // the reader builds no new link, on which the frame could go out
    StoppedAtLock stopped(commandMutex, [this] { EXPECT_FALSE(logOn("late")); });
    ASSERT_TRUE(stopped.waits());
    auto closing = std::async(std::launch::async, [this] { link->OstCommClose(); });
    EXPECT_TRUE(testsupport::comesTrue([this] { return !link->isOpened(); }));
    stopped.letGo();
    closing.get();
    EXPECT_TRUE(world.log.holds("OstComm setUserLogonCommand socket send failed errno is " +
                                std::to_string(ENOTCONN) + ".\n"));
}

TEST_F(OstCommLocks, TheSocketIsNotReplacedInTheMiddleOfAFrame) {
    const std::size_t asked = world.names.asked().size();
    {
        const HeldUp heldUp(commandMutex);
        agent.closeConnection();
        EXPECT_TRUE(heldUp.someoneWaits());
        EXPECT_EQ(world.names.asked().size(), asked);
    }
    agent.awaitConnections(2);
}

TEST_F(OstCommLocks, TheSocketIsNotOpenedAgainInTheMiddleOfAFrame) {
    ManualClock& clock = ManualClock::installed();
    clock.letSleepsPass(false);
    agent.stopListening();
    agent.closeConnection();
    ASSERT_TRUE(clock.waitForSleepers(1));
    const std::size_t asked = world.names.asked().size();
    const HeldUp heldUp(commandMutex);
    clock.advanceSeconds(1);
    EXPECT_TRUE(heldUp.someoneWaits());
    EXPECT_EQ(world.names.asked().size(), asked);
}

TEST_F(OstCommLocks, TheLinkCountsAsOpenBehindTheLineThatSaysSoNotBefore) {
    makeLogThreadSafe();
    const GPMutex* logLock = locksTakenBy([] { logs("line"); }).back();
    const auto lines = [this] { return world.log.countContaining("OstComm socket opened"); };
    const int before = lines();
    std::vector<bool> opened;
    const testsupport::BeforeRelease written(logLock, [&] {
        if (lines() > before) opened.push_back(link->isOpened());
    });

    link->ReConnect();

    ASSERT_FALSE(opened.empty());
    EXPECT_FALSE(opened.front());
}

TEST_F(OstCommLocks, NoLockIsHeldWhileAnAnswerIsAwaited) {
    auto asked = std::async(std::launch::async, [this] { return ask("http://slow/"); });
    const auto frame = agent.awaitFrame(agentPolicyFrame);
    EXPECT_TRUE(logOn("alice"));
    EXPECT_EQ(OstComm::Instance(), link);
    agent.reply(frame.sequence, "{slow}");
    EXPECT_EQ(asked.get(), "{slow}");
}

TEST_F(OstCommLocks, AQueryTellsItsQuestionAndItsAnswerAtLevelOne) {
    Configuration::setLogLevel(1);
    agent.answerPolicy([](const std::string&) { return std::string("{}"); });
    const std::size_t before = lineCount();
    ask("http://a/");
    EXPECT_EQ(linesSince(before), (Lines{R"([7] OstComm getPolicyCommand sending {"url":"http://a/"})",
                                         "[7] OstComm getPolicyCommand response {}"}));
}

TEST_F(OstCommLocks, AQueryThatCouldNotBeSentTellsOfNoAnswer) {
    Configuration::setLogLevel(1);
    const std::size_t before = lineCount();
    const std::string url(5000, 'u');
    EXPECT_EQ(ask(url), "{BOF}");
    EXPECT_EQ(linesSince(before), (Lines{"[7] OstComm getPolicyCommand sending {\"url\":\"" + url + "\"}",
                                         "[7] OstComm getPolicyCommand socket send failed."}));
}

TEST_F(OstCommLocks, WithAllOtherLogBitsOnCommandsAreNotTold) {
    Configuration::setLogLevel(~1);
    agent.answerPolicy([](const std::string&) { return std::string("{}"); });
    const std::size_t before = lineCount();
    ask("http://a/");
    link->getConfigurationCommand();
    agent.awaitFrame(agentConfigurationFrame);
    agent.push(R"({"bypass_on_failure":false,"update_url":"","x":1})");
    EXPECT_TRUE(testsupport::comesTrue(Configuration::isBOFEnabled));
    ask("http://b/"); // the reader goes on behind that frame
    agent.closeConnection();
    agent.awaitConnections(2);
    agent.awaitFrame(agentLogonFrame);
    ask("http://c/");
    Lines lines = linesSince(before);
    for (std::string& line : lines)
        line = line.substr(0, line.find(" [0x"));
    EXPECT_EQ(lines, (Lines{"OstComm socket opened", "OstComm setUserLogonCommand sending {}",
                            "OstComm setUserLogonCommand send success"}));
}

TEST_F(OstCommReconnecting, TheLinkCountsAsClosedAndEveryCommandFailsAtOnceWithANumberDrawn) {
    EXPECT_FALSE(link->isOpened());
    const std::size_t before = lineCount();
    Configuration::setLogLevel(1);
    EXPECT_EQ(ask("http://a/"), "{BOF}");
    EXPECT_FALSE(logOn(""));
    EXPECT_FALSE(link->getConfigurationCommand());
    EXPECT_FALSE(link->sendIpAddressesCommand());
    EXPECT_EQ(
        linesSince(before),
        (Lines{R"([7] OstComm getPolicyCommand sending {"url":"http://a/"})",
               "[7] OstComm getPolicyCommand no socket.", "OstComm setUserLogonCommand sending {}",
               "OstComm setUserLogonCommand no socket.", "OstComm getConfigurationCommand sending ",
               "OstComm getConfigurationCommand no socket.", "OstComm sendIpAddressesCommand sending {}",
               "OstComm sendIpAddressesCommand no socket."}));
    EXPECT_EQ(reconnect().sequence, lastNumber + 5);
}

TEST_F(OstCommReconnecting, TheDnsRequestGoesToTheSocketWithoutALookAtTheLink) {
    const std::size_t before = lineCount();
    Owned<GPString>::adopt(link->getDNSRedirectsCommand());
    EXPECT_EQ(linesSince(before), Lines{"OstComm socket send failed."});
    EXPECT_EQ(reconnect().sequence, lastNumber + 2);
}

TEST_F(OstCommReconnecting, TheLinkStandsAgainBehindTheLogon) {
    reconnect();
    EXPECT_TRUE(testsupport::comesTrue([this] { return link->isOpened(); }));
    agent.answerPolicy([](const std::string&) { return std::string("{}"); });
    EXPECT_EQ(ask("http://after/"), "{}");
}

TEST_F(OstCommLocks, BetweenTwoTriesOfALogonThereIsNoSocketOpen) {
    ManualClock& clock = ManualClock::installed();
    const std::int64_t slept = clock.sleptMicroseconds();
    clock.letSleepsPass(false);
    const long others = sockets() - 3; // the link's, and the agent's two
    agent.stopListening();
    agent.closeConnection();
    for (int tries = 1; tries <= 3; ++tries) {
        ASSERT_TRUE(
            testsupport::comesTrue([&] { return clock.sleptMicroseconds() - slept == tries * 1000000LL; }));
        // The object before keeps its descriptor.
        EXPECT_EQ(sockets(), others + 1) << tries;
        clock.advanceSeconds(1);
    }
}
