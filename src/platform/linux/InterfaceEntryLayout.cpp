#include "platform/linux/InterfaceEntryLayout.h"

#include "platform/ByteOrder.h"
#include "platform/InterfaceEntries.h"

#include <net/if.h> // IWYU pragma: keep (IFF_LOOPBACK)
#include <netinet/in.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace platform {
namespace {

// BSD's interface types.
constexpr unsigned char typeOther = 1;
constexpr unsigned char typeEthernet = 6;
constexpr unsigned char typeLoopback = 24;

constexpr std::size_t smallestLinkAddress = 20;

std::string interfaceName(const ifaddrs& address) {
    const std::string label = address.ifa_name;
    return label.substr(0, label.find(':'));
}

// An entry with a zeroed socket address of that length, its length and family filled in.
std::string newEntry(const std::string& name, std::size_t length, int family) {
    std::string made(entry::nameSize + std::max<std::size_t>(length, entry::smallestAddress), '\0');
    std::memcpy(&made[0], name.data(), std::min<std::size_t>(name.size(), entry::nameSize));
    made[entry::nameSize + entry::lengthAt] = static_cast<char>(length);
    made[entry::nameSize + entry::familyAt] = static_cast<char>(family);
    return made;
}

unsigned char typeOf(const ifaddrs& link, std::size_t addressLength) {
    if (link.ifa_flags & IFF_LOOPBACK) return typeLoopback;
    return addressLength == 6 ? typeEthernet : typeOther;
}

std::string linkEntry(const ifaddrs& link) {
    sockaddr_ll hardware;
    std::memcpy(&hardware, link.ifa_addr, sizeof hardware);
    const std::string name = interfaceName(link);
    const std::size_t addressLength =
        (link.ifa_flags & IFF_LOOPBACK) ? 0
                                        : std::min<std::size_t>(hardware.sll_halen, sizeof hardware.sll_addr);
    const std::size_t used = entry::linkDataAt + name.size() + addressLength;
    const std::size_t length = std::max(smallestLinkAddress, (used + 3) / 4 * 4);

    std::string made = newEntry(name, length, entry::familyLink);
    char* address = &made[entry::nameSize];
    writeNative(address + 2, static_cast<std::uint16_t>(hardware.sll_ifindex));
    address[4] = static_cast<char>(typeOf(link, addressLength));
    address[entry::linkNameLengthAt] = static_cast<char>(name.size());
    address[entry::linkAddressLengthAt] = static_cast<char>(addressLength);
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result): its length stands in front
    std::memcpy(address + entry::linkDataAt, name.data(), name.size());
    std::memcpy(address + entry::linkDataAt + name.size(), hardware.sll_addr, addressLength);
    return made;
}

// Behind the family, the layouts of this system's IPv4 and IPv6 socket addresses are BSD's.
template <class Address>
std::string addressEntry(const ifaddrs& address, int family) {
    std::string made = newEntry(interfaceName(address), sizeof(Address), family);
    constexpr std::size_t head = sizeof(sa_family_t);
    std::memcpy(&made[entry::nameSize + head], reinterpret_cast<const char*>(address.ifa_addr) + head,
                sizeof(Address) - head);
    return made;
}

bool isOf(const ifaddrs* address, int family) {
    return address->ifa_addr && address->ifa_addr->sa_family == family;
}

} // namespace

std::vector<std::string> entriesInBSDForm(const ifaddrs* list) {
    std::vector<std::string> entries;
    for (const ifaddrs* link = list; link; link = link->ifa_next) {
        if (!isOf(link, AF_PACKET)) continue;
        entries.push_back(linkEntry(*link));
        const std::string name = interfaceName(*link);
        for (const ifaddrs* address = list; address; address = address->ifa_next) {
            if (interfaceName(*address) != name) continue;
            if (isOf(address, AF_INET))
                entries.push_back(addressEntry<sockaddr_in>(*address, entry::familyIPv4));
            else if (isOf(address, AF_INET6))
                entries.push_back(addressEntry<sockaddr_in6>(*address, entry::familyIPv6));
        }
    }
    return entries;
}

} // namespace platform
