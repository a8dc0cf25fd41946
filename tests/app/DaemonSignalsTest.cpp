// The signals of the daemon.

#include "app/Daemon.h"
#include "app/DaemonWorld.h"
#include "platform/HostPaths.h"
#include "support/Patience.h"
#include "support/ShippedProgram.h"

#include <algorithm>
#include <csignal>
#include <fstream>

namespace {

class DaemonSignals : public DaemonWorld {
protected:
    // A started daemon whose link stands, so that a signal finds nothing to wait for.
    testsupport::DaemonProcess& linkedDaemon() {
        startDaemon();
        agent->awaitFrame(3);
        agent->awaitFrame(3);
        return *daemon;
    }

    // A mask of /proc/PID/status, or of a thread's.
    unsigned long long mask(const std::string& name, pid_t thread = 0) const {
        const std::string number = std::to_string(daemon->process());
        std::ifstream status("/proc/" + number + "/task/" + (thread ? std::to_string(thread) : number) +
                             "/status");
        for (std::string word; status >> word;) {
            unsigned long long value = 0;
            if (word == name + ":" && status >> std::hex >> value) return value;
        }
        return 0;
    }

    static constexpr unsigned long long bit(int signal) { return 1ULL << (signal - 1); }

    // A helper that leaves a mark and prints.
    void stageUpdate() {
        givenConfiguration("<Fernhill><UpdateReady>true</UpdateReady></Fernhill>");
        tools.programs().addAt(platform::HostPaths::updateCopyHelper(),
                               "touch '" + root.path() + "/helped'; echo helper here");
    }

    bool helped() const { return std::filesystem::exists(root.path() + "/helped"); }

    bool marked() const { return configuration().find("<UpdateReady>true") != std::string::npos; }
};

} // namespace

TEST_F(DaemonSignals, SigintEndsTheDaemonWithItsText) {
    linkedDaemon().signal(SIGINT);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    EXPECT_EQ(daemon->output(), " - SIGINT: 2\nExit.");
    EXPECT_TRUE(daemon->logs("clearPopups entry"));
}

TEST_F(DaemonSignals, SigtermEndsTheDaemonWithItsText) {
    linkedDaemon().signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    EXPECT_EQ(daemon->output(), "\nSIGTERM: 15\nExit.");
    EXPECT_TRUE(daemon->logs("clearPopups entry"));
}

TEST_F(DaemonSignals, AStagedUpdateRunsItsHelperOnSigterm) {
    stageUpdate();
    linkedDaemon().signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    EXPECT_TRUE(helped());
    EXPECT_FALSE(marked());
    EXPECT_EQ(daemon->output(), std::string("\nSIGTERM: 15\ncmd is ") +
                                    testsupport::shownPath(platform::HostPaths::updateCopyHelper()) +
                                    "helper here\nExit.");
    EXPECT_TRUE(daemon->logs("UpdateReady set to: false"));
}

TEST_F(DaemonSignals, AStagedUpdateStaysStagedOnSigint) {
    stageUpdate();
    linkedDaemon().signal(SIGINT);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    EXPECT_FALSE(helped());
    EXPECT_TRUE(marked());
    EXPECT_EQ(daemon->output(), " - SIGINT: 2\nExit.");
}

TEST_F(DaemonSignals, WithoutAStagedUpdateTheHelperIsLeftAlone) {
    stageUpdate();
    givenConfiguration("<Fernhill><UpdateReady>false</UpdateReady></Fernhill>");
    linkedDaemon().signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    EXPECT_FALSE(helped());
}

TEST_F(DaemonSignals, AMissingHelperDoesNotKeepTheDaemonFromEnding) {
    givenConfiguration("<Fernhill><UpdateReady>true</UpdateReady></Fernhill>");
    linkedDaemon().signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    EXPECT_FALSE(marked());
}

TEST_F(DaemonSignals, FiveSignalsAreIgnoredAndTwoAreHandled) {
    linkedDaemon();
    const unsigned long long ignored =
        bit(SIGCHLD) | bit(SIGTSTP) | bit(SIGTTOU) | bit(SIGTTIN) | bit(SIGPIPE);
    EXPECT_EQ(mask("SigIgn") & ignored, ignored);
    EXPECT_EQ(mask("SigCgt") & (bit(SIGTERM) | bit(SIGINT)), bit(SIGTERM) | bit(SIGINT));
    for (int signal : {SIGCHLD, SIGTSTP, SIGTTOU, SIGTTIN, SIGPIPE})
        daemon->signal(signal);
    EXPECT_TRUE(answers(lab::Direction::out));
}

