#pragma once

// A block as the compiler lays it out: Block_private.h of libclosure.

#include <cstddef>
#include <cstdint>

namespace machost {

struct BlockDescriptor {
    std::uint64_t reserved;
    std::uint64_t size;
    // Present where the flags say so.
    void (*copy)(void* to, const void* from);
    void (*dispose)(const void* block);
};

struct Block {
    const void* isa;
    std::int32_t flags;
    std::int32_t reserved;
    void (*invoke)(void* block, ...);
    const BlockDescriptor* descriptor;
};
static_assert(sizeof(Block) == 32 && offsetof(Block, invoke) == 16 && offsetof(Block, descriptor) == 24);

constexpr std::int32_t blockNeedsFree = 1 << 24, blockHasHelpers = 1 << 25, blockIsGlobal = 1 << 28,
                       blockCountMask = 0xfffe, blockCountStep = 2;

// Copies a block from the stack to the heap, or counts one that is there; the caller owns the result. Any thread.
Block* copyBlock(const Block* block);

// Gives back what copyBlock gave.
void releaseBlock(Block* block);

// Calls a block that takes these arguments.
template <class... Arguments>
void callBlock(Block* block, Arguments... arguments) {
    reinterpret_cast<void (*)(Block*, Arguments...)>(block->invoke)(block, arguments...);
}

} // namespace machost
