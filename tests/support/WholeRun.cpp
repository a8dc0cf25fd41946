#include "support/WholeRun.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace testsupport {
namespace {

pid_t running = 0; // the process whose run it is

void refuseEarlyEnd() {
    if (running != getpid()) return;
    std::fprintf(stderr, "the process ended in the middle of its tests\n");
    std::fflush(nullptr);
    _exit(1);
}

} // namespace

WholeRun::WholeRun() {
    std::atexit(refuseEarlyEnd);
    running = getpid();
}

WholeRun::~WholeRun() { running = 0; }

} // namespace testsupport
