#pragma once

// Runs operations that never end in a forked child, which is killed afterwards.

#include <functional>

namespace testsupport {

// Whether `operation` is still running in a child of its own after a tenth of a second.
bool neverEnds(const std::function<void()>& operation);

} // namespace testsupport
