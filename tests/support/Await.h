#pragma once

// Waiting for what another thread or process brings about.

#include "support/Patience.h"

#include <chrono>
#include <thread>

namespace testsupport {

// Blocks until the condition holds; false after the tests' patience.
template <class Condition>
bool comesTrue(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace testsupport
