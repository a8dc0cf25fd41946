#pragma once

// The directory of this machine.

#include "machost/world/Directory.h"

namespace machost::world::machine {

std::vector<std::string> nodeNames();

// The node that leads to all others for that type; null for other types.
DirectoryNodeRef nodeOfType(std::uint32_t type);

DirectoryNodeRef nodeNamed(const std::string& name);

} // namespace machost::world::machine
