#include "platform/ChildExec.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using platform::ExecSign;
using platform::ExecState;

// Asks until there is an answer.
ExecState finalState(ExecSign& sign, pid_t child) {
    ExecState state = sign.look(child);
    while (state == ExecState::notYet)
        state = sign.look(child);
    return state;
}

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

TEST(ChildExec, AChildThatHasNotCalledExecIsNotYetThere) {
    ExecSign sign;
    WaitingChild child([] {});
    EXPECT_EQ(sign.look(child.process()), ExecState::notYet);
    child.letGo();
}

TEST(ChildExec, AnExecIsSeen) {
    ExecSign sign;
    WaitingChild child([] { execTrue(); });
    EXPECT_EQ(sign.look(child.process()), ExecState::notYet);
    child.letGo();
    EXPECT_EQ(finalState(sign, child.process()), ExecState::executed);
}

TEST(ChildExec, AskingMakesTheChildTheLeaderOfAGroupOfItsOwn) {
    ExecSign sign;
    WaitingChild child([] {});
    sign.look(child.process());
    EXPECT_EQ(getpgid(child.process()), child.process());
    child.letGo();
}

TEST(ChildExec, AChildWhoseExecFailedAndThatIsGoneHasEnded) {
    signal(SIGCHLD, SIG_IGN);
    ExecSign sign;
    const pid_t child = fork();
    if (child == 0) {
        sign.execFailed();
        _exit(1);
    }
    waitpid(child, nullptr, 0);
    EXPECT_EQ(finalState(sign, child), ExecState::ended);
}

TEST(ChildExec, AFailedForkHasNoChild) {
    ExecSign sign;
    EXPECT_EQ(sign.look(-1), ExecState::ended);
}

} // namespace
