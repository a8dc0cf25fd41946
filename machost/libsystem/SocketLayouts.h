#pragma once

// Records and numbers of the Mac for sockets: <sys/socket.h>, <netinet/in.h>, <net/if.h>, <net/if_dl.h>,
// <sys/kern_control.h>, <sys/ioccom.h>, <netdb.h>.

#include <cstddef>
#include <cstdint>

namespace machost::libsystem::mac {

constexpr int familyUnix = 1, familyIPv4 = 2, familyLink = 18, familyIPv6 = 30, familySystem = 32;
constexpr int systemControl = 2; // the protocol, and the address's kind
constexpr int socketLevel = 0xffff;

struct Address {
    std::uint8_t length, family;
    char data[14];
};
struct AddressIPv4 {
    std::uint8_t length, family;
    std::uint16_t port;
    std::uint32_t address;
    char zero[8];
};
struct AddressIPv6 {
    std::uint8_t length, family;
    std::uint16_t port;
    std::uint32_t flow;
    std::uint8_t address[16];
    std::uint32_t scope;
};
struct AddressLink {
    std::uint8_t length, family;
    std::uint16_t index;
    std::uint8_t type, nameLength, addressLength, selectorLength;
    char data[12]; // longer where name and address need it
};
struct AddressControl {
    std::uint8_t length, family;
    std::uint16_t kind;
    std::uint32_t id, unit, reserved[5];
};
static_assert(sizeof(Address) == 16 && sizeof(AddressIPv4) == 16 && sizeof(AddressIPv6) == 28);
static_assert(sizeof(AddressLink) == 20 && offsetof(AddressLink, data) == 8 && sizeof(AddressControl) == 32);

struct ControlInfo {
    std::uint32_t id;
    char name[96];
};
static_assert(sizeof(ControlInfo) == 100);

// The list of interfaces: entries of a name and an address that is at least 16 bytes long, one behind the other.
struct InterfaceList {
    std::int32_t length;
    char* room;
} __attribute__((packed));
static_assert(sizeof(InterfaceList) == 12);

constexpr std::size_t interfaceNameSize = 16;

constexpr unsigned long requestWaiting = 0x4004667f;       // FIONREAD
constexpr unsigned long requestNonBlocking = 0x8004667e;   // FIONBIO
constexpr unsigned long requestControlInfo = 0xc0644e03;   // CTLIOCGINFO
constexpr unsigned long requestInterfaceList = 0xc00c6924; // SIOCGIFCONF

// Options at the level of sockets.
constexpr int reuseAddress = 4, keepAlive = 8, broadcast = 0x20, reusePort = 0x200, sendBuffer = 0x1001,
              receiveBuffer = 0x1002, pendingError = 0x1007, socketType = 0x1008, noSignal = 0x1022;

// Flags of send and recv.
constexpr int outOfBand = 1, peek = 2, waitAll = 0x40, dontWait = 0x80;

struct HostEntry {
    char* name;
    char** aliases;
    int family;
    int length;
    char** addresses;
};
static_assert(sizeof(HostEntry) == 32);

} // namespace machost::libsystem::mac
