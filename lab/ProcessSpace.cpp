#include "lab/ProcessSpace.h"

#include "lab/Namespaces.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace lab {
namespace {

constexpr int cannotRun = 99;

struct Pipe {
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error(
                fmt::format("no pipe for the program's processes: {}", std::strerror(errno)));
        reading = Descriptor(ends[0]);
        writing = Descriptor(ends[1]);
    }
    Descriptor reading;
    Descriptor writing;
};

struct Made {
    pid_t first;
    pid_t program;
};

// A child of this process's parent.
pid_t forkSibling() {
    return static_cast<pid_t>(syscall(SYS_clone, CLONE_PARENT | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

// The first process of a space: it holds nothing open but the line, and ends with the lab's end of it.
[[noreturn]] void keepSpace(int lifeLine) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGCHLD, SIG_IGN); // those whose parents have gone need no burial
    dup2(lifeLine, STDIN_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) < 0 && errno == EINTR) {
    }
    _exit(0);
}

// Processes that are forked from here on belong to a new pid namespace.
bool leaveNamespaces(int kinds) {
    if (kinds) return unshareAsRoot(kinds | CLONE_NEWPID);
    return unshare(CLONE_NEWPID) == 0;
}

[[noreturn]] void makeSpace(int kinds, Pipe& lifeLine, Pipe& report,
                            const std::function<void(int reason)>& run) {
    lifeLine.writing = Descriptor();
    report.reading = Descriptor();
    if (!leaveNamespaces(kinds)) {
        const int reason = errno;
        lifeLine.reading = Descriptor();
        report.writing = Descriptor();
        run(reason);
        _exit(cannotRun);
    }
    Made made{forkSibling(), -1};
    if (made.first == 0) keepSpace(lifeLine.reading);
    if (made.first > 0) made.program = forkSibling();
    if (made.program == 0) {
        lifeLine.reading = Descriptor();
        report.writing = Descriptor();
        run(0);
        _exit(cannotRun);
    }
    const bool told = write(report.writing, &made, sizeof made) == sizeof made;
    _exit(told ? 0 : cannotRun);
}

} // namespace

pid_t forkFollower(const std::function<void()>& run) {
    std::fflush(nullptr);
    const pid_t lab = getpid();
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no process for the daemon");
    if (child > 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != lab) _exit(1); // it went before it could be followed
    run();
    _exit(cannotRun);
}

ProcessSpace::~ProcessSpace() { end(); }

pid_t ProcessSpace::start(int kinds, const std::function<void(int reason)>& run) {
    Pipe lifeLine, report;
    const pid_t maker = forkFollower([&] { makeSpace(kinds, lifeLine, report, run); });
    lifeLine.reading = Descriptor();
    report.writing = Descriptor();
    Made made{};
    if (read(report.reading, &made, sizeof made) != sizeof made) return maker;
    waitpid(maker, nullptr, 0);
    lifeLine_ = std::move(lifeLine.writing);
    first_ = made.first;
    if (made.program < 0) throw std::runtime_error("no process for the daemon");
    return made.program;
}

void ProcessSpace::end() {
    lifeLine_ = Descriptor();
    if (first_ > 0) waitpid(first_, nullptr, 0);
    first_ = -1;
}

} // namespace lab
