#pragma once

// What a program of this system sees of the machine: all of it for reading only, but for what the lab has of its own
// (/tmp, /run, /etc's names, /dev, /proc) and the root's folders that the daemon writes to.

#include "lab/RootFolder.h"

#include <string>
#include <vector>

namespace lab {

// Where the lab's own things lie in a view, its stand-ins for system commands in bin.
extern const char* const viewsLabFolder;

// The library in front of the program, in a view.
extern const char* const viewsPlayedTime;

// Makes the view and enters it, with the machine's own folders out of reach. Files of `needed` that the view would not
// have, below /tmp and /run, are shown in it. To be called in mount and process namespaces of this process's own.
// Throws.
void enterView(const RootFolder& root, const std::vector<std::string>& needed);

} // namespace lab
