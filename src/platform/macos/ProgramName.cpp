#include "platform/ProgramName.h"

#include <cstdlib>

namespace platform {

const char* programName() { return getprogname(); }

} // namespace platform
