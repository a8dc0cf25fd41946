// Children that are gone, or as good as gone, before anybody asks about them. A system that goes by setpgid alone
// cannot tell these from children that never called exec.

#include "platform/ChildExec.h"
#include "support/Sanitizers.h"
#include "support/TestChild.h"
#include "support/WaitingChild.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using platform::ExecSign;
using platform::ExecState;
using testsupport::execTrue;
using testsupport::WaitingChild;

int openDescriptors() {
    int open = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor)
        if (fcntl(descriptor, F_GETFD) != -1) ++open;
    return open;
}

TEST(ChildExecPipe, AShortChildIsSeenThoughNobodyKeepsItsEnd) {
    signal(SIGCHLD, SIG_IGN);
    for (int i = 0; i < 20; ++i) {
        ExecSign sign;
        const pid_t child = fork();
        if (child == 0) {
            execTrue();
            _exit(1);
        }
        // It is gone by now, before anybody has asked.
        while (kill(child, 0) == 0) {
            waitpid(child, nullptr, 0);
        }
        EXPECT_EQ(sign.look(child), ExecState::executed);
    }
}

TEST(ChildExecPipe, AnotherChildThatHoldsTheSignOpenDelaysNothing) {
    signal(SIGCHLD, SIG_IGN);
    ExecSign sign;
    WaitingChild sibling([] {});
    const pid_t child = fork();
    if (child == 0) {
        sibling.letGo();
        execTrue();
        _exit(1);
    }
    while (kill(child, 0) == 0) {
        waitpid(child, nullptr, 0);
    }
    EXPECT_EQ(sign.look(child), ExecState::executed);
    sibling.letGo();
}

TEST(ChildExecPipe, ALookGivesTheWritingEndBackAndTheEndOfTheSignTheOther) {
    const int before = openDescriptors();
    const pid_t child = fork();
    if (child == 0) _exit(0);
    {
        ExecSign sign;
        EXPECT_EQ(openDescriptors(), before + 2);
        sign.look(child);
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
    { ExecSign unused; }
    EXPECT_EQ(openDescriptors(), before);
    waitpid(child, nullptr, 0);
}

TEST(ChildExecPipe, WithoutADescriptorForTheSignTheProcessGroupAloneTells) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need descriptors of their own";
    EXPECT_TRUE(testsupport::passesInChild([] {
        rlimit before{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        const rlimit none = {0, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        ExecSign sign;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
        const pid_t child = fork();
        if (child == 0) {
            sign.execFailed();
            for (;;)
                pause();
        }
        EXPECT_EQ(sign.look(child), ExecState::notYet);
        EXPECT_EQ(getpgid(child), child);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        EXPECT_EQ(sign.look(child), ExecState::ended);
    }));
}

TEST(ChildExecPipe, AChildWhoseExecFailedAndThatWasNotReapedIsNeverExecuted) {
    ExecSign sign;
    const pid_t child = fork();
    if (child == 0) {
        sign.execFailed();
        _exit(1);
    }
    siginfo_t end;
    waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT);
    EXPECT_EQ(sign.look(child), ExecState::notYet);
    EXPECT_EQ(sign.look(child), ExecState::notYet);
    waitpid(child, nullptr, 0);
}

} // namespace
