// What the daemon does when another user comes to the console, apart from the watch that tells it.

#include "agent/OstComm.h"
#include "app/Daemon.h"
#include "config/Configuration.h"
#include "support/AgentLinkWorld.h"
#include "support/Await.h"
#include "support/LivingObjects.h"
#include "support/PlayedConsoleUser.h"
#include "support/ThreadStarts.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

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

TEST_F(LoginChanged, StoresTheLocalNameThenTheCachedOneAndLeavesNoObject) {
    world.startAgent();
    world.holdReaderBack(); // which keeps the moment of its start
    OstComm::Instance();
    console.seat("bob");
    Configuration::setVerboseMode(true);
    const std::size_t before = world.log.messages().size();
    testsupport::playThreadStarts(testsupport::startNothing);
    const long left = testsupport::objectsLeftBy([] { loginChanged(nullptr); });
    testsupport::playThreadStarts(nullptr);
    const auto lines = world.log.messages();
    const std::vector<std::string> own(lines.begin() + static_cast<std::ptrdiff_t>(before), lines.end());
    ASSERT_GE(own.size(), 3u);
    EXPECT_EQ(own[0], "login changed");
    EXPECT_EQ(own[1], "setting localuser: bob");
    EXPECT_EQ(own[2], "setting cacheduser: bob");
    EXPECT_EQ(left, 2) << "the texts of the two names that were replaced";
}

TEST_F(LoginChanged, TheLogonReportsTheNameOfTheMomentAtWhichTheLinkStands) {
    world.names.neverAnswer("127.0.0.1");
    testsupport::AgentStandIn& agent = world.startAgent();
    Configuration::setCachedUserName("alice");
    std::thread report(setUserLogonThread, nullptr);
    world.awaitLog("setUserLogonThread Configuration::cachedUserName() <alice>");
    EXPECT_TRUE(testsupport::comesTrue([this] { return !world.names.asked().empty(); }));
    Configuration::setCachedUserName("bob");
    world.names.answerAgain("127.0.0.1");
    report.join();
    for (int frame = 0; frame < 2; ++frame)
        EXPECT_NE(agent.awaitFrame().body.find(R"("username":"bob")"), std::string::npos) << frame;
}
