#pragma once

// The handlers of a function for exceptions, as the compiler lays them out: the language-specific data area of the C++
// ABI for exceptions, which Objective-C shares.

#include <cstdint>
#include <functional>

namespace machost::objc {

struct Handler {
    std::uint64_t landingPad = 0; // 0 for none
    std::int64_t selector = 0;    // 0 for a cleanup, else which of the function's types it was
};

// The handler for an exception that is thrown at `address` of a function that begins at `start`. `matches` is asked
// for each type of a catch in turn; null stands for a catch of everything.
Handler findHandler(const std::uint8_t* table, std::uint64_t start, std::uint64_t address,
                    const std::function<bool(const void* type)>& matches);

} // namespace machost::objc
