#include "platform/ThreadNumber.h"

#include <unistd.h>

#include <cstdint>

namespace platform {

std::uint64_t threadNumber() { return static_cast<std::uint64_t>(gettid()); }

} // namespace platform
