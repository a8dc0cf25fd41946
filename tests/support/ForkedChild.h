#pragma once

// Runs an operation in a forked child, for operations that never end or that would harm the test's own
// process. The child is killed when the question is answered.

#include <functional>
#include <string>

namespace testsupport {

// Whether the operation comes to a rest, for a short while, without being done. What it does before has been done then.
bool neverEnds(const std::function<void()>& operation);

// Whether the operation comes to its end.
bool comesToItsEnd(const std::function<void()>& operation);

// What the operation answers; "(no answer)" when it does not come to its end.
std::string answerOfChild(const std::function<std::string()>& operation);

} // namespace testsupport
