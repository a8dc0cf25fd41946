#pragma once

// The console of a replayed daemon: nobody ever sits at it, whoever works at this machine.

#include "platform/ConsoleUser.h"

namespace lab {

platform::ConsoleUser& emptyConsole();

} // namespace lab
