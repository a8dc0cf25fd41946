#pragma once

// A lab that is asked to end by TERM, INT or HUP takes its temporary folder with it. While an object lives these
// signals wait for it; what is forked meanwhile lets them in again by `release`.

#include <csignal>
#include <string>
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

    // From now on such a signal stops the process of this pidfd, removes the folder, and ends this process, with
    // which all that follow it are killed. Both are copied. Once.
    void watch(int process, const std::string& folder);

    // Lets the signals into this process, a forked child.
    static void release();

private:
    void await(int signals, int process, const std::string& folder) const;

    sigset_t before_;
    int stop_ = -1; // an eventfd
    std::thread watcher_;
};

} // namespace lab
