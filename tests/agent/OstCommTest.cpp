#include "agent/OstComm.h"

#include "agent/AgentLink.h"
#include "agent/UpdatePrompts.h"
#include "config/Configuration.h"
#include "gp/GPDate.h"
#include "gp/GPSockets.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/ByteOrder.h"
#include "support/AgentLinkWorld.h"
#include "support/HeldLocks.h"
#include "support/ManualClock.h"
#include "support/ProgramSymbols.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

using testsupport::AgentStandIn;
using testsupport::ManualClock;

namespace {

class OstCommTest : public testing::Test {
protected:
    // The link to a started agent whose first logon frame has been taken off.
    OstComm& connected() {
        AgentStandIn& agent = world.startAgent();
        OstComm* link = OstComm::Instance();
        firstLogon = agent.awaitFrame();
        return *link;
    }

    // The same with the reader thread held back, as it is while another reader still has the socket.
    OstComm& connectedWithoutReader() {
        world.holdReaderBack();
        return connected();
    }

    AgentStandIn& agent() { return world.agent(); }

    static std::string owned(GPString* text) {
        const auto holder = Owned<GPString>::adopt(text);
        return holder ? holder->cstr() : "(null)";
    }

    static std::string ask(std::string url, int number = 1) {
        return owned(OstComm::Instance()->getPolicyCommand(url.data(), number));
    }

    static bool logOn(std::string name) {
        return OstComm::Instance()->setUserLogonCommand(name.data(), nullptr);
    }

    testsupport::AgentLinkWorld world;
    AgentStandIn::Frame firstLogon;
};

class PlayedDialog final : public platform::UserDialog {
public:
    platform::UserNotification* create(double, unsigned long,
                                       const platform::NotificationDictionary&) override {
        return nullptr;
    }
    bool receiveResponse(platform::UserNotification*, unsigned long&) override { return false; }
    void cancel(platform::UserNotification* notification) override { cancelled.push_back(notification); }
    void release(platform::UserNotification*) override {}

    std::vector<platform::UserNotification*> cancelled;
};

} // namespace

TEST_F(OstCommTest, WithNoCachedUserNameTheFirstLogonBodyIsEmptyBraces) {
    connected();
    EXPECT_EQ(firstLogon.bytes, std::string("\0\0\0\x0E\0\0\0\x03\0\0\0\x01{}", 14));
    EXPECT_TRUE(world.log.holds("OstComm setUserLogonCommand sending {}"));
    EXPECT_TRUE(world.log.holds("OstComm setUserLogonCommand send success"));
    EXPECT_EQ(world.log.countContaining("OstComm socket opened [0x"), 1);
}

TEST_F(OstCommTest, TheCachedUserNameGoesOutWithVersionAndHardwareUuid) {
    Configuration::setCachedUserName("alice");
    connected();
    const std::string body = R"({"version":"1.5.2","email":"","upn":"","username":"alice",)"
                             R"("udid":"11111111-2222-3333-4444-555555555555"})";
    EXPECT_EQ(body.size(), 104u);
    EXPECT_EQ(firstLogon.bytes, std::string("\0\0\0\x74\0\0\0\x03\0\0\0\x01", 12) + body);
}

TEST_F(OstCommTest, TheSocketGoesToPort3456OfTheLoopbackAddressAndWaitsFiveSeconds) {
    connected();
    const GPSockets* socket = agentLink.socket();
    EXPECT_EQ(socket->port(), 3456);
    EXPECT_STREQ(socket->server(), "127.0.0.1");
    EXPECT_EQ(socket->timeout(), 5);
}

TEST_F(OstCommTest, TheAgentsAddressIsThatOfTheNewestConnection) {
    const auto known = [] {
        return *reinterpret_cast<GPString**>(testsupport::programVariable("hostIPAddress"));
    };
    EXPECT_EQ(known(), nullptr);
    connected();
    EXPECT_STREQ(known()->cstr(), "127.0.0.1");
}

TEST_F(OstCommTest, ThereIsOneInstanceAndItsClassNameIsOstComm) {
    OstComm& link = connected();
    EXPECT_EQ(&link, OstComm::Instance());
    EXPECT_STREQ(link.cclassName(), "GPObject");
    EXPECT_EQ(owned(link.className()), "OstComm");
    EXPECT_TRUE(link.isOpened());
}

