#include "platform/KernelRelease.h"

#include <sys/types.h>

#include <sys/sysctl.h>

namespace platform {

std::string kernelRelease() {
    int name[] = {CTL_KERN, KERN_OSRELEASE};
    std::size_t size = 0;
    if (sysctl(name, 2, nullptr, &size, nullptr, 0) != 0 || size == 0) return {};
    std::string release(size, '\0');
    if (sysctl(name, 2, release.data(), &size, nullptr, 0) != 0) return {};
    return release.c_str(); // up to the NUL that the size counts
}

} // namespace platform
