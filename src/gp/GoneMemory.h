#pragma once

// Memory that stays where it is though nobody may read it any more.

#include <cstddef>

// Each compiler says in its own way that it builds for an address checker.
#if defined(__SANITIZE_ADDRESS__)
#define OSTLER_ADDRESSES_CHECKED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OSTLER_ADDRESSES_CHECKED
#endif
#endif

#ifdef OSTLER_ADDRESSES_CHECKED
#include <sanitizer/asan_interface.h>
#endif

// Has an address checker tell of whoever still reads it.
inline void markGone([[maybe_unused]] const void* memory, [[maybe_unused]] std::size_t size) {
#ifdef OSTLER_ADDRESSES_CHECKED
    ASAN_POISON_MEMORY_REGION(memory, size);
#endif
}
