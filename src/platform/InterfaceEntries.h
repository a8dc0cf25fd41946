#pragma once

// The machine's interface entries, as ioctl gives them for SIOCGIFCONF on a BSD system. Each entry is the
// interface's name in 16 bytes and a socket address of the BSD form: its length in byte 0, its family in
// byte 1, the whole entry taking 16 bytes plus the larger of 16 and that length. The families are BSD's on
// every system. An interface's link entry comes ahead of its addresses.

#include "platform/Service.h"

namespace platform {

// Families of entries, and places in their socket addresses.
namespace entry {
inline constexpr int nameSize = 16;
inline constexpr int smallestAddress = 16;
inline constexpr int familyIPv4 = 2;
inline constexpr int familyLink = 18;
inline constexpr int familyIPv6 = 30;
inline constexpr int lengthAt = 0;
inline constexpr int familyAt = 1;
inline constexpr int addressIPv4At = 4;
inline constexpr int addressIPv6At = 8;
inline constexpr int linkNameLengthAt = 5;
inline constexpr int linkAddressLengthAt = 6;
inline constexpr int linkDataAt = 8;
} // namespace entry

class InterfaceEntries {
public:
    // A datagram socket of the IPv4 family, for `list`; below 1 on failure. Any thread.
    virtual int open() = 0;

    // Writes as many whole entries as fit into the `length` bytes at `buffer` and sets `length` to what they
    // take. False on failure. Any thread.
    virtual bool list(int socket, char* buffer, int& length) = 0;

    // Closes what `open` gave.
    virtual void close(int socket) = 0;

protected:
    ~InterfaceEntries() = default;
};

extern Service<InterfaceEntries> interfaceEntriesService;

inline InterfaceEntries& interfaceEntries() { return interfaceEntriesService.get(); }

// The backend of this system, whatever is in force.
InterfaceEntries& systemInterfaceEntries();

} // namespace platform
