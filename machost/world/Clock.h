#pragma once

// The clock that the program sees: this machine's, or the one that a world plays. Any thread.

#include <cstdint>

namespace machost::world {

// Microseconds since the epoch.
std::int64_t now();

// Blocks for that many microseconds of the clock.
void sleep(std::int64_t microseconds);

// Real microseconds for which a wait with a limit of so many may block.
std::int64_t eventLimit(std::int64_t microseconds);

// Real microseconds from some point on, never going back.
std::int64_t monotonic();

} // namespace machost::world
