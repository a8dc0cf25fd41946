// Children that are gone, or as good as gone, before anybody asks about them. A system that goes by setpgid alone
// cannot tell these from children that never called exec.

#include "platform/ChildExec.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using platform::ExecSign;
using platform::ExecState;

// A child that waits for the end of a pipe before it does anything.
class WaitingChild {
public:
    template <class Operation>
    explicit WaitingChild(Operation operation) {
        if (pipe(ends_) != 0) return;
        child_ = fork();
        if (child_ != 0) return;
        char byte;
        close(ends_[1]);
        const ssize_t got = read(ends_[0], &byte, 1);
        operation();
        _exit(got == 0 ? 0 : 1);
    }
    ~WaitingChild() {
        close(ends_[0]);
        waitpid(child_, nullptr, 0);
    }
    void letGo() { close(ends_[1]); }
    pid_t process() const { return child_; }

private:
    int ends_[2] = {-1, -1};
    pid_t child_ = -1;
};

void execTrue() { execl("/bin/sh", "sh", "-c", ":", static_cast<char*>(nullptr)); }

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
