#pragma once

// The machost's functions as the program finds them, and the words of the Mac's kernel queues, <sys/event.h>.

#include "machost/Imports.h"

#include <cstdint>

namespace machosttest {

// A function of the C library, as the program calls it.
template <class Function>
Function* played(const char* symbol) {
    return reinterpret_cast<Function*>(
        const_cast<void*>(machost::findImport("/usr/lib/libSystem.B.dylib", symbol)->address));
}

// The error number of the last call that failed, the Mac's.
inline int programError() { return *played<int*()>("___error")(); }

struct Event {
    std::uint64_t ident;
    std::int16_t filter;
    std::uint16_t flags;
    std::uint32_t filterFlags;
    std::int64_t data;
    void* user;
};
struct Limit {
    std::int64_t seconds, nanoseconds;
};
constexpr std::int16_t readFilter = -1, writeFilter = -2;
constexpr std::uint16_t add = 1, remove = 2, enable = 4, disable = 8, clear = 0x20, dispatch = 0x80,
                        error = 0x4000, ended = 0x8000;

// Applies the changes and waits for one event, which is zero when none came; what the call answers.
inline int waitAt(int queue, const Event* changes, int count, std::int64_t seconds, Event& found) {
    const Limit limit{seconds, 0};
    found = {};
    return played<int(int, const Event*, int, Event*, int, const Limit*)>("_kevent")(queue, changes, count,
                                                                                     &found, 1, &limit);
}

} // namespace machosttest
