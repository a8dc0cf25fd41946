#pragma once

// Records and numbers of the Mac for files: <sys/stat.h> and <sys/dirent.h> with 64-bit file numbers, <fcntl.h>,
// <pwd.h>, <poll.h>.

#include <cstddef>
#include <cstdint>

namespace machost::libsystem::mac {

struct Time {
    std::int64_t seconds, nanoseconds;
};

struct Stat {
    std::int32_t device;
    std::uint16_t mode, links;
    std::uint64_t number;
    std::uint32_t user, group;
    std::int32_t specialDevice;
    Time accessed, modified, changed, made;
    std::int64_t size, blocks;
    std::int32_t blockSize;
    std::uint32_t flags, generation;
    std::int32_t spare;
    std::int64_t spares[2];
};
static_assert(sizeof(Stat) == 144 && offsetof(Stat, number) == 8 && offsetof(Stat, accessed) == 32);
static_assert(offsetof(Stat, size) == 96 && offsetof(Stat, blockSize) == 112);

struct Entry {
    std::uint64_t number, place;
    std::uint16_t recordLength, nameLength;
    std::uint8_t type;
    char name[1024];
};
static_assert(sizeof(Entry) == 1048 && offsetof(Entry, type) == 20 && offsetof(Entry, name) == 21);

struct Account {
    char* name;
    char* password;
    std::uint32_t user, group;
    std::int64_t changeTime;
    char* accessClass;
    char* fullName;
    char* home;
    char* shell;
    std::int64_t expiry;
};
static_assert(sizeof(Account) == 72 && offsetof(Account, changeTime) == 24 && offsetof(Account, home) == 48);

// Commands and flags of fcntl.
constexpr int getDescriptorFlags = 1, setDescriptorFlags = 2, getFlags = 3, setFlags = 4;
constexpr int duplicate = 0, duplicateCloseOnExec = 67;
constexpr int accessMode = 3, nonBlocking = 4, append = 8, async = 0x40;

// More flags of open.
constexpr int noFollow = 0x100, create = 0x200, cut = 0x400, exclusive = 0x800, noTerminal = 0x20000,
              folder = 0x100000, closeOnExec = 0x1000000;

} // namespace machost::libsystem::mac
