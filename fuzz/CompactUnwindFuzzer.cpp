// The reader of compact unwind tables. The first two bytes are the table's length; behind it comes the memory that
// the table counts from.

#include "machost/loader/Unwinding.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t length = data[0] | static_cast<std::size_t>(data[1]) << 8;
    if (length > size - 2) return 0;
    try {
        machost::frameDescriptions({data + 2, length}, {data + 2 + length, size - 2 - length}, 0x100000000);
    } catch (const machost::FormatError&) {
    }
    return 0;
}
