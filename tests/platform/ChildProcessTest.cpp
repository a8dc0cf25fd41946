#include "platform/ChildProcess.h"

#include "platform/EndSignals.h"
#include "support/Eventually.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using testsupport::eventually;
using testsupport::passesInChild;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// How a forked child ends that sends itself this signal.
int endOfAChildThatGets(int signal) {
    const pid_t child = platform::forkChild();
    if (child == 0) {
        kill(getpid(), signal);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

TEST(ChildProcess, AChildOfAThreadThatBlocksTheEndSignalsIsEndedByThem) {
    EXPECT_TRUE(passesInChild([] {
        platform::handleEndSignals([](int) {});
        EXPECT_EQ(endOfAChildThatGets(SIGTERM), SIGTERM);
        EXPECT_EQ(endOfAChildThatGets(SIGINT), SIGINT);
    }));
}

std::string lateMark;

// Has another thread fork, and leaves it the time that this takes where nothing holds it back.
void forkLate() {
    std::thread([] {
        if (platform::forkChild() != 0) return;
        testsupport::writeAll(lateMark, "");
        _exit(0);
    }).detach();
    for (int i = 0; i < 100 && !exists(lateMark); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(ChildProcess, NothingIsForkedWhileTheProcessExits) {
    testsupport::TemporaryFolder folder;
    lateMark = folder.file("forked");
    EXPECT_TRUE(passesInChild([] {
        std::atexit(forkLate);
        EXPECT_EQ(endOfAChildThatGets(SIGKILL), SIGKILL);
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    }));
    EXPECT_FALSE(exists(lateMark));
}

TEST(ShellCommand, ACommandIsWaitedFor) {
    testsupport::TemporaryFolder folder;
    platform::runShellCommand(("echo done > '" + folder.file("ran") + "'").c_str());
    EXPECT_EQ(testsupport::readAll(folder.file("ran")), "done\n");
}

TEST(ShellCommand, TheCommandIsTheShellsLastArgument) {
    const testsupport::TemporaryFolder folder;
    platform::runShellCommand(("echo $0 $# > '" + folder.file("ran") + "'").c_str());
    EXPECT_EQ(testsupport::readAll(folder.file("ran")), "sh 0\n");
}

TEST(ShellCommand, ACommandIsWaitedForWhereTheEndsOfChildrenAreIgnored) {
    testsupport::TemporaryFolder folder;
    EXPECT_TRUE(passesInChild([&] {
        std::signal(SIGCHLD, SIG_IGN);
        platform::runShellCommand(("echo done > '" + folder.file("ran") + "'").c_str());
        EXPECT_EQ(testsupport::readAll(folder.file("ran")), "done\n");
    }));
}

TEST(ShellCommand, ACommandCanBeEndedThoughItsCallerBlocksTheSignal) {
    testsupport::TemporaryFolder folder;
    EXPECT_TRUE(passesInChild([&] {
        platform::handleEndSignals([](int) {});
        for (const char* signal : {"TERM", "INT"})
            platform::runShellCommand(
                (std::string("kill -") + signal + " $$; echo > '" + folder.file("on") + "'").c_str());
    }));
    EXPECT_FALSE(exists(folder.file("on")));
}

// Whoever runs the tests in the background may have had both ignored.
void heedTheKeyboard() {
    signal(SIGINT, SIG_DFL);
    signal(SIGQUIT, SIG_DFL);
}

TEST(ShellCommand, TheKeyboardsSignalsDoNothingHereWhileACommandRuns) {
    EXPECT_TRUE(passesInChild([] {
        heedTheKeyboard();
        platform::runShellCommand("kill -INT $PPID; kill -QUIT $PPID");
        for (int signal : {SIGINT, SIGQUIT}) {
            struct sigaction now {};
            sigaction(signal, nullptr, &now);
            EXPECT_EQ(now.sa_handler, SIG_DFL);
        }
    }));
}

TEST(ShellCommand, TheKeyboardsSignalsAreHeededAgainWhenTheLastCommandHasEnded) {
    testsupport::TemporaryFolder folder;
    EXPECT_TRUE(passesInChild([&] {
        heedTheKeyboard();
        std::thread longer([&] {
            platform::runShellCommand(("echo > '" + folder.file("begun") + "'; while [ ! -e '" +
                                       folder.file("end") + "' ]; do sleep 0.01; done")
                                          .c_str());
        });
        EXPECT_TRUE(eventually([&] { return exists(folder.file("begun")); }));
        platform::runShellCommand(":");
        kill(getpid(), SIGINT);
        testsupport::writeAll(folder.file("end"), "");
        longer.join();
        struct sigaction now {};
        sigaction(SIGINT, nullptr, &now);
        EXPECT_EQ(now.sa_handler, SIG_DFL);
    }));
}

TEST(ShellCommand, TheKeyboardsSignalsThatItsCallerIgnoresDoNothingToACommand) {
    testsupport::TemporaryFolder folder;
    EXPECT_TRUE(passesInChild([&] {
        for (int ignored : {SIGINT, SIGQUIT})
            signal(ignored, SIG_IGN);
        platform::runShellCommand(
            ("kill -INT $$; kill -QUIT $$; echo > '" + folder.file("on") + "'").c_str());
    }));
    EXPECT_TRUE(exists(folder.file("on")));
}

TEST(ShellCommand, ThatCannotBeForkedLeavesTheKeyboardsSignalsAsTheyWere) {
    if (getuid() != 0) GTEST_SKIP() << "needs a user of its own to count processes for";
    EXPECT_TRUE(passesInChild([] {
        heedTheKeyboard();
        const auto lonelyUser = static_cast<uid_t>(60000 + getpid() % 5000);
        const rlimit none = {0, 0};
        ASSERT_EQ(setuid(lonelyUser), 0);
        ASSERT_EQ(setrlimit(RLIMIT_NPROC, &none), 0);
        platform::runShellCommand("exit 0");
        for (int signal : {SIGINT, SIGQUIT}) {
            struct sigaction now {};
            sigaction(signal, nullptr, &now);
            EXPECT_EQ(now.sa_handler, SIG_DFL);
        }
    }));
}

} // namespace
