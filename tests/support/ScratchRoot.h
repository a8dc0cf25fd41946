#pragma once

// A folder that stands for the root of the machine: all fixed paths of the system lie below it. One for each
// process, made before anything else runs; removed at the end of the scope.

#include "support/TemporaryFolder.h"

namespace testsupport {

class ScratchRoot {
public:
    ScratchRoot();

    const std::string& path() const { return folder_.path(); }

    // The path of the configuration file below the root.
    std::string configurationFile() const;

private:
    TemporaryFolder folder_;
};

} // namespace testsupport
