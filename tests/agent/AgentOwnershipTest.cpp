// What the link and the updates make they give back: no operation leaves an object behind but those that are kept on
// purpose.

#include "agent/AgentFrames.h"
#include "agent/ConfigurationFrame.h"
#include "agent/OstComm.h"
#include "agent/ResponseEntry.h"
#include "agent/ResponseTable.h"
#include "agent/UpdatePrompts.h"
#include "agent/Updater.h"
#include "config/Configuration.h"
#include "gp/GPDate.h"
#include "gp/GPSockets.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AgentLinkWorld.h"
#include "support/Await.h"
#include "support/LivingObjects.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/PlayedDialogs.h"
#include "support/PlayedInterfaces.h"
#include "support/PlayedUrlSession.h"
#include "support/ScratchRoot.h"
#include "support/Taken.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <optional>
#include <string>

using testsupport::AgentStandIn;
using testsupport::comesTrue;
using testsupport::livingObjects;
using testsupport::livingObjectsAtRest;
using testsupport::objectsLeftBy;

namespace {

class AgentOwnership : public testing::Test {
protected:
    AgentOwnership() : agent(world.startAgent()), link(OstComm::Instance()) {
        interfaces.install();
        interfaces.show(testsupport::EntryBuilder().ipv4("en0", "192.0.2.1").ipv6("en0", "fe80::1"));
        agent.answerPolicy([](const std::string& body) -> std::optional<std::string> {
            if (body.find("silent") != std::string::npos) return std::nullopt;
            return "{}";
        });
        ask("http://first/");
        agent.awaitFrame(agentPolicyFrame);
    }

    static void ask(std::string url) {
        Owned<GPString>::adopt(OstComm::Instance()->getPolicyCommand(url.data(), 1));
    }

    // Whether all threads together come back to so many objects.
    static bool comesTo(long count) {
        return comesTrue([count] { return livingObjects() == count; });
    }

    void reconnect(int connections) {
        agent.closeConnection();
        agent.awaitConnections(connections);
        agent.awaitFrame(agentLogonFrame);
        ask("http://probe/");
    }

    testsupport::AgentLinkWorld world;
    testsupport::PlayedInterfaces interfaces;
    AgentStandIn& agent;
    OstComm* link;
};

} // namespace

TEST_F(AgentOwnership, NoCommandLeavesAnObject) {
    char name[] = "alice";
    EXPECT_EQ(objectsLeftBy([&] { EXPECT_TRUE(link->setUserLogonCommand(name, nullptr)); }), 0);
    EXPECT_EQ(objectsLeftBy([&] { EXPECT_TRUE(link->setUserLogonCommand(nullptr, nullptr)); }), 0);
    EXPECT_EQ(objectsLeftBy([&] { EXPECT_TRUE(link->getConfigurationCommand()); }), 0);
    EXPECT_EQ(objectsLeftBy([&] { EXPECT_TRUE(link->sendIpAddressesCommand()); }), 0);
    EXPECT_EQ(objectsLeftBy([] { Owned<GPString>::adopt(getIpAddresses()); }), 0);
    EXPECT_EQ(objectsLeftBy([&] { Owned<GPString>::adopt(link->className()); }), 0);
    EXPECT_EQ(objectsLeftBy([] { Owned<GPDate>::adopt(OstComm::responseThreadStarted()); }), 0);
}

// The request reads beside the link's reader, and can leave it waiting: here there is none.
TEST(AgentOwnershipWithoutAReader, NeitherAnAnsweredDnsRequestNorOneWithoutAnAnswerLeavesAnObject) {
    testsupport::AgentLinkWorld world;
    world.holdReaderBack();
    AgentStandIn& agent = world.startAgent();
    OstComm* link = OstComm::Instance();
    agent.awaitFrame(agentLogonFrame);
    EXPECT_EQ(objectsLeftBy([&] {
                  agent.sendBytes(AgentStandIn::frame(2, 900, "{dns}"));
                  EXPECT_EQ(testsupport::taken(link->getDNSRedirectsCommand()), "{dns}");
              }),
              0);
    testsupport::ManualClock::installed().setEventWait(20000, false);
    EXPECT_EQ(objectsLeftBy([&] { EXPECT_EQ(testsupport::taken(link->getDNSRedirectsCommand()), ""); }), 0);
}

TEST_F(AgentOwnership, NeitherAnAnsweredQueryNorOneThatCannotBeSentLeavesAnObject) {
    ask("http://a/");
    const long before = livingObjectsAtRest();
    ask("http://b/");
    EXPECT_TRUE(comesTo(before));
    EXPECT_EQ(objectsLeftBy([] { ask(std::string(5000, 'u')); }), 0);
}

TEST_F(AgentOwnership, AFrameThatNobodyWaitsForIsOneEntryWithItsText) {
    const long before = livingObjectsAtRest();
    agent.reply(0xFFFF0000, "{}");
    EXPECT_TRUE(comesTo(before + 2));
    agent.reply(0xFFFF0000, "{again}");
    ask("http://probe/");
    EXPECT_TRUE(comesTo(before + 2));
}

TEST_F(AgentOwnership, AConfigurationFrameIsGivenBackWhenItWasRead) {
    agent.push(R"({"bypass_on_failure":false,"update_url":"","x":1})");
    EXPECT_TRUE(comesTrue(Configuration::isBOFEnabled));
    ask("http://probe/");
    const long before = livingObjectsAtRest();
    agent.push(R"({"bypass_on_failure":true,"update_url":"","x":1})");
    EXPECT_TRUE(comesTrue([] { return !Configuration::isBOFEnabled(); }));
    EXPECT_TRUE(comesTo(before));
}

