#include "platform/ProgramName.h"

#include <cerrno>

namespace platform {

char const* programName() { return program_invocation_short_name; }

} // namespace platform
