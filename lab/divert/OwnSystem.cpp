#include "lab/divert/OwnSystem.h"

#include "lab/Policy.h"
#include "lab/divert/Tools.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace lab {
namespace {

constexpr int unusable = 2;

void mountAt(const char* type, const char* folder, unsigned long flags) {
    if (mount(type, folder, type, flags, nullptr) == 0) return;
    throw UnavailableError(
        fmt::format("divert: no {} can be mounted at {}: {}", type, folder, std::strerror(errno)));
}

void leaveSystem() {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC) != 0)
        throw UnavailableError(
            fmt::format("divert: this system grants no namespaces: {}", std::strerror(errno)));
    if (mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        throw UnavailableError(
            fmt::format("divert: the mounts cannot be made private: {}", std::strerror(errno)));
    mountAt("proc", "/proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    mountAt("tmpfs", "/run", MS_NOSUID | MS_NODEV);
    mkdir(ownFolder, 0755);
}

int told(const std::exception& error, int status) {
    fmt::print(stderr, "fernhill-lab: {}\n", error.what());
    return status;
}

int bodyStatus(const std::function<int()>& body) {
    // Keys of the terminal are for the command that is run, and not for what stands around it.
    setpgid(0, 0);
    try {
        leaveSystem();
        return body();
    } catch (const UnavailableError& error) {
        return told(error, unusable);
    } catch (const InputError& error) {
        return told(error, unusable);
    } catch (const std::exception& error) {
        return told(error, 1);
    }
}

int statusOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 1; }

// The first process inside: when it ends, the kernel kills all others. It buries those whose parents have gone.
[[noreturn]] void beFirstProcess(const std::function<int()>& body, int lifeLine) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd parent{lifeLine, POLLIN, 0};
    if (poll(&parent, 1, 0) != 0) _exit(1); // it went before it could be followed
    const pid_t inside = fork();
    if (inside == 0) {
        close(lifeLine);
        const int status = bodyStatus(body);
        std::fflush(nullptr);
        _exit(status);
    }
    for (int status = 0;;) {
        const pid_t ended = wait(&status);
        if (ended == inside) _exit(statusOf(status));
        if (ended < 0 && errno != EINTR) _exit(1);
    }
}

// Takes the terminal back from the process group that had it inside.
void takeTerminal() {
    signal(SIGTTOU, SIG_IGN);
    tcsetpgrp(STDIN_FILENO, getpgrp());
}

} // namespace

const char* const ownFolder = "/run/fernhill-lab";

bool liesInRun(const std::string& path) {
    std::error_code unreadable;
    return std::filesystem::weakly_canonical(path, unreadable).string().rfind("/run/", 0) == 0;
}

bool holdsTerminal() { return isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) == getpgrp(); }

int runInOwnSystem(const std::function<int()>& body) {
    if (geteuid() != 0)
        throw UnavailableError("divert needs root: it makes network namespaces and diverts packets");
    const bool hadTerminal = holdsTerminal();
    if (unshare(CLONE_NEWPID) != 0)
        throw UnavailableError(
            fmt::format("divert: this system grants no namespaces: {}", std::strerror(errno)));
    int lifeLine[2];
    if (pipe2(lifeLine, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the first process");
    std::fflush(nullptr);
    const pid_t first = fork();
    if (first < 0) throw UnavailableError(fmt::format("divert: no process: {}", std::strerror(errno)));
    if (first == 0) {
        close(lifeLine[1]);
        beFirstProcess(body, lifeLine[0]);
    }
    close(lifeLine[0]);
    // This process's own later children are none of those.
    const int ownProcesses = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
    setns(ownProcesses, CLONE_NEWPID);
    close(ownProcesses);
    int status = 0;
    while (waitpid(first, &status, 0) < 0 && errno == EINTR) {
    }
    if (hadTerminal) takeTerminal();
    return statusOf(status);
}

} // namespace lab
