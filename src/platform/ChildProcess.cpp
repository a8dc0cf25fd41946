#include "platform/ChildProcess.h"

#include "platform/EndSignals.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace platform {
namespace {

// Held while a fork is under way, and by an exit for good. Never destroyed.
pthread_mutex_t forkMutex = PTHREAD_MUTEX_INITIALIZER;

void endForks() { pthread_mutex_lock(&forkMutex); }

// The exit status of a shell that could not be run.
constexpr int noShell = 127;

// What the keyboard sends is for the commands that run, of which there can be several.
class KeyboardSignals {
public:
    void ignore() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (commands_++ > 0) return;
        struct sigaction ignoring {};
        ignoring.sa_handler = SIG_IGN;
        sigaction(SIGINT, &ignoring, &interrupt_);
        sigaction(SIGQUIT, &ignoring, &quit_);
    }

    void heed() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (--commands_ > 0) return;
        sigaction(SIGINT, &interrupt_, nullptr);
        sigaction(SIGQUIT, &quit_, nullptr);
    }

    // In a forked child, without the lock: whoever forked it has called `ignore`. What was handled before ends the
    // child, as it does a program.
    void restoreInChild() const {
        if (interrupt_.sa_handler != SIG_IGN) std::signal(SIGINT, SIG_DFL);
        if (quit_.sa_handler != SIG_IGN) std::signal(SIGQUIT, SIG_DFL);
    }

    // Never destroyed: a command may still run when the process exits.
    static KeyboardSignals& shared() {
        static auto* signals = new KeyboardSignals;
        return *signals;
    }

private:
    std::mutex mutex_; // guards all below
    int commands_ = 0;
    struct sigaction interrupt_ {};
    struct sigaction quit_ {};
};

[[noreturn]] void becomeShell(const char* command) {
    KeyboardSignals::shared().restoreInChild();
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(noShell);
}

} // namespace

pid_t forkChild() {
    [[maybe_unused]] static const int registered = std::atexit(endForks);
    pthread_mutex_lock(&forkMutex);
    const pid_t child = fork();
    if (child != 0) {
        pthread_mutex_unlock(&forkMutex);
        return child;
    }
    // A new lock, which the child's own exit takes. Where a lock goes to its waiters in turn, as on the Mac, freeing the
    // old one would hand it to a thread that waits to fork, too, and that the child does not have.
    pthread_mutex_init(&forkMutex, nullptr);
    restoreChildSignals();
    return child;
}

void runShellCommand(const char* command) {
    KeyboardSignals::shared().ignore();
    const pid_t shell = forkChild();
    if (shell == 0) becomeShell(command);
    // Where SIGCHLD is ignored this comes back at the shell's end all the same, with an error.
    while (shell > 0 && waitpid(shell, nullptr, 0) < 0 && errno == EINTR) {
    }
    KeyboardSignals::shared().heed();
}

} // namespace platform
