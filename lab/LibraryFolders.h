#pragma once

// Where glibc's interpreter looks for libraries.

#include <string>
#include <vector>

namespace lab {

// The text, in which $ORIGIN stands for this folder.
std::string withOrigin(std::string text, const std::string& origin);

// The folders of a list as it stands in a program or in LD_LIBRARY_PATH, in which $ORIGIN stands for this folder; what is
// written twice counts once. Relative ones are left out: a program in the lab does not run where the lab does.
std::vector<std::string> foldersOf(const std::string& list, const std::string& origin);

// Those that a file such as /etc/ld.so.conf names, and the files that it includes, each of which is read once.
std::vector<std::string> configuredFolders(const std::string& file);

// Those of this system, by /etc/ld.so.conf and by default.
std::vector<std::string> systemsLibraryFolders();

} // namespace lab
