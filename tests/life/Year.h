#pragma once

// A year of a daemon's life in minutes, all of it drawn from a seed: days with bursts of packets, logins, changes of
// addresses, pushed settings, agents that go and come, clocks that are set. Then a morning's packets, which a daemon
// that has just been started answers in the same way.

#include "life/Life.h"
#include "life/Scene.h"

#include <cstdint>
#include <vector>

namespace life {

struct YearOptions {
    std::uint64_t seed = 1;
    long records = 10000000;
    int days = 365;
};

// What the daemon has at the end of a day, and what has happened to it so far.
struct Evening {
    Holdings holdings;
    Happenings happenings;
};

// Begins with the evening before the first day.
using Year = std::vector<Evening>;

// Lives it in this process, which must have one thread and a network of its own. Throws std::runtime_error, with what
// went wrong.
Year liveYear(const YearOptions& options);

// Throws std::runtime_error when the daemon has come to hold more than the rules leave behind.
void checkHoldings(const Year& year);

} // namespace life