TEST_F(AgentOwnership, AReconnectLeavesTheOldSocketAndNothingElse) {
    const testsupport::LoopbackListener listener;
    const auto open = Owned<GPSockets>::adopt(new GPSockets);
    open->setPort(listener.port());
    open->setServer(OstComm::agentHost);
    const long closed = livingObjectsAtRest();
    EXPECT_TRUE(open->openConnection());
    const long socket = 1 + livingObjectsAtRest() - closed;
    reconnect(2);
    const long before = livingObjectsAtRest();
    reconnect(3);
    EXPECT_TRUE(comesTo(before + socket));
}

TEST_F(AgentOwnership, AnUpdateBesideARunningReaderLeavesNoObject) {
    testsupport::PlayedUrlSession::install().endAll({"/tmp/fetched", 200, {}});
    static testsupport::PlayedFileManager files;
    files.install();
    testsupport::PlayedDialogs::install().answerAll(platform::notificationDefaultResponse);
    EXPECT_EQ(objectsLeftBy([] { updateThread(new THREADPARAMETERS("http://host/OstlerUpdate.dmg")); }), 0);
}

TEST(LinkOwnership, AnObjectOfTheLinkGivesItsTextsBackWhicheverWayItWasToldTheHost) {
    const testsupport::AgentLinkWorld world;
    world.names.forget("127.0.0.1", AF_INET); // the socket that cannot be opened is all that stays
    const auto left = [](auto host) {
        return objectsLeftBy([host] { Owned<OstComm>::adopt(new OstComm(host)); });
    };
    const auto host = Owned<GPString>::adopt(new GPString(OstComm::agentHost));
    EXPECT_EQ(left(host.get()), 1);
    EXPECT_EQ(left(static_cast<const char*>(OstComm::agentHost)), 1);
    EXPECT_EQ(host->retainonly(), 2);
    host->releaseonly();
}

TEST(ResponseTableOwnership, EntriesGoWithTheirTexts) {
    ResponseTable table;
    const auto deliver = [&table] { table.deliver(1, "{}", 2); };
    EXPECT_EQ(objectsLeftBy([&] {
                  ResponseEntry* entry = table.open(1);
                  deliver();
                  Owned<GPString>::adopt(table.wait(entry));
                  table.close(entry);
              }),
              0);
    EXPECT_EQ(objectsLeftBy([&] {
                  ResponseEntry* entry = table.open(1);
                  table.remove(1);
                  table.close(entry);
              }),
              0);
    EXPECT_EQ(objectsLeftBy([&] {
                  deliver();
                  deliver();
                  GPString* text = nullptr;
                  EXPECT_TRUE(table.take(1, text));
                  text->release();
              }),
              0);
    EXPECT_EQ(objectsLeftBy([&] {
                  ResponseEntry* entry = table.open(1);
                  table.wakeHead();
                  Owned<GPString>::adopt(table.wait(entry));
                  table.close(entry);
              }),
              0);
}

TEST(ResponseTableOwnership, ATableTakesItsEntriesWithIt) {
    EXPECT_EQ(objectsLeftBy([] {
                  ResponseTable table;
                  table.deliver(1, "{}", 2);
                  table.deliver(2, "{}", 2);
                  table.close(table.open(3));
              }),
              0);
}

TEST(ConfigurationFrameOwnership, OnlyAFoundValueIsTheCallers) {
    for (const char* body : {R"({"bypass_on_failure":true,"update_url":"x",)",
                             R"({"bypass_on_failure":true})", R"("bypass_on_failure":true,)", "{}"}) {
        EXPECT_EQ(objectsLeftBy([body] {
                      GPString* value = nullptr;
                      if (readBypassOnFailure(body, value)) value->release();
                      value = nullptr;
                      if (readUpdateUrl(body, value)) value->release();
                  }),
                  0)
            << body;
    }
}

TEST(UpdaterOwnership, NoOperationLeavesAnObject) {
    const testsupport::ScratchRoot root;
    const auto with = [](const char* text, auto operation) {
        return objectsLeftBy([&] { operation(Owned<GPString>::adopt(new GPString(text)).get()); });
    };
    for (const char* name : {"agent-mac-1.5.2", "agent-win-1.5.2", "agent", "agent-mac"})
        EXPECT_EQ(with(name, Updater::isValidUpdate), 0) << name;
    EXPECT_EQ(with("1.2.3", [](GPString* text) { EXPECT_EQ(Updater::versionCompare(text, text), 0); }), 0);
    for (const char* url : {"nothing", "http://nobody.example/pkg.zip"})
        EXPECT_EQ(with(url, Updater::processZip), 0) << url;
    for (const char* path : {"/usr/local/bin/fernhill", "fernhill", "/fernhill"})
        EXPECT_EQ(objectsLeftBy([path] { Updater::setPath(path); }), 0) << path;
    Updater::setPath((root.path() + "/fernhill").c_str());
    EXPECT_EQ(objectsLeftBy([] { Updater::finishUpdate("fernhill"); }), 0);
    EXPECT_EQ(objectsLeftBy([] { Updater::encodedVersionString(); }), 0);
}
