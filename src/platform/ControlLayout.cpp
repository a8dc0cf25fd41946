#include "platform/ControlLayout.h"

#include <cstring>

namespace platform {

ControlInfo controlRequest(const char* name) {
    ControlInfo request{};
    std::memcpy(request.name, name, strnlen(name, sizeof request.name));
    return request;
}

ControlAddress controlAddress(std::uint32_t id) {
    ControlAddress address{};
    address.length = sizeof address;
    address.family = control::familySystem;
    address.systemAddress = control::systemAddressControl;
    address.id = id;
    return address;
}

} // namespace platform
