#include "platform/ChildExec.h"
#include "support/WaitingChild.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using platform::ExecSign;
using platform::ExecState;
using testsupport::execTrue;
using testsupport::WaitingChild;

// Asks until there is an answer.
ExecState finalState(ExecSign& sign, pid_t child) {
    ExecState state = sign.look(child);
    while (state == ExecState::notYet)
        state = sign.look(child);
    return state;
}

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