TEST_F(OstCommTest, TheFieldsOfTheInstanceArePlatformAndVersion) {
    OstComm& link = connected();
    ASSERT_EQ(sizeof link, sizeof(GPObject) + 2 * sizeof(GPString*));
    auto* const* fields = reinterpret_cast<GPString**>(reinterpret_cast<char*>(&link) + sizeof(GPObject));
    EXPECT_STREQ(fields[0]->cstr(), "Mac_x64");
    EXPECT_STREQ(fields[1]->cstr(), "1.5.2");
}

TEST_F(OstCommTest, TheFirstLogonGoesOutTwiceWhenALogonReportMakesTheInstance) {
    AgentStandIn& standIn = world.startAgent();
    Configuration::setCachedUserName("alice");
    EXPECT_TRUE(logOn("alice"));
    const auto first = standIn.awaitFrame();
    const auto second = standIn.awaitFrame();
    EXPECT_EQ(first.body, second.body);
    EXPECT_EQ(first.sequence + 1, second.sequence);
}

TEST_F(OstCommTest, AnEmptyUserNameSendsEmptyBracesWhichIsNoError) {
    connected();
    EXPECT_TRUE(logOn(""));
    EXPECT_EQ(agent().awaitFrame().body, "{}");
    EXPECT_TRUE(OstComm::Instance()->setUserLogonCommand(nullptr, nullptr));
    EXPECT_EQ(agent().awaitFrame().body, "{}");
}

