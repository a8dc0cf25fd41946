#include "support/AllocationCounter.h"

#include "support/Sanitizers.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <utility>

namespace {

thread_local bool counting = false;
thread_local long allocations = 0;
thread_local long allocatedBytes = 0;
thread_local long givenBack = 0;
thread_local long untilFailure = 0;

void noteAllocation(std::size_t size) {
    if (!counting) return;
    ++allocations;
    allocatedBytes += static_cast<long>(size);
}

#ifndef OSTLER_SANITIZED
// Whether the allocation at hand is the one that fails.
bool failsNow() {
    if (untilFailure == 0 || --untilFailure > 0) return false;
    errno = ENOMEM;
    return true;
}

void noteFree(const void* block) {
    if (counting && block) ++givenBack;
}
#endif

} // namespace

#ifdef OSTLER_SANITIZED

// A sanitizer owns the allocator and tells of each allocation.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*, std::size_t),
                                                         void (*freed)(const volatile void*));

namespace {

const int hooksInstalled = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t size) { noteAllocation(size); }, [](const volatile void*) {});

} // namespace

#else

// These stand in front of the C library's own allocator for the whole program.
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
    if (failsNow()) return nullptr;
    noteAllocation(size);
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    if (failsNow()) return nullptr;
    noteAllocation(count * size);
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
    if (failsNow()) return nullptr;
    noteAllocation(size);
    noteFree(block);
    return __libc_realloc(block, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
    if (failsNow()) return nullptr;
    noteAllocation(size);
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    if (failsNow()) return nullptr;
    noteAllocation(size);
    return __libc_memalign(alignment, size);
}

void free(void* block) {
    noteFree(block);
    __libc_free(block);
}
}

#endif

namespace testsupport {

AllocationCounter::AllocationCounter() {
    allocations = 0;
    allocatedBytes = 0;
    givenBack = 0;
    counting = true;
}

AllocationCounter::~AllocationCounter() { counting = false; }

long AllocationCounter::count() const { return allocations; }

long AllocationCounter::bytes() const { return allocatedBytes; }

long AllocationCounter::left() const { return testsupport::sanitized ? 0 : allocations - givenBack; }

void failAllocation(long number) { untilFailure = number; }

bool allocationFailed() { return std::exchange(untilFailure, 0) == 0; }

} // namespace testsupport
