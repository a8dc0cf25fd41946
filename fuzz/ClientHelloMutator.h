#pragma once

// Changes a ClientHello by its parts: extensions are swapped, doubled, cut and made up, the name changes, and then each
// length is what it should be, or wrong on purpose.

#include <cstddef>
#include <cstdint>

namespace fuzzing {

// As LLVMFuzzerCustomMutator does. What is no hello is changed blindly, or becomes one.
std::size_t mutateClientHello(std::uint8_t* data, std::size_t size, std::size_t room, unsigned seed);

} // namespace fuzzing
