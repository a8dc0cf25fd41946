#pragma once

// How long a test waits for what must come. It comes at once, so nobody waits so long; on a machine that is busy with
// a dozen other things it can take many times what it takes alone, and the limit must not say otherwise. A wait for
// what must not come has a limit of its own.

#include <chrono>
#include <cstdint>

namespace testsupport {

constexpr std::chrono::seconds patience{30};
constexpr int patienceMilliseconds = 30'000;
constexpr std::int64_t patienceMicroseconds = 30'000'000;

} // namespace testsupport
