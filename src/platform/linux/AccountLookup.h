#pragma once

// One of the re-entrant account look-ups (getpwnam_r and its kin), with as much space as it wants.

#include <cerrno>
#include <cstddef>
#include <vector>

namespace platform {

// Calls `call(Entry* entry, char* space, std::size_t size, Entry** found)` until the space is large enough.
// Whether there is such an account; the entry's texts live in `space`.
template <class Entry, class Call>
bool lookUpAccount(Entry& entry, std::vector<char>& space, Call call) {
    constexpr std::size_t firstSize = 1024;
    Entry* found = nullptr;
    space.resize(firstSize);
    while (call(&entry, space.data(), space.size(), &found) == ERANGE)
        space.resize(2 * space.size());
    return found != nullptr;
}

} // namespace platform