TEST_F(DaemonSignals, AnotherSignalThatReachesTheHandlerIsPrintedAndIgnored) {
    testing::internal::CaptureStdout();
    signalHandler(SIGHUP);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[SIGNALHANDLER] Unregistered signal: 1\n");
}

TEST_F(DaemonSignals, ASignalBeforeTheLinkIsMadeConnectsFirst) {
    startDaemon("").signal(SIGTERM);
    EXPECT_EQ(agent->awaitFrame().bytes, std::string("\0\0\0\x0E\0\0\0\x03\0\0\0\x01{}", 14));
    EXPECT_EQ(daemon->awaitEnd(), 0);
    EXPECT_EQ(daemon->output(), "\nSIGTERM: 15\nExit.");
}

TEST_F(DaemonSignals, ASignalWhileTheLinkWaitsForAnAgentWaitsWithIt) {
    if (!testsupport::macProgram().empty()) GTEST_SKIP() << "only this build's own locks can be listed";
    prepare(8, false).start();
    ASSERT_TRUE(daemon->awaitLog("OstComm setUserLogonCommand socket send failed"));
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    daemon->signal(SIGINT);
    EXPECT_TRUE(testsupport::eventually([&] { return daemon->locks().waitingFor(linkLock()).size() == 1; }));
    EXPECT_TRUE(daemon->running());
    EXPECT_EQ(daemon->output(), "");
}

TEST_F(DaemonSignals, PacketsOfBothDirectionsGetVerdictsWhileTheHandlerWaitsForTheLink) {
    if (!testsupport::macProgram().empty()) GTEST_SKIP() << "only this build's own locks can be listed";
    prepare(8, false).start();
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    for (int signal : {SIGTERM, SIGINT}) {
        daemon->signal(signal);
        ASSERT_TRUE(
            testsupport::eventually([&] { return daemon->locks().waitingFor(linkLock()).size() == 1; }));
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(answers(lab::Direction::in));
            EXPECT_TRUE(answers(lab::Direction::out));
        }
    }
    EXPECT_TRUE(daemon->running());
}

TEST_F(DaemonSignals, AStagedUpdateStaysStagedWhenTheDaemonIsKilledWhileItWaitsForTheLink) {
    if (!testsupport::macProgram().empty()) GTEST_SKIP() << "only this build's own locks can be listed";
    stageUpdate();
    prepare(8, false).start();
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    daemon->signal(SIGTERM);
    ASSERT_TRUE(testsupport::eventually([&] { return daemon->locks().waitingFor(linkLock()).size() == 1; }));
    daemon->signal(SIGKILL);
    EXPECT_EQ(daemon->awaitEnd(), -1);
    EXPECT_TRUE(marked());
    EXPECT_FALSE(helped());
}

TEST_F(DaemonSignals, EveryThreadButOneKeepsBothAway) {
    linkedDaemon();
    const unsigned long long both = bit(SIGTERM) | bit(SIGINT);
    ASSERT_TRUE(testsupport::eventually([&] { return daemon->threads().living().size() == 8; }));
    const auto threads = daemon->threads().living();
    for (const testsupport::ThreadList::Thread& thread : threads)
        EXPECT_EQ(mask("SigBlk", thread.number) & both, thread.function == "signalThread" ? 0 : both)
            << thread.function;
}

TEST_F(DaemonSignals, ProgramsStartWithNoSignalBlocked) {
    stageUpdate();
    // Told without another program: the shell starts those with a mask of its own.
    const std::string tell =
        "while read word mask; do [ $word != SigBlk: ] || echo $mask; done < /proc/$$/status > '" +
        root.path() + "/blocked-";
    tools.programs().add("kextload", tell + "kextload'");
    tools.programs().addAt(platform::HostPaths::dsconfigad(), tell + "dsconfigad'");
    tools.programs().addAt(platform::HostPaths::updateCopyHelper(), tell + "helper'");
    linkedDaemon().signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    for (const char* program : {"kextload", "dsconfigad", "helper"})
        EXPECT_EQ(testsupport::readAll(root.path() + "/blocked-" + program), "0000000000000000\n") << program;
}

TEST_F(DaemonSignals, TheDialogsAreTakenAwayBeforeTheHelperIsRun) {
    stageUpdate();
    linkedDaemon().signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
    const std::vector<std::string> lines = daemon->log();
    const auto cleared = std::find(lines.begin(), lines.end(), "clearPopups entry");
    const auto unstaged = std::find(lines.begin(), lines.end(), "UpdateReady set to: false");
    ASSERT_NE(unstaged, lines.end());
    EXPECT_LT(cleared, unstaged);
    EXPECT_TRUE(helped());
}
