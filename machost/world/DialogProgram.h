#pragma once

// A dialog that a program of this machine's desktop shows: zenity, else kdialog.

#include "machost/world/Dialogs.h"

namespace machost::world {

// Null where there is no such program on PATH or no display.
std::unique_ptr<Dialog> showOnDesktop(double seconds,
                                      const std::vector<std::pair<std::string, std::string>>& texts);

} // namespace machost::world
