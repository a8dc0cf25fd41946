#pragma once

// The rebases and binds of LC_DYLD_INFO: small programs of one-byte operations. Pure; throws FormatError for a
// program that is damaged or writes outside the segments.

#include "machost/loader/MachOFile.h"

namespace machost {

void readRebaseOperations(ByteView operations, const std::vector<Segment>& segments,
                          std::vector<Rebase>& rebases);

void readBindOperations(ByteView operations, const std::vector<Segment>& segments, std::vector<Bind>& binds);

// The same for the binds that a loader may put off to the first call. Each is a program of its own, with the
// operation that ends one between them.
void readLazyBindOperations(ByteView operations, const std::vector<Segment>& segments,
                            std::vector<Bind>& binds);

// The pointer that lies there in the file. Throws unless all of it lies in the bytes of a segment that can be written
// before the program runs.
std::uint64_t pointerAt(const std::vector<Segment>& segments, std::uint64_t address);

// Throws for more fixups than there are bytes for them, which only operations that go round and round make.
void checkNumber(const std::vector<Segment>& segments, std::size_t fixups);

// Throws unless the address lies in, or right behind, a segment of the program.
void checkTarget(const std::vector<Segment>& segments, std::uint64_t target);

} // namespace machost
