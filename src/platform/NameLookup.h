#pragma once

// Host names to addresses, as gethostbyname2 and gethostbyname give them. A look-up blocks for as long as
// the system's resolver takes.

#include "platform/Service.h"

#include <string>
#include <vector>

namespace platform {

// The answer of a look-up. Each address holds its raw bytes in network order: 4 or 16 of them.
struct HostEntry {
    std::string officialName;
    std::vector<std::string> aliases;
    std::vector<std::string> addresses;
};

class NameLookup {
public:
    // Looks a name up in one address family (AF_INET or AF_INET6). False, with `entry` left alone, when the
    // name has no address there. Any thread.
    virtual bool gethostbyname2(const char* name, int family, HostEntry& entry) = 0;

    // The same in the IPv4 family.
    virtual bool gethostbyname(const char* name, HostEntry& entry) = 0;

protected:
    ~NameLookup() = default;
};

extern Service<NameLookup> nameLookupService;

inline NameLookup& nameLookup() { return nameLookupService.get(); }

} // namespace platform
