#pragma once

// What must hold of a fuzzer's result.

#include <cstdlib>

namespace fuzzing {

inline void require(bool holds) {
    if (!holds) std::abort();
}

} // namespace fuzzing
