#pragma once

// What a directory's record answers for one attribute.

#include "fuzz/Require.h"
#include "platform/Directory.h"

#include <string>
#include <vector>

namespace fuzzing {

inline std::vector<std::string> valuesOf(const platform::DirectoryRecord& record,
                                         const std::string& attribute) {
    platform::DirectoryDetails details;
    platform::DirectoryError error;
    require(record.recordDetailsForAttributes({attribute}, details, error));
    return details[attribute];
}

} // namespace fuzzing
