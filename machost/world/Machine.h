#pragma once

#include <optional>
#include <string>

namespace machost::world {

// The machine's identifier in the form 8-4-4-4-12: of its board, else of its installation.
std::optional<std::string> platformUuid();

// What the host is called in full.
std::optional<std::string> hostName();

// The home directory of the process's user.
std::string homeDirectory();

} // namespace machost::world
