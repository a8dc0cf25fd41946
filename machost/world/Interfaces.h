#pragma once

#include <string>

namespace machost::world {

// This machine's interfaces as entries of the Mac's: a name of 16 bytes and an address of its own length, 16 bytes at
// least. An interface's link entry comes first.
std::string machineInterfaces();

} // namespace machost::world
