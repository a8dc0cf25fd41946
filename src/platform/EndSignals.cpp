#include "platform/EndSignals.h"

#include <atomic>
#include <csignal>
#include <pthread.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr int endSignals[] = {SIGTERM, SIGINT};

// Both are set before a signal can come.
std::atomic<void (*)(int)> endHandler{nullptr};
std::atomic<pthread_t> takingThread{};

sigset_t endSignalSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int signal : endSignals)
        sigaddset(&set, signal);
    return set;
}

void changeMask(int how) {
    const sigset_t set = endSignalSet();
    pthread_sigmask(how, &set, nullptr);
}

void takeEndSignal(int signal) {
    const pthread_t taking = takingThread;
    if (pthread_equal(pthread_self(), taking))
        endHandler.load()(signal);
    else
        pthread_kill(taking, signal);
}

void* signalThread(void*) {
    changeMask(SIG_UNBLOCK);
    for (;;)
        pause();
}

} // namespace

void handleEndSignals(void (*handler)(int)) {
    changeMask(SIG_BLOCK);
    endHandler = handler;
    pthread_t thread;
    const bool made = pthread_create(&thread, nullptr, signalThread, nullptr) == 0;
    if (made) pthread_detach(thread);
    takingThread = made ? thread : pthread_self();

    struct sigaction action {};
    action.sa_handler = takeEndSignal;
    action.sa_mask = endSignalSet();
    action.sa_flags = SA_RESTART;
    for (int signal : endSignals)
        sigaction(signal, &action, nullptr);
    if (!made) changeMask(SIG_UNBLOCK);
}

// The handler goes first: a signal that has waited must not find it in the child.
void restoreChildSignals() {
    for (int signal : endSignals) {
        struct sigaction now {};
        if (sigaction(signal, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

} // namespace platform
