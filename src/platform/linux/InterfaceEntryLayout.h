#pragma once

// Linux interface addresses in the BSD form of platform/InterfaceEntries.h.

#include <ifaddrs.h>

#include <string>
#include <vector>

namespace platform {

// One entry for each link-level, IPv4 and IPv6 address of the list, interface by interface in the order of
// the links, each link entry ahead of its interface's addresses. A link's hardware address is written when
// the link is no loopback; labelled addresses (eth0:1) count as those of their interface.
std::vector<std::string> entriesInBSDForm(const ifaddrs* list);

} // namespace platform
