#pragma once

// Objects of the Mac's POSIX threads, <sys/_pthread/_pthread_types.h>: a signature, then room that only the library
// looks at. The signatures of static initialisers are those of libpthread's pthread_impl.h.

#include <cstdint>

namespace machost::libsystem::mac {

struct Mutex {
    std::int64_t signature;
    char room[56];
};
struct MutexAttributes {
    std::int64_t signature;
    char room[8];
};
struct Condition {
    std::int64_t signature;
    char room[40];
};
struct Once {
    std::int64_t signature;
    char room[8];
};
struct ThreadAttributes {
    std::int64_t signature;
    char room[56];
};
static_assert(sizeof(Mutex) == 64 && sizeof(MutexAttributes) == 16 && sizeof(Condition) == 48);
static_assert(sizeof(Once) == 16 && sizeof(ThreadAttributes) == 64);

constexpr std::int64_t mutexMade = 0x4D555458, mutexStatic = 0x32AAABA7, mutexStaticErrorCheck = 0x32AAABA1,
                       mutexStaticRecursive = 0x32AAABA2;
constexpr std::int64_t mutexAttributesMade = 0x4D545841;
constexpr std::int64_t conditionMade = 0x434F4E44, conditionStatic = 0x3CB0B1BB;
constexpr std::int64_t onceMade = 0x4F4E4345, onceStatic = 0x30B1BCBA;

constexpr int mutexNormal = 0, mutexErrorCheck = 1, mutexRecursive = 2;

} // namespace machost::libsystem::mac
