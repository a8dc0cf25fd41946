#pragma once

// The number that the log gives a thread.

#include <cstdint>

namespace platform {

// A number of the calling thread that no other living thread of the machine has; the same at every call.
std::uint64_t threadNumber();

} // namespace platform
