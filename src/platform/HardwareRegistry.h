#pragma once

// The hardware's own description of itself.

#include "platform/Service.h"

#include <string>

namespace platform {

class HardwareRegistry {
public:
    // The machine's hardware UUID ("IOPlatformUUID") as text of the form 8-4-4-4-12; empty when the system
    // does not know one. Any thread.
    virtual std::string platformUUID() = 0;

protected:
    ~HardwareRegistry() = default;
};

extern Service<HardwareRegistry> hardwareRegistryService;

inline HardwareRegistry& hardwareRegistry() { return hardwareRegistryService.get(); }

} // namespace platform
