#pragma once

// Texts that were made to be slow to read, of any size, each with the reader that they were made for. A tool for
// the counted tests and for the benchmarks, so that both know the same texts.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

struct HostileInput {
    std::string name;

    // Makes about `size` bytes of input. The result has the input in it and reads it once.
    std::function<std::function<void()>(std::size_t size)> make;
};

// All of them, in a fixed order, with names that differ.
const std::vector<HostileInput>& hostileInputs();

} // namespace testsupport
