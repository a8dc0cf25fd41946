#pragma once

// Run loops: one for each thread, which performs its sources when they are signalled, one at a time.

#include "machost/objects/Object.h"

#include <functional>

namespace machost::corefoundation {

// A source that has its loops call `perform`. The caller owns it.
ObjectRef makeSource(std::function<void()> perform);

// Has the source performed by a loop that it is in; kept until one comes. Any thread.
void signalSource(ObjectRef source);

} // namespace machost::corefoundation
