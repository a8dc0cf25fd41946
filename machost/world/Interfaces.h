#pragma once

#include <string>

struct ifaddrs;

namespace machost::world {

// This machine's interfaces as entries of the Mac's: a name of 16 bytes and an address of its own length, 16 bytes at
// least. An interface's link entry comes first.
std::string machineInterfaces();

// The same of a list as getifaddrs gives it.
std::string interfacesInMacForm(const ifaddrs* list);

} // namespace machost::world
