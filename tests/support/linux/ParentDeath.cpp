#include "support/ParentDeath.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <stdexcept>

namespace testsupport {
namespace {

std::atomic<pid_t> forking{0}; // the process that forks

void noteParent() { forking = getpid(); }

// The setting is not inherited, so every child makes its own.
void followParent() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != forking) _exit(1); // it went before it could be followed
}

} // namespace

void endForksWithTheirParents() {
    if (pthread_atfork(noteParent, nullptr, followParent) != 0)
        throw std::runtime_error("forked processes could outlive their test");
}

} // namespace testsupport
