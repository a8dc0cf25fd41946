#include "machost/world/Interfaces.h"

#include "machost/libsystem/SocketLayouts.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <cstring>

namespace machost::world {
namespace {

namespace mac = libsystem::mac;

// <net/if_types.h>
constexpr std::uint8_t typeEthernet = 6, typeLoopback = 24, typeOther = 1;

void append(std::string& entries, const char* name, const void* address, std::size_t size) {
    std::string entry(mac::interfaceNameSize, '\0');
    entry.replace(0, std::min<std::size_t>(std::strlen(name), mac::interfaceNameSize - 1), name,
                  std::min<std::size_t>(std::strlen(name), mac::interfaceNameSize - 1));
    entry.append(static_cast<const char*>(address), size);
    entry.resize(mac::interfaceNameSize + std::max(size, sizeof(mac::Address)), '\0');
    entries += entry;
}

void appendLink(std::string& entries, const char* name, const sockaddr_ll& link) {
    const std::size_t nameLength = std::strlen(name);
    const std::size_t addressLength = link.sll_hatype == ARPHRD_ETHER ? link.sll_halen : 0;
    mac::AddressLink head{};
    head.family = mac::familyLink;
    head.index = static_cast<std::uint16_t>(link.sll_ifindex);
    head.type = link.sll_hatype == ARPHRD_ETHER      ? typeEthernet
                : link.sll_hatype == ARPHRD_LOOPBACK ? typeLoopback
                                                     : typeOther;
    head.nameLength = static_cast<std::uint8_t>(nameLength);
    head.addressLength = static_cast<std::uint8_t>(addressLength);
    const std::size_t size =
        std::max(sizeof head, offsetof(mac::AddressLink, data) + nameLength + addressLength);
    head.length = static_cast<std::uint8_t>(size);
    std::string address(reinterpret_cast<const char*>(&head), offsetof(mac::AddressLink, data));
    address.append(name, nameLength);
    address.append(reinterpret_cast<const char*>(link.sll_addr), addressLength);
    address.resize(size, '\0');
    append(entries, name, address.data(), address.size());
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

std::string machineInterfaces() {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) return {};
    std::string entries;
    for (const ifaddrs* link = all; link; link = link->ifa_next) {
        if (!link->ifa_addr || link->ifa_addr->sa_family != AF_PACKET) continue;
        sockaddr_ll hardware{};
        std::memcpy(&hardware, link->ifa_addr, sizeof hardware);
        appendLink(entries, link->ifa_name, hardware);
        for (const ifaddrs* other = all; other; other = other->ifa_next) {
            if (other->ifa_addr && std::strcmp(other->ifa_name, link->ifa_name) == 0)
                appendAddress(entries, link->ifa_name, *other->ifa_addr);
        }
    }
    freeifaddrs(all);
    return entries;
}

} // namespace machost::world
