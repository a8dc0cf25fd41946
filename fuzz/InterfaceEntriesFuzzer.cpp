// The walk over packed interface entries, and the entries that this system makes.
//
// The first byte says what comes: 0, a listing as it stands, with the wanted family in the byte behind; else a list of
// the system's addresses, which is laid out as a listing, whose walk must find them all again.

#include "fuzz/FuzzInput.h"
#include "fuzz/Require.h"
#include "gp/GPArray.h"
#include "gp/GPNetDevice.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/InterfaceEntries.h"
#include "platform/linux/InterfaceEntryLayout.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

using fuzzing::FuzzInput;
using fuzzing::require;
namespace entry = platform::entry;

// Names and their addresses in order.
using Addresses = std::map<std::string, std::vector<std::string>>;

std::string printed(int family, const char* address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address, text, sizeof text);
    return text;
}

// The listing read entry by entry: what the walk must find of a wanted family.
Addresses plainReading(const std::string& listing, GPIPType type) {
    Addresses found;
    std::string left = listing;
    while (left.size() >= 32) {
        const std::string name(left.c_str(), strnlen(left.c_str(), 16));
        const std::string address = left.substr(16);
        const bool ipv4 = address[1] == entry::familyIPv4 && type != GPIPTypeV6;
        const bool ipv6 = address[1] == entry::familyIPv6 && type != GPIPTypeV4;
        if (ipv4) found[name].push_back(printed(AF_INET, address.data() + 4));
        if (ipv6 && address.size() >= 24) found[name].push_back(printed(AF_INET6, address.data() + 8));
        const std::size_t length = static_cast<unsigned char>(address[0]);
        left.erase(0, 16 + std::max<std::size_t>(16, length));
    }
    return found;
}

bool isHardwareAddress(const std::string& text) {
    if (text.size() != 17) return false;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (i % 3 == 2 ? text[i] != ':' : !std::strchr("0123456789abcdef", text[i])) return false;
    return true;
}

void readListing(const std::string& listing, GPIPType type) {
    const Addresses expected = plainReading(listing, type);
    // On the heap and no larger than the listing, so that a step out of it is seen.
    const std::vector<char> bytes(listing.begin(), listing.end());
    const auto devices = Owned<GPArray>::adopt(
        GPNetDevice::devicesInEntries(bytes.data(), static_cast<int>(bytes.size()), type));
    require(static_cast<std::size_t>(devices->count()) == expected.size());
    for (int i = 0; i < devices->count(); ++i) {
        auto* device = static_cast<GPNetDevice*>(devices->objectAtIndex(i));
        const auto known = expected.find(device->adapterName()->cstr());
        require(known != expected.end());
        require(device->ipAddresses()->count() == static_cast<int>(known->second.size()));
        for (int j = 0; j < device->ipAddresses()->count(); ++j)
            require(static_cast<GPString*>(device->ipAddresses()->objectAtIndex(j))
                        ->isEqual(known->second[static_cast<std::size_t>(j)].c_str()));
        require(!device->macAddress() || isHardwareAddress(device->macAddress()->cstr()));
        const int family = device->addressFamily();
        require(family == 0 || family == entry::familyIPv4 || family == entry::familyIPv6);
    }
}

// An address of the system's own list, with what it points at.
struct SystemAddress {
    std::string name;
    sockaddr_storage address{};
    bool present = true;
    ifaddrs node{};
};

SystemAddress takeAddress(FuzzInput& input) {
    SystemAddress made;
    const std::uint8_t kind = input.byte();
    made.name = "en" + std::string(1, static_cast<char>('0' + kind / 16 % 4));
    if (kind & 0x80) made.name += ":label";
    made.node.ifa_flags = kind & 0x40 ? IFF_LOOPBACK : 0;
    const std::string bytes = input.run().substr(0, sizeof made.address - sizeof(sa_family_t));
    std::memcpy(reinterpret_cast<char*>(&made.address) + sizeof(sa_family_t), bytes.data(), bytes.size());
    constexpr int families[] = {AF_PACKET, AF_INET, AF_INET6, AF_UNIX};
    made.address.ss_family = static_cast<sa_family_t>(families[kind % 4]);
    made.present = kind % 8 != 7;
    return made;
}

void layOut(FuzzInput& input) {
    std::vector<SystemAddress> addresses;
    while (!input.empty() && addresses.size() < 64)
        addresses.push_back(takeAddress(input));
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        SystemAddress& one = addresses[i];
        one.node.ifa_name = &one.name[0];
        one.node.ifa_addr = one.present ? reinterpret_cast<sockaddr*>(&one.address) : nullptr;
        one.node.ifa_next = i + 1 < addresses.size() ? &addresses[i + 1].node : nullptr;
    }
    std::string listing;
    for (const std::string& one :
         platform::entriesInBSDForm(addresses.empty() ? nullptr : &addresses[0].node)) {
        const std::size_t length = static_cast<unsigned char>(one.at(16));
        require(one.size() == 16 + std::max<std::size_t>(16, length));
        listing += one;
    }
    readListing(listing, GPIPTypeAny);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    if (input.byte() != 0) {
        layOut(input);
        return 0;
    }
    const auto type = static_cast<GPIPType>(input.byte() % 3);
    // As many entries as no machine has; the walk looks each name up among those before.
    readListing(input.rest().substr(0, 64 * 1024), type);
    return 0;
}
