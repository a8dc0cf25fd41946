#pragma once

// A bar on standard error with the rate and the time left, once something has taken two seconds; nothing where that is no
// terminal.

#include <chrono>
#include <cstddef>
#include <string>

namespace lab {

class ProgressBar {
public:
    ProgressBar();

    // Shows how far it is; several times a second at most. `all` may be 0. A smaller `done` than before starts anew.
    void show(long done, long all);

    // Takes the bar away, to be shown again by the next show.
    void clear();

    // The line: "[####....]  40 %, 12,000 packets/s, 3 s left".
    static std::string line(long done, long all, double seconds, std::size_t width);

private:
    using Clock = std::chrono::steady_clock;

    bool terminal_;
    bool shown_ = false;
    long done_ = 0;
    Clock::time_point began_;
    Clock::time_point newest_;
};

} // namespace lab
