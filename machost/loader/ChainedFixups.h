#pragma once

// The rebases and binds of LC_DYLD_CHAINED_FIXUPS: chains through the pointers themselves, one for each page. Pure;
// throws FormatError for chains that are damaged or leave their segment.

#include "machost/loader/MachOFile.h"

namespace machost {

// `base` is the address that offsets count from: the header's.
void readChainedFixups(ByteView fixups, const std::vector<Segment>& segments, std::uint64_t base,
                       std::vector<Rebase>& rebases, std::vector<Bind>& binds);

} // namespace machost
