// What the daemon does when another user comes to the console, apart from the watch that tells it.

#include "agent/OstComm.h"
#include "app/Daemon.h"
#include "config/Configuration.h"
#include "support/AgentLinkWorld.h"
#include "support/PlayedConsoleUser.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

class LoginChanged : public testing::Test {
protected:
    LoginChanged() { console.install(); }

    testsupport::AgentLinkWorld world;
    testsupport::PlayedConsoleUser& console = *new testsupport::PlayedConsoleUser;
};

} // namespace

TEST_F(LoginChanged, WithNobodyAtTheConsoleChangesNothing) {
    loginChanged("alice");
    EXPECT_EQ(world.log.messages(), std::vector<std::string>{"login changed"});
    EXPECT_EQ(Configuration::localUserName(), nullptr);
    EXPECT_EQ(Configuration::cachedUserName(), nullptr);
    EXPECT_FALSE(std::filesystem::exists(world.root.configurationFile()));
}

TEST_F(LoginChanged, TakesTheNameFromTheConsoleAndNotFromItsArgument) {
    testsupport::AgentStandIn& agent = world.startAgent();
    console.seat("bob");
    loginChanged("alice");
    EXPECT_STREQ(Configuration::localUserName(), "bob");
    EXPECT_STREQ(Configuration::cachedUserName(), "bob");
    EXPECT_NE(agent.awaitFrame().body.find(R"("username":"bob")"), std::string::npos);
    world.awaitLog("setUserLogonThread Configuration::cachedUserName() <bob>");
}

TEST_F(LoginChanged, WithoutACachedNameTheLogonReportIsEmpty) {
    testsupport::AgentStandIn& agent = world.startAgent();
    EXPECT_EQ(setUserLogonThread(nullptr), nullptr);
    EXPECT_TRUE(world.log.holds("setUserLogonThread Configuration::cachedUserName() <(null)>"));
    EXPECT_EQ(agent.awaitFrame().body, "{}");
    EXPECT_EQ(agent.awaitFrame().body, "{}");
}
