#include "lab/EndingSignals.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace lab {
namespace {

constexpr int asked[] = {SIGTERM, SIGINT, SIGHUP};

bool isIgnored(int number) {
    struct sigaction action {};
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t askedSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int number : asked)
        if (!isIgnored(number)) sigaddset(&set, number);
    return set;
}

[[noreturn]] void endBy(int number) {
    signal(number, SIG_DFL);
    const sigset_t set = askedSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    kill(getpid(), number);
    for (;;)
        pause();
}

} // namespace

EndingSignals::EndingSignals() {
    const sigset_t set = askedSignals();
    pthread_sigmask(SIG_BLOCK, &set, &before_);
}

EndingSignals::~EndingSignals() {
    if (watcher_.joinable()) {
        eventfd_write(stop_, 1);
        watcher_.join();
        close(stop_);
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void EndingSignals::watch(int process, const std::string& folder) {
    const sigset_t set = askedSignals();
    const int signals = signalfd(-1, &set, SFD_CLOEXEC);
    const int own = fcntl(process, F_DUPFD_CLOEXEC, 0);
    stop_ = eventfd(0, EFD_CLOEXEC);
    if (signals < 0 || stop_ < 0) throw std::runtime_error("no descriptor for the signals that end the lab");
    watcher_ = std::thread(&EndingSignals::await, this, signals, own, folder);
}

void EndingSignals::release() {
    sigset_t set;
    sigemptyset(&set);
    for (int number : asked)
        sigaddset(&set, number);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void EndingSignals::await(int signals, int process, const std::string& folder) const {
    pollfd waited[] = {{signals, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (poll(waited, 2, -1) < 0) {
    }
    signalfd_siginfo signal{};
    if (waited[0].revents && read(signals, &signal, sizeof signal) == sizeof signal) {
        // Stopped and not killed: the lab would tell of a daemon that has ended.
        if (process >= 0) syscall(SYS_pidfd_send_signal, process, SIGSTOP, nullptr, 0);
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
        endBy(static_cast<int>(signal.ssi_signo));
    }
    close(signals);
    if (process >= 0) close(process);
}

} // namespace lab
