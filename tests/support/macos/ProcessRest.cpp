#include "support/ProcessRest.h"

namespace testsupport {

bool isAtRest(pid_t) { return true; }

std::chrono::nanoseconds processorTime(pid_t) { return {}; }

} // namespace testsupport
