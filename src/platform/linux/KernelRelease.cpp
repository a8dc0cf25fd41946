#include "platform/KernelRelease.h"

#include <sys/utsname.h>

#include <string>

namespace platform {

std::string kernelRelease() {
    utsname names{};
    return uname(&names) == 0 ? names.release : std::string();
}

} // namespace platform
