#pragma once

// A lab that is asked to end by TERM, INT or HUP takes its temporary folder with it. While an object lives these
// signals wait for it, or for a watch; what is forked meanwhile lets them in again by `release`.

#include <csignal>
#include <functional>
#include <thread>

namespace lab {

class EndingSignals {
public:
    // To be made before any other thread is started. Signals that are ignored stay ignored.
    EndingSignals();

    // A signal that has come meanwhile ends the process now.
    ~EndingSignals();

    EndingSignals(const EndingSignals&) = delete;
    EndingSignals& operator=(const EndingSignals&) = delete;

    // Lets the signals into this process, a forked child.
    static void release();

private:
    sigset_t before_;
};

// While it lives such a signal ends this process, with which all that follow it are killed; before that `leave` is
// called, on a thread of its own. It is to live within an EndingSignals, and what `leave` uses longer than it.
class EndingWatch {
public:
    explicit EndingWatch(std::function<void()> leave);
    ~EndingWatch();

    EndingWatch(const EndingWatch&) = delete;
    EndingWatch& operator=(const EndingWatch&) = delete;

private:
    void await() const;

    const std::function<void()> leave_;
    int signals_ = -1; // a signalfd
    int stop_ = -1;    // an eventfd
    std::thread watcher_;
};

} // namespace lab
