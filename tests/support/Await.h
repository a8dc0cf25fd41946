#pragma once

// Waiting for what another thread or process brings about.

#include <chrono>
#include <thread>

namespace testsupport {

// Blocks until the condition holds; false after five real seconds.
template <class Condition>
bool comesTrue(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace testsupport
