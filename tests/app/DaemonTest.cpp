// The daemon from its start to its end, as a whole.

#include "app/DaemonWorld.h"
#include "platform/HostPaths.h"
#include "support/Patience.h"
#include "support/ShippedProgram.h"

#include <algorithm>
#include <cstdint>

using testsupport::AgentStandIn;
using testsupport::DaemonProcess;

namespace {

// The file after a first start with that user at the console.
std::string fileOf(const std::string& user) {
    const std::string names =
        user.empty()
            ? ""
            : "<CachedUserName>" + user + "</CachedUserName>\n<LocalUserName>" + user + "</LocalUserName>\n";
    return "<Fernhill>\n"
           "<ServerName>localhost</ServerName>\n"
           "<BlockOnFailure>false</BlockOnFailure>\n"
           "<BalancedMode>false</BalancedMode>\n"
           "<VerboseLogging>false</VerboseLogging>\n"
           "<OEMMode>false</OEMMode>\n"
           "<FilteringDisabled>false</FilteringDisabled>\n"
           "<InternalNetwork>false</InternalNetwork>\n"
           "<Ostler>true</Ostler>\n"
           "<UpdateReady>false</UpdateReady>\n" +
           names +
           "<LogLevel>0</LogLevel>\n"
           "<kll>0</kll>\n"
           "<Users>\n"
           "</Users>\n"
           "<Servers>\n"
           "<ServerName ServerType=\"1\">localhost</ServerName>\n"
           "</Servers>\n"
           "</Fernhill>\n";
}

// The whole frame that reports a logon. `user` is as it stands in JSON.
std::string logonFrame(std::uint32_t sequence, const std::string& user) {
    return AgentStandIn::frame(3, sequence,
                               R"({"version":"1.5.2","email":"","upn":"","username":")" + user +
                                   R"(","udid":")" + DaemonProcess::uuid + R"("})");
}

class DaemonTest : public DaemonWorld {
protected:
    std::string nextFrame() { return agent->awaitFrame().bytes; }
};

} // namespace

TEST_F(DaemonTest, TheLogHoldsTheStartLinesInOrder) {
    startDaemon();
    EXPECT_TRUE(daemon->awaitLog("send success"));
    EXPECT_EQ(daemon->mainLog(), (std::vector<std::string>{
                                     "======================================", "Ostler Interceptor",
                                     "======================================", "Ostler Interceptor Started",
                                     "version: 1.5.2  (internal library version: 6.1.0)",
                                     "Enable Ostler set to: true", "Starting OSX System Interface: INPUT"}));
}

TEST_F(DaemonTest, TheStartStepsComeInTheirOrder) {
    givenConfiguration("<Fernhill><FilteringDisabled>true</FilteringDisabled></Fernhill>");
    const std::string debugFile = platform::HostPaths::debugFile();
    const std::string preferences = platform::HostPaths::siblingPreferences();
    testsupport::writeAll(debugFile, "<Debug><VerboseLogging>true</VerboseLogging></Debug>");
    testsupport::writeAll(preferences, "<plist><dict></dict></plist>");
    startDaemon();
    EXPECT_TRUE(daemon->awaitLog("FernhillKernel Version"));

    const std::vector<std::string> log = daemon->mainLog();
    auto at = log.begin();
    for (const std::string& step :
         {std::string("Ostler Interceptor Started"),
          "processing config file: " + testsupport::shownPath(preferences),
          std::string("Debug file detected."), std::string("verbose mode is updated to: true"),
          std::string("Enable Ostler set to: true"), std::string("FILTERING IS DISABLED"),
          std::string("Loaded FernhillKext module."), std::string("Built with FernhillKernel version 0.0.1"),
          std::string("Starting OSX System Interface: INPUT"),
          std::string("FernhillKernel Version: 8 (result=0)")}) {
        at = std::find(at, log.end(), step);
        ASSERT_NE(at, log.end()) << step << " is missing or out of order in\n" << testing::PrintToString(log);
    }
    EXPECT_LT(log.size(), 40u);
}

TEST_F(DaemonTest, TheConfigurationFileAfterAFirstStartIsFixedToTheByte) {
    startDaemon();
    EXPECT_TRUE(awaitConfiguration(fileOf("alice"))) << configuration();
}

TEST_F(DaemonTest, TheConfigurationFileNamesNobodyWithoutAConsoleUser) {
    startDaemon("");
    EXPECT_TRUE(awaitConfiguration(fileOf(""))) << configuration();
}

