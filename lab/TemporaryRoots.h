#pragma once

// The temporary folders of all labs of this user. Each is locked as long as its lab lives, so that one that was killed
// leaves a folder that the next can tell from those in use and remove.

#include "lab/Descriptor.h"

#include <cstddef>
#include <string>

namespace lab {

// Removes those that are in use no more, and makes one, whose path, whole and without links, goes to `path`: at most
// this long. In use as long as the descriptor, or a copy of it, is open. Throws InputError.
Descriptor makeTemporaryRoot(std::string& path, std::size_t longest);

// With all that is in it. What cannot be removed stays, and is known again as a lab's.
void removeTemporaryRoot(const std::string& path);

} // namespace lab
