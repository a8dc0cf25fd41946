#pragma once

// What the machine and its present user's home are called.

#include "platform/Service.h"

#include <optional>
#include <string>

namespace platform {

class HostName {
public:
    // The host's name in full ("name" of the current NSHost), if it has one. Any thread;
    // may block on a name look-up.
    virtual std::optional<std::string> currentHostName() = 0;

    // The home directory of the process's user (NSHomeDirectory). Any thread.
    virtual std::string homeDirectory() = 0;

protected:
    ~HostName() = default;
};

extern Service<HostName> hostNameService;

inline HostName& hostName() { return hostNameService.get(); }

} // namespace platform
