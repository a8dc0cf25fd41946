#pragma once

// The release of the running kernel.

#include <string>

namespace platform {

// The release as the kernel names it, such as "18.7.0"; empty if it does not say.
std::string kernelRelease();

} // namespace platform
