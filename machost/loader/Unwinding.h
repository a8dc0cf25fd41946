#pragma once

// Lets exceptions of the Mach-O program go through its own frames and ours: its unwind tables are put before this
// system's unwinder, the compact table as the frame descriptions that it stands for, __eh_frame as it is.

#include "machost/loader/Image.h"

namespace machost {

// The compact table's functions as DWARF frame descriptions with absolute addresses, for an image whose header lies
// at `header`; `memory` reads the image's memory by offset from there. Functions that the table leaves to
// __eh_frame, or that have no frame to tell, are left out. Pure; throws FormatError.
std::vector<std::uint8_t> frameDescriptions(ByteView compactTable, ByteView memory, std::uint64_t header);

// For the one image of the process, before any of its code runs.
void installUnwinding(const Image& image);

} // namespace machost
