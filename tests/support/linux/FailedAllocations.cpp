#include "support/FailedAllocations.h"

#include "support/AllocationCounter.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

namespace testsupport {
namespace {

constexpr int noSuchAllocation = 2;

[[noreturn]] void runInChild(const std::function<void()>& prepare, const std::function<void()>& operation,
                             const std::function<void()>& lookAt, long number) {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    close(STDERR_FILENO); // where the end for want of memory tells of itself
    endAfter([&] {
        prepare();
        // As in the daemon, where nobody catches what the allocator throws.
        const auto throwsNothing = [&]() noexcept {
            failAllocation(number);
            operation();
        };
        throwsNothing();
        if (!allocationFailed()) _exit(noSuchAllocation);
        lookAt();
    });
}

std::string howItEnded(int status) {
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                               : "status " + std::to_string(WEXITSTATUS(status));
}

} // namespace

AllocationRuns failEachAllocation(const std::function<void()>& prepare,
                                  const std::function<void()>& operation, const std::function<void()>& lookAt,
                                  const std::function<std::string()>& faultBehind) {
    AllocationRuns runs;
    std::string faults;
    for (long number = 1;; ++number) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) runInChild(prepare, operation, lookAt, number);
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child) break;
        if (WIFEXITED(status) && WEXITSTATUS(status) == noSuchAllocation) break;
        const bool ended = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
        const bool survived = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        runs.ended += ended;
        runs.survived += survived;
        std::string fault = ended || survived ? "" : howItEnded(status);
        fault += faultBehind();
        if (!fault.empty()) faults += fault + " at allocation " + std::to_string(number) + '\n';
    }
    EXPECT_EQ(faults, "");
    return runs;
}

} // namespace testsupport
