#include "lab/EndingSignals.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

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

EndingSignals::~EndingSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

void EndingSignals::release() {
    sigset_t set;
    sigemptyset(&set);
    for (int number : asked)
        sigaddset(&set, number);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

EndingWatch::EndingWatch(std::function<void()> leave) : leave_(std::move(leave)) {
    const sigset_t set = askedSignals();
    signals_ = signalfd(-1, &set, SFD_CLOEXEC);
    stop_ = eventfd(0, EFD_CLOEXEC);
    if (signals_ < 0 || stop_ < 0) throw std::runtime_error("no descriptor for the signals that end the lab");
    watcher_ = std::thread(&EndingWatch::await, this);
}

EndingWatch::~EndingWatch() {
    eventfd_write(stop_, 1);
    watcher_.join();
    close(stop_);
    close(signals_);
}

void EndingWatch::await() const {
    pollfd waited[] = {{signals_, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (poll(waited, 2, -1) < 0) {
    }
    signalfd_siginfo signal{};
    if (!waited[0].revents || read(signals_, &signal, sizeof signal) != sizeof signal) return;
    leave_();
    endBy(static_cast<int>(signal.ssi_signo));
}

} // namespace lab
