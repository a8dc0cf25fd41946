#include "platform/ProgramName.h"

#include <cstdlib>

namespace platform {

char const* programName() { return getprogname(); }

} // namespace platform
