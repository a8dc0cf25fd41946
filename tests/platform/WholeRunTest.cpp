#include "support/WholeRun.h"

#include "support/Sanitizers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

// How a child ends that does this and then exits with status 0; it says nothing meanwhile.
template <class Operation>
int statusBehind(Operation operation) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(STDERR_FILENO);
        operation();
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST(WholeRun, AProcessThatExitsInTheMiddleOfItsTestsHasNotPassed) {
    EXPECT_EQ(statusBehind([] {
                  const testsupport::WholeRun run;
                  std::exit(0);
              }),
              1);
}

TEST(WholeRun, BehindTheTestsTheStatusIsTheProcesssOwn) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers have their say at an exit";
    EXPECT_EQ(statusBehind([] { const testsupport::WholeRun run; }), 0);
}

TEST(WholeRun, AChildOfTheTestsEndsAsItLikes) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers have their say at an exit";
    EXPECT_EQ(statusBehind([] {}), 0);
}
