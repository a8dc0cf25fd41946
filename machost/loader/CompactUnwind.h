#pragma once

// The compact unwind table of a Mach-O file (section __unwind_info): for each function how its frame is laid out, and
// who handles exceptions in it. Follows <mach-o/compact_unwind_encoding.h> of libunwind. Pure; throws FormatError.

#include "machost/loader/ByteView.h"

#include <cstdint>
#include <vector>

namespace machost {

// One function. All places are offsets from the image's header.
struct UnwindEntry {
    std::uint32_t start = 0;
    std::uint32_t end = 0;
    std::uint32_t encoding = 0;
    std::uint32_t personality = 0; // of the pointer to the handler; 0 without one
    std::uint32_t handlerData = 0; // 0 without any
};

std::vector<UnwindEntry> readCompactUnwind(ByteView table);

// A frame as its encoding tells it.
struct FrameLayout {
    enum Kind { unknown, basePointer, fixedSize, sizeInCode, dwarf };

    // A register by its DWARF number, and how many bytes below the frame's start it was saved.
    struct Saved {
        int registerNumber;
        unsigned below;
    };

    Kind kind = unknown;
    std::uint32_t size = 0;       // fixedSize: from the stack pointer to the frame's start
    std::uint32_t sizeAt = 0;     // sizeInCode: where in the function the 32-bit size stands
    std::uint32_t adjustment = 0; // sizeInCode: what is added to it
    std::vector<Saved> saved;
};

FrameLayout decodeFrame(std::uint32_t encoding);

} // namespace machost
