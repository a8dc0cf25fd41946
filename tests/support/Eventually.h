#pragma once

// For what another process or thread brings about and nobody announces.

#include "support/Patience.h"

#include <chrono>
#include <thread>

namespace testsupport {

// Whether the condition holds or comes to hold within the tests' patience.
template <class Condition>
bool eventually(Condition holds) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace testsupport
