#include "support/BlockedChild.h"

#include <csignal>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

namespace {

constexpr int patienceMilliseconds = 100;

bool becomesReadable(int descriptor, int milliseconds) {
    pollfd waited{descriptor, POLLIN, 0};
    return poll(&waited, 1, milliseconds) > 0;
}

} // namespace

bool neverEnds(const std::function<void()>& operation) {
    int ends[2];
    if (pipe(ends) != 0) return false;

    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        const bool told = write(ends[1], "s", 1) == 1;
        if (told) operation();
        _exit(0);
    }
    close(ends[1]);

    // One byte says that the operation begins; the end of the pipe says that it is over.
    char started = 0;
    const bool began = becomesReadable(ends[0], 5000) && read(ends[0], &started, 1) == 1;
    const bool ended = becomesReadable(ends[0], patienceMilliseconds);
    close(ends[0]);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return began && !ended;
}

} // namespace testsupport
