#pragma once

// Which file of this machine a path of the program means. Without a root it is the path itself. With one, an
// absolute path means the file below the root, from which no step leads up. What lies below the root already or under
// /dev is meant as it stands, and so is what lies in a folder of PATH, in TMPDIR or in the working folder when nothing
// of the name lies below the root. Relative paths stay. Any thread.

#include <string>

namespace machost::libsystem {

std::string hostPath(const char* path);

} // namespace machost::libsystem
