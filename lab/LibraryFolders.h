#pragma once

// Where glibc's interpreter looks for libraries.

#include <string>
#include <vector>

namespace lab {

// The folders of a list as it stands in a program or in LD_LIBRARY_PATH, in which $ORIGIN stands for this folder.
// Relative ones are left out: a program in the lab does not run where the lab does.
std::vector<std::string> foldersOf(const std::string& list, const std::string& origin);

// Those of this system, by /etc/ld.so.conf and by default.
std::vector<std::string> systemsLibraryFolders();

} // namespace lab