TEST_F(OstCommTest, EachBackslashOfAUserNameGoesOutTwice) {
    connected();
    logOn(R"(CORP\alice)");
    EXPECT_NE(agent().awaitFrame().body.find(R"("username":"CORP\\alice")"), std::string::npos);
    logOn(R"(A\B\C"d)");
    EXPECT_NE(agent().awaitFrame().body.find(R"("username":"A\\B\\C"d")"), std::string::npos);
}

TEST_F(OstCommTest, AUserNameTooLongForAFrameGoesOutAsNone) {
    connected();
    EXPECT_TRUE(logOn(std::string(403, 'n')));
    EXPECT_EQ(agent().awaitFrame().body, "{}");
    EXPECT_TRUE(logOn(std::string(401, 'n')));
    EXPECT_EQ(agent().awaitFrame().bytes.size(), 512u);
}

TEST_F(OstCommTest, APolicyRequestIsOneFrameAndTheReplysBodyItsAnswer) {
    connected();
    Configuration::setLogLevel(1);
    auto asked = std::async(std::launch::async, [] { return ask("http://example.org/", 42); });
    const auto frame = agent().awaitFrame();
    EXPECT_EQ(frame.type, 1u);
    EXPECT_EQ(frame.body, R"({"url":"http://example.org/"})");
    EXPECT_EQ(platform::readBig32(frame.bytes.data()), frame.bytes.size());
    EXPECT_GT(frame.sequence, firstLogon.sequence);
    agent().reply(frame.sequence, R"({"redirect":"http://b/"})");
    EXPECT_EQ(asked.get(), R"({"redirect":"http://b/"})");
    EXPECT_TRUE(world.log.holds(R"([42] OstComm getPolicyCommand sending {"url":"http://example.org/"})"));
    EXPECT_TRUE(world.log.holds(R"([42] OstComm getPolicyCommand response {"redirect":"http://b/"})"));
}

TEST_F(OstCommTest, RequestsAreMultiplexedByTheirNumbers) {
    connected();
    auto slow = std::async(std::launch::async, [] { return ask("http://slow/"); });
    const auto slowFrame = agent().awaitFrame();
    auto quick = std::async(std::launch::async, [] { return ask("http://quick/"); });
    const auto quickFrame = agent().awaitFrame();
    agent().reply(quickFrame.sequence, "{quick}");
    EXPECT_EQ(quick.get(), "{quick}");
    agent().reply(slowFrame.sequence, "{slow}");
    EXPECT_EQ(slow.get(), "{slow}");
}

TEST_F(OstCommTest, ManyThreadsShareTheSocketAndTheAgentSeesWholeFramesOnly) {
    connected();
    constexpr int reporters = 8;
    constexpr int reports = 8; // few enough for the send buffer, since a full one fails a send
    std::vector<std::thread> threads;
    for (int i = 0; i < reporters; ++i) {
        threads.emplace_back([i] {
            for (int report = 0; report < reports; ++report)
                EXPECT_TRUE(logOn(std::string(static_cast<std::size_t>(1 + i * 40), 'n')));
        });
    }
    for (int frame = 0; frame < reporters * reports; ++frame) {
        const auto received = agent().awaitFrame();
        ASSERT_EQ(received.type, 3u);
        ASSERT_EQ(received.body.rfind("{\"version\":\"1.5.2\"", 0), 0u);
        ASSERT_EQ(received.body.substr(received.body.size() - 3), "5\"}");
    }
    for (auto& thread : threads)
        thread.join();
}

TEST_F(OstCommTest, AUrlThatFillsTheBufferGoesOutAndALongerOneIsAFailedSend) {
    connected();
    agent().answerPolicy([](const std::string&) { return std::string("{}"); });
    const std::size_t longest = 4996 - std::string(R"({"url":""})").size();
    EXPECT_EQ(ask(std::string(longest, 'u')), "{}");
    EXPECT_EQ(agent().awaitFrame().bytes.size(), 5008u);
    EXPECT_EQ(ask(std::string(longest + 1, 'u'), 7), "{BOF}");
    EXPECT_TRUE(world.log.holds("[7] OstComm getPolicyCommand socket send failed."));
    EXPECT_EQ(ask("http://after/"), "{}");
}

TEST_F(OstCommTest, OnAClosedLinkEveryCommandFailsAtOnce) {
    OstComm& link = connectedWithoutReader();
    link.OstCommClose();
    EXPECT_FALSE(link.isOpened());
    EXPECT_EQ(ask("http://a/", 3), "{BOF}");
    EXPECT_TRUE(world.log.holds("[3] OstComm getPolicyCommand no socket."));
    EXPECT_FALSE(logOn("alice"));
    EXPECT_TRUE(world.log.holds("OstComm setUserLogonCommand no socket."));
    EXPECT_FALSE(link.getConfigurationCommand());
    EXPECT_TRUE(world.log.holds("OstComm getConfigurationCommand no socket."));
}

TEST_F(OstCommTest, CloseEndsTheConnectionAndMarksTheLinkAsClosed) {
    OstComm& link = connectedWithoutReader();
    link.OstCommClose();
    EXPECT_TRUE(world.log.holds("OstComm socket closed"));
    EXPECT_FALSE(link.isOpened());
    agent().awaitDisconnect();
}

TEST_F(OstCommTest, ASendThatFailsAnswersAtOnceAndLeavesNoEntryBehind) {
    OstComm& link = connectedWithoutReader();
    agentLink.closeSocket();
    EXPECT_EQ(ask("http://a/", 5), "{BOF}");
    EXPECT_TRUE(world.log.holds("[5] OstComm getPolicyCommand socket send failed."));
    EXPECT_EQ(agentLink.responses().count(), 0);
    EXPECT_FALSE(logOn("alice"));
    EXPECT_EQ(world.log.countContaining("OstComm setUserLogonCommand socket send failed errno is "), 1);
    EXPECT_FALSE(link.getConfigurationCommand());
    EXPECT_TRUE(world.log.holds("OstComm getConfigurationCommand socket send failed."));
}

TEST_F(OstCommTest, AHostThatDoesNotResolveLeavesTheLinkClosedForGood) {
    world.names.forget("127.0.0.1", AF_INET);
    EXPECT_FALSE(OstComm::Instance()->isOpened());
    EXPECT_TRUE(world.log.holds("WARNING: Socket open error in OstComm."));
    world.names.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
    EXPECT_EQ(ask("http://a/"), "{BOF}");
    EXPECT_EQ(Owned<GPDate>::adopt(OstComm::responseThreadStarted()).get(), nullptr);
}

TEST_F(OstCommTest, WithNoAgentTheFirstCallerConnectsAndTheOthersWaitUntilItIsThere) {
    ManualClock::installed().letSleepsPass(false);
    auto first = std::async(std::launch::async, [] { return ask("http://first/"); });
    world.awaitLog("OstComm setUserLogonCommand socket send failed errno is ");
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    auto second = std::async(std::launch::async, [] { return ask("http://second/"); });
    AgentStandIn& standIn = world.startAgent();
    standIn.answerPolicy([](const std::string&) { return std::string("{}"); });
    ManualClock::installed().advanceSeconds(1);
    EXPECT_EQ(first.get(), "{}");
    EXPECT_EQ(second.get(), "{}");
    EXPECT_EQ(standIn.awaitFrame().type, 3u);
    EXPECT_EQ(world.log.countContaining("send failed errno is "), 1);
}

TEST_F(OstCommTest, AnAgentThatIsAbsentAtTheStartIsTriedOnceASecond) {
    ManualClock::installed().letSleepsPass(false);
    auto first = std::async(std::launch::async, [] { return OstComm::Instance()->isOpened(); });
    for (int attempt = 1; attempt <= 4; ++attempt) {
        ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
        EXPECT_EQ(world.log.countContaining("socket send failed errno is "), attempt);
        if (attempt == 4) world.startAgent();
        ManualClock::installed().advanceSeconds(1);
        while (attempt < 4 && world.log.countContaining("socket send failed errno is ") == attempt)
            std::this_thread::yield();
    }
    EXPECT_TRUE(first.get());
}

TEST_F(OstCommTest, AConfigurationRequestIsAFrameOfTwelveBytesAndDoesNotWait) {
    OstComm& link = connected();
    Configuration::setLogLevel(1);
    EXPECT_TRUE(link.getConfigurationCommand());
    const auto frame = agent().awaitFrame();
    EXPECT_EQ(frame.bytes, std::string("\0\0\0\x0C\0\0\0\x05\0\0\0\x02", 12));
    EXPECT_TRUE(world.log.holds("OstComm getConfigurationCommand sending "));
}

TEST_F(OstCommTest, ADnsRequestTakesWhatFollowsTheFirstTwelveBytesOfTheAnswer) {
    OstComm& link = connectedWithoutReader();
    Configuration::setLogLevel(1);
    agent().sendBytes(AgentStandIn::frame(2, 900, "{\"dns\":1}"));
    EXPECT_EQ(owned(link.getDNSRedirectsCommand()), "{\"dns\":1}");
    EXPECT_EQ(agent().awaitFrame().bytes, std::string("\0\0\0\x0C\0\0\0\x02\0\0\0\x02", 12));
    EXPECT_TRUE(world.log.holds("OstComm getDNSRedirectsCommand response {\"dns\":1}"));
}

TEST_F(OstCommTest, WithAllOtherLogBitsOnTheAnswerToADnsRequestIsNotTold) {
    OstComm& link = connectedWithoutReader();
    Configuration::setLogLevel(~1);
    agent().sendBytes(AgentStandIn::frame(2, 900, "{dns}"));
    EXPECT_EQ(owned(link.getDNSRedirectsCommand()), "{dns}");
    EXPECT_EQ(world.log.countContaining("getDNSRedirectsCommand"), 0);
}

TEST_F(OstCommTest, TheDnsRequestTakesNoLock) {
    OstComm& link = connectedWithoutReader();
    agent().sendBytes(AgentStandIn::frame(2, 900, "{dns}"));
    const auto locks =
        testsupport::locksTakenBy([&] { EXPECT_EQ(owned(link.getDNSRedirectsCommand()), "{dns}"); });
    EXPECT_TRUE(locks.empty());
}

TEST_F(OstCommTest, ADnsAnswerOfTwelveBytesOrFewerIsEmpty) {
    OstComm& link = connectedWithoutReader();
    agent().sendBytes("short");
    EXPECT_EQ(owned(link.getDNSRedirectsCommand()), "");
    agent().sendBytes(AgentStandIn::frame(2, 900, ""));
    EXPECT_EQ(owned(link.getDNSRedirectsCommand()), "");
    EXPECT_FALSE(world.log.holds("OstComm socket read failed."));
}

TEST_F(OstCommTest, WithoutAnAnswerTheDnsRequestGivesAnEmptyText) {
    OstComm& link = connectedWithoutReader();
    ManualClock::installed().setEventWait(20000, false);
    EXPECT_EQ(owned(link.getDNSRedirectsCommand()), "");
    EXPECT_TRUE(world.log.holds("OstComm socket read failed."));
}

TEST_F(OstCommTest, TheDnsRequestOnASocketThatNeverOpenedGivesAnEmptyText) {
    world.names.forget("127.0.0.1", AF_INET);
    EXPECT_EQ(owned(OstComm::Instance()->getDNSRedirectsCommand()), "");
    EXPECT_TRUE(world.log.holds("OstComm socket send failed."));
}

TEST_F(OstCommTest, ClearPopupsStopsTheUpdateAndCancelsBothDialogs) {
    static PlayedDialog dialogs;
    platform::userDialogService.install(dialogs);
    OstComm& link = connected();
    updating = 1;
    link.clearPopups();
    EXPECT_EQ(updating, 0);
    EXPECT_TRUE(dialogs.cancelled.empty());
    char first = 0;
    char second = 0;
    auto* prompt = reinterpret_cast<platform::UserNotification*>(&first);
    auto* countdown = reinterpret_cast<platform::UserNotification*>(&second);
    notifyUpdatePopUp = prompt;
    notifyUpdatingPopUp = countdown;
    link.clearPopups();
    EXPECT_EQ(dialogs.cancelled, (std::vector<platform::UserNotification*>{prompt, countdown}));
    EXPECT_TRUE(world.log.holds("clearPopups entry"));
}
