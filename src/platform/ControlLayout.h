#pragma once

// What goes to a BSD kernel byte for byte when a control is looked for and connected to: the CTLIOCGINFO request
// and a control's socket address. Spelled out here, so that it can be tested on every system; the backend that
// sends them asserts that its system's own are the same. Numbers are in the processor's order.

#include <cstddef>
#include <cstdint>

namespace platform {

// The request: the name goes in, the number comes back.
struct ControlInfo {
    std::uint32_t id;
    char name[96];
};

static_assert(sizeof(ControlInfo) == 100 && offsetof(ControlInfo, name) == 4);

struct ControlAddress {
    std::uint8_t length;
    std::uint8_t family;
    std::uint16_t systemAddress;
    std::uint32_t id;
    std::uint32_t unit; // 0 asks for the next free one
    std::uint32_t reserved[5];
};

static_assert(sizeof(ControlAddress) == 32 && offsetof(ControlAddress, family) == 1 &&
              offsetof(ControlAddress, systemAddress) == 2 && offsetof(ControlAddress, id) == 4 &&
              offsetof(ControlAddress, unit) == 8);

// The numbers of that address: AF_SYSTEM and AF_SYS_CONTROL.
namespace control {
inline constexpr int familySystem = 32;
inline constexpr int systemAddressControl = 2;
} // namespace control

// A request for the control of that name, of which 96 bytes count, with zeroes behind it.
ControlInfo controlRequest(const char* name);

// The address of a control in its next free unit.
ControlAddress controlAddress(std::uint32_t id);

} // namespace platform
