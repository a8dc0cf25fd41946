#pragma once

// Whether tests of great numbers take all of them, however long that is, or a few of each: with OSTLER_THOROUGH in the
// environment all, as .ci/weekly has it.

#include <cstdlib>

namespace testsupport {

inline bool thorough() { return std::getenv("OSTLER_THOROUGH") != nullptr; }

} // namespace testsupport
