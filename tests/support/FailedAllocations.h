#pragma once

// Memory that runs out at each allocation in turn.

#include <functional>
#include <string>

namespace testsupport {

struct AllocationRuns {
    long ended = 0;    // the process ended, as it does for want of memory
    long survived = 0; // for the operation went on without
};

// Runs `prepare` and `operation` in forked children. In each the next allocation of the operation fails, until it makes
// fewer. The process ends by abort, or goes on and `lookAt` passes; whatever else comes of it is a failure of the test,
// as is what `faultBehind` tells in this process behind each child: it answers nothing where all is well.
AllocationRuns failEachAllocation(const std::function<void()>& prepare,
                                  const std::function<void()>& operation, const std::function<void()>& lookAt,
                                  const std::function<std::string()>& faultBehind);

} // namespace testsupport
