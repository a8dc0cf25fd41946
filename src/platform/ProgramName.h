#pragma once

// The name that the running program was started under.

namespace platform {

// The last component of the program's path; valid for the life of the process.
const char* programName();

} // namespace platform
