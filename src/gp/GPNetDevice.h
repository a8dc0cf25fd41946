#pragma once

// One network interface: name, addresses as text, hardware address. The static operations read the system
// afresh at each call and hold no shared state, so any thread may call them; a device belongs to one thread.

#include "gp/GPObject.h"

#include <cstdint>

class GPArray;
class GPString;

enum GPIPType { GPIPTypeV4 = 0, GPIPTypeV6 = 1, GPIPTypeAny = 2 };

class GPNetDevice : public GPObject {
public:
    // A device with one address and no hardware address; both texts are copied.
    GPNetDevice(const char* name, const char* address, int family);

    // A device with a hardware address alone, whose reference passes to it; everything else is null or 0.
    explicit GPNetDevice(GPString* macAddress);

    // The interface's name; borrowed.
    GPString* adapterName() { return adapterName_; }

    // The addresses as GPStrings, in the order in which the system listed them; borrowed.
    GPArray* ipAddresses() { return ipAddresses_; }

    // Six hexadecimal pairs with ":" between them, in lower case; borrowed; null if none was seen.
    GPString* macAddress() { return macAddress_; }

    // The family number that the interface entries give (2 for IPv4, 30 for IPv6), or 0 for addresses of
    // more than one family.
    int addressFamily() { return addressFamily_; }

    // Whether the name starts with "en", by the prefix rule of GPString, which holds both ways.
    bool isEthernet();

    // Whether one of the addresses is "127.0.0.1". The IPv6 loopback does not count.
    bool isLocalHost();

    // The interfaces that have an address of the wanted family, in a new array which the caller releases;
    // null when the system gives no listing.
    static GPArray* deviceList(GPIPType type);

    // The walk behind deviceList over `length` bytes of interface entries (see platform/InterfaceEntries.h).
    // The caller releases the array, which is never null.
    static GPArray* devicesInEntries(const char* entries, int length, GPIPType type);

    // Copies of all addresses of all devices, in a new array which the caller releases. The argument is not
    // looked at. Empty when the system gives no listing.
    static GPArray* ipAddresses(GPIPType type);

    // Copies of the hardware addresses of all devices that have one and are not local host, in a new array
    // which the caller releases. The argument is not looked at. Empty when the system gives no listing.
    static GPArray* macAddresses(GPIPType type);

    // Writes the address in network form to `out`, which takes 16 bytes for GPIPTypeV6 and 4 for all others.
    // False for a text that is no such address.
    static bool convertIPToNetwork(GPIPType type, GPString* address, void* out);

    // Has `callback` called at every change of the network's addresses, one call at a time, on a thread of
    // the watch's own if `background`, else on this one, which then does not return while the watch runs.
    // Meant for one registration in a process. Always true; a watch that cannot be set up stays silent.
    static bool registerIPChanges(void (*callback)(), bool background);

    const char* cclassName() override;

    ~GPNetDevice() override;

private:
    class EntryWalk;

    void takeMacAddress(GPString* address);

    GPString* adapterName_ = nullptr;
    GPArray* ipAddresses_ = nullptr;
    GPString* macAddress_ = nullptr;
    std::int32_t addressFamily_ = 0;
};