TEST_F(DaemonTest, AnEarlierFileKeepsItsSettingsButTheServersAndTheAgentsSwitch) {
    std::string before = fileOf("zoe");
    const auto replace = [&](const std::string& from, const std::string& to) {
        before.replace(before.find(from), from.size(), to);
    };
    replace("<ServerName>localhost", "<MachineUUID>M-1</MachineUUID>\n<ServerName>two.example.org");
    replace("<BlockOnFailure>false", "<BlockOnFailure>true");
    replace("<Ostler>true", "<Ostler>false");
    replace("<kll>0", "<kll>3");
    replace("<ServerName ServerType=\"1\">localhost</ServerName>",
            "<ServerName ServerType=\"1\">one.example.org</ServerName>\n"
            "<ServerName ServerType=\"2\">two.example.org</ServerName>");
    givenConfiguration(before);
    startDaemon();

    std::string after = fileOf("alice");
    after.replace(after.find("<ServerName>"), 0, "<MachineUUID>M-1</MachineUUID>\n");
    after.replace(after.find("<BlockOnFailure>false"), 21, "<BlockOnFailure>true");
    after.replace(after.find("<kll>0"), 6, "<kll>3");
    EXPECT_TRUE(awaitConfiguration(after)) << configuration();
}

TEST_F(DaemonTest, TheAgentGetsTheLogonFrameTwiceAtStart) {
    startDaemon();
    const std::string first = nextFrame();
    EXPECT_EQ(first, logonFrame(1, "alice"));
    EXPECT_EQ(first.substr(0, 12), std::string("\0\0\0\x74\0\0\0\x03\0\0\0\x01", 12));
    EXPECT_EQ(nextFrame(), logonFrame(2, "alice"));
    EXPECT_TRUE(daemon->awaitLog("setUserLogonThread Configuration::cachedUserName() <alice>"));
}

TEST_F(DaemonTest, ADomainInFrontOfTheNameGoesOutWithIt) {
    startDaemon("CORP\\alice");
    EXPECT_EQ(nextFrame(), logonFrame(1, "CORP\\\\alice"));
    EXPECT_TRUE(awaitConfiguration(fileOf("CORP\\alice"))) << configuration();
}

TEST_F(DaemonTest, TheQualifiedNameOfTheDirectoryStaysInside) {
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", "AuthenticationAuthority: ;NetLogon;CORP\n");
    startDaemon();
    EXPECT_EQ(nextFrame(), logonFrame(1, "alice"));
    EXPECT_TRUE(awaitConfiguration(fileOf("alice"))) << configuration();
    const std::vector<std::string> calls = tools.calls();
    EXPECT_EQ(
        std::count(calls.begin(), calls.end(), "dscl /Search -read /Users/alice AuthenticationAuthority"), 1);
}

TEST_F(DaemonTest, AChangeOfConsoleUserSendsAnotherFrameAndIsStored) {
    startDaemon();
    EXPECT_EQ(nextFrame(), logonFrame(1, "alice"));
    EXPECT_EQ(nextFrame(), logonFrame(2, "alice"));
    daemon->changeConsoleUser("bob");
    EXPECT_EQ(nextFrame(), logonFrame(3, "bob"));
    EXPECT_TRUE(awaitConfiguration(fileOf("bob"))) << configuration();
}

TEST_F(DaemonTest, NobodyAndThenTheSameUserSendNothing) {
    startDaemon();
    nextFrame();
    nextFrame();
    daemon->changeConsoleUser("");
    daemon->changeConsoleUser("alice");
    daemon->changeConsoleUser("carol");
    EXPECT_EQ(nextFrame(), logonFrame(3, "carol"));
}

TEST_F(DaemonTest, WithNobodyAtTheConsoleTheLinkIsMadeByTheFirstLogin) {
    startDaemon("");
    EXPECT_TRUE(answers(lab::Direction::in));
    EXPECT_FALSE(daemon->logs("OstComm"));
    EXPECT_FALSE(daemon->logs("login changed"));
    daemon->changeConsoleUser("alice");
    EXPECT_EQ(nextFrame(), logonFrame(1, "alice"));
}

TEST_F(DaemonTest, BothDirectionsAreAnsweredWhileTheAgentIsAbsent) {
    prepare(8, false).start();
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    EXPECT_TRUE(answers(lab::Direction::in));
    EXPECT_TRUE(answers(lab::Direction::out));
    EXPECT_TRUE(daemon->awaitLog("OstComm setUserLogonCommand socket send failed"));
}

TEST_F(DaemonTest, TheWatchOfTheConsoleIsNamedAfterTheProgram) {
    if (!testsupport::macProgram().empty()) GTEST_SKIP() << "that program's watch is the system's own";
    startDaemon();
    agent->awaitFrame(3);
    EXPECT_EQ(daemon->sessionName(), "com.tarnwicksystems.fernhill" + std::to_string(daemon->process()));
}
