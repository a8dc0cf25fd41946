#include "machost/world/Interfaces.h"

#include "machost/libsystem/SocketLayouts.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <cstring>

namespace machost::world {
namespace {

namespace mac = libsystem::mac;

// <net/if_types.h>
constexpr std::uint8_t typeEthernet = 6, typeLoopback = 24, typeOther = 1;
constexpr std::size_t ethernetAddressLength = 6;

void append(std::string& entries, const char* name, const void* address, std::size_t size) {
    std::string entry(mac::interfaceNameSize, '\0');
    entry.replace(0, std::min<std::size_t>(std::strlen(name), mac::interfaceNameSize - 1), name,
                  std::min<std::size_t>(std::strlen(name), mac::interfaceNameSize - 1));
    entry.append(static_cast<const char*>(address), size);
    entry.resize(mac::interfaceNameSize + std::max(size, sizeof(mac::Address)), '\0');
    entries += entry;
}

// An address may bear a label of its interface's: the name, a colon, and more.
std::string interfaceName(const ifaddrs& entry) {
    const std::string label = entry.ifa_name;
    return label.substr(0, label.find(':'));
}

// What a link's address takes is in whole words: dlil.c of xnu.
void appendLink(std::string& entries, const ifaddrs& entry) {
    sockaddr_ll link{};
    std::memcpy(&link, entry.ifa_addr, sizeof link);
    const std::string name = interfaceName(entry);
    const std::size_t nameLength = name.size();
    const bool isLoopback = entry.ifa_flags & IFF_LOOPBACK;
    const std::size_t addressLength =
        isLoopback ? 0 : std::min<std::size_t>(link.sll_halen, sizeof link.sll_addr);
    mac::AddressLink head{};
    head.family = mac::familyLink;
    head.index = static_cast<std::uint16_t>(link.sll_ifindex);
    head.type = isLoopback ? typeLoopback : addressLength == ethernetAddressLength ? typeEthernet : typeOther;
    head.nameLength = static_cast<std::uint8_t>(nameLength);
    head.addressLength = static_cast<std::uint8_t>(addressLength);
    const std::size_t used = offsetof(mac::AddressLink, data) + nameLength + addressLength;
    const std::size_t size = std::max(sizeof head, (used + 3) / 4 * 4);
    head.length = static_cast<std::uint8_t>(size);
    std::string address(reinterpret_cast<const char*>(&head), offsetof(mac::AddressLink, data));
    address.append(name);
    address.append(reinterpret_cast<const char*>(link.sll_addr), addressLength);
    address.resize(size, '\0');
    append(entries, name.c_str(), address.data(), address.size());
}

void appendAddress(std::string& entries, const char* name, const sockaddr& address) {
    if (address.sa_family == AF_INET) {
        sockaddr_in from{};
        std::memcpy(&from, &address, sizeof from);
        const mac::AddressIPv4 to{sizeof to, mac::familyIPv4, 0, from.sin_addr.s_addr, {}};
        append(entries, name, &to, sizeof to);
    } else if (address.sa_family == AF_INET6) {
        sockaddr_in6 from{};
        std::memcpy(&from, &address, sizeof from);
        mac::AddressIPv6 to{sizeof to, mac::familyIPv6, 0, 0, {}, from.sin6_scope_id};
        std::memcpy(to.address, &from.sin6_addr, sizeof to.address);
        append(entries, name, &to, sizeof to);
    }
}

} // namespace

std::string interfacesInMacForm(const ifaddrs* list) {
    std::string entries;
    for (const ifaddrs* link = list; link; link = link->ifa_next) {
        if (!link->ifa_addr || link->ifa_addr->sa_family != AF_PACKET) continue;
        const std::string name = interfaceName(*link);
        appendLink(entries, *link);
        for (const ifaddrs* other = list; other; other = other->ifa_next) {
            if (other->ifa_addr && interfaceName(*other) == name)
                appendAddress(entries, name.c_str(), *other->ifa_addr);
        }
    }
    return entries;
}

std::string machineInterfaces() {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) return {};
    const std::string entries = interfacesInMacForm(all);
    freeifaddrs(all);
    return entries;
}

} // namespace machost::world
