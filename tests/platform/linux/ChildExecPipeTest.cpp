// Children that are gone, or as good as gone, before anybody asks about them. A system that goes by setpgid alone
// cannot tell these from children that never called exec.

#include "platform/ChildExec.h"
#include "support/WaitingChild.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using platform::ExecSign;
using platform::ExecState;
using testsupport::execTrue;
using testsupport::WaitingChild;

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
    const int lowest = dup(0);
    close(lowest);
    const pid_t child = fork();
    if (child == 0) _exit(0);
    {
        ExecSign sign;
        EXPECT_NE(fcntl(lowest, F_GETFD), -1);
        EXPECT_NE(fcntl(lowest + 1, F_GETFD), -1);
        sign.look(child);
        EXPECT_NE(fcntl(lowest, F_GETFD), -1);
        EXPECT_EQ(fcntl(lowest + 1, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(lowest, F_GETFD), -1);
    { ExecSign unused; }
    EXPECT_EQ(fcntl(lowest + 1, F_GETFD), -1);
    waitpid(child, nullptr, 0);
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
