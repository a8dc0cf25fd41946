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

// Makes the view and enters it, with the machine's own folders out of reach. The program and its libraries are shown in
// it where they lie, below /tmp and /run too; a program where the view has another folder is not. To be called in mount
// and process namespaces of this process's own. Throws, for a library that cannot be shown too.
void enterView(const RootFolder& root, const std::string& program, const std::vector<std::string>& libraries);

} // namespace lab
