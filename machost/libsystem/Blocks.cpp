// The run-time library of blocks.

#include "machost/Block.h"
#include "machost/libsystem/Library.h"

#include <cstdlib>
#include <cstring>

namespace machost {
namespace {

const void* stackClass[32];
const void* heapClass[32];

} // namespace

Block* copyBlock(const Block* block) {
    auto* shared = const_cast<Block*>(block);
    if (block->flags & blockIsGlobal) return shared;
    if (block->flags & blockNeedsFree) {
        __atomic_add_fetch(&shared->flags, blockCountStep, __ATOMIC_RELAXED);
        return shared;
    }
    auto* copy = static_cast<Block*>(std::malloc(block->descriptor->size));
    if (!copy) return nullptr;
    std::memcpy(copy, block, block->descriptor->size);
    copy->isa = heapClass;
    copy->flags = (block->flags & ~blockCountMask) | blockNeedsFree | blockCountStep;
    if (block->flags & blockHasHelpers) block->descriptor->copy(copy, block);
    return copy;
}

void releaseBlock(Block* block) {
    if (!(block->flags & blockNeedsFree)) return;
    const std::int32_t left = __atomic_sub_fetch(&block->flags, blockCountStep, __ATOMIC_ACQ_REL);
    if (left & blockCountMask) return;
    if (block->flags & blockHasHelpers) block->descriptor->dispose(block);
    std::free(block);
}

namespace libsystem {

const ImportTable& blockImports() {
    static const auto& table = *new ImportTable{
        variable("__NSConcreteStackBlock", stackClass, "runtime.cpp of libclosure"),
    };
    return table;
}

} // namespace libsystem
} // namespace machost
