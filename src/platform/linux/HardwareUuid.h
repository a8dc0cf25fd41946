#pragma once

// Where the Linux backend finds what stands for the hardware's UUID.

#include <string>

namespace platform {

// The product UUID of the firmware's tables, or else the system's machine identifier, in the form 8-4-4-4-12
// and in upper case. Empty when neither file holds one. Firmware that was never given a UUID says so with all
// zeros or all ones, which counts as none.
std::string hardwareUuid(const char* productFile, const char* machineFile);

} // namespace platform
