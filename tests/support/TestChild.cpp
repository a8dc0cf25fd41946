#include "support/TestChild.h"

#include "support/Patience.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

namespace testsupport {

namespace {

// More than what the body waits for takes together, and less than a test is given.
constexpr unsigned lifetime = 3 * patience.count();

// For the report of a test of which nothing else may tell why it failed.
void tellOfEnd(int status) {
    if (WIFSIGNALED(status))
        std::fprintf(stderr, "the test's child was ended by signal %d\n", WTERMSIG(status));
    if (WIFEXITED(status))
        std::fprintf(stderr, "the test's child ended with status %d\n", WEXITSTATUS(status));
}

} // namespace

void endAfter(const std::function<void()>& body) {
    alarm(lifetime);
    try {
        body();
    } catch (const std::exception& thrown) {
        ADD_FAILURE() << thrown.what();
    }
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

bool passesInChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        endAfter(body);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        std::perror("the test's child");
        return false;
    }
    if (status != 0) tellOfEnd(status);
    return status == 0;
}

EndlessChild::EndlessChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    process_ = fork();
    if (process_ == 0) {
        body();
        _exit(1);
    }
}

EndlessChild::~EndlessChild() {
    if (process_ <= 0) return;
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
}

} // namespace testsupport
