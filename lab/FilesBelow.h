#pragma once

// Files and folders below one that a program may have written to. What it has put there leads nowhere else and keeps
// nobody waiting: links out of it, pipes. All fail with errno where they say so.

#include "lab/Descriptor.h"

#include <string>
#include <sys/types.h>

namespace lab {

enum class Links {
    refused,  // one on the way, or at its end, is ELOOP
    followed, // as if the folder were the root of all files
};

// Opens what lies there, with the flags of open(2); none, with errno, when that fails.
Descriptor openBelow(int folder, const std::string& path, int flags, Links links, mode_t mode = 0);

// The same for a regular file, and for no other.
Descriptor openFileBelow(int folder, const std::string& path, int flags, mode_t mode = 0);

// Makes the folder, and those above it, where they are not there; none, with errno, when that fails.
Descriptor makeFolderBelow(int folder, const std::string& path, Links links);

// The words for errno behind one of these calls, with the way out.
std::string faultBelow(int reason);

// Removes all that is in the folder, but for one name, however deep it lies, also what its owner may not look into. What
// is mounted there stays as it is. False where something but the name stays.
bool removeAllIn(Descriptor folder, const std::string& but);

} // namespace lab
