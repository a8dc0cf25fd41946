#include "platform/ProgramName.h"

#include <cerrno>

namespace platform {

const char* programName() { return program_invocation_short_name; }

} // namespace platform
