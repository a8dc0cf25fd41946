#include "machost/libsystem/SocketAddresses.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace machost::libsystem {
namespace {

struct Family {
    int mac;
    int host;
};
constexpr Family families[] = {
    {0, AF_UNSPEC}, {mac::familyUnix, AF_UNIX}, {mac::familyIPv4, AF_INET}, {mac::familyIPv6, AF_INET6}};

} // namespace

int hostFamily(int mac) {
    for (const Family& family : families)
        if (family.mac == mac) return family.host;
    return -1;
}

int macFamily(int host) {
    for (const Family& family : families)
        if (family.host == host) return family.mac;
    return -1;
}

bool hostAddress(const mac::Address* address, socklen_t length, sockaddr_storage& host,
                 socklen_t& hostLength) {
    host = {};
    if (address->family == mac::familyIPv4 && length >= sizeof(mac::AddressIPv4)) {
        mac::AddressIPv4 from{};
        std::memcpy(&from, address, sizeof from);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = from.port;
        to.sin_addr.s_addr = from.address;
        std::memcpy(&host, &to, hostLength = sizeof to);
        return true;
    }
    if (address->family == mac::familyIPv6 && length >= sizeof(mac::AddressIPv6)) {
        mac::AddressIPv6 from{};
        std::memcpy(&from, address, sizeof from);
        sockaddr_in6 to{};
        to.sin6_family = AF_INET6;
        to.sin6_port = from.port;
        to.sin6_flowinfo = from.flow;
        std::memcpy(&to.sin6_addr, from.address, sizeof to.sin6_addr);
        to.sin6_scope_id = from.scope;
        std::memcpy(&host, &to, hostLength = sizeof to);
        return true;
    }
    const bool known = address->family == mac::familyIPv4 || address->family == mac::familyIPv6;
    errno = known ? EINVAL : EAFNOSUPPORT;
    return false;
}

void macAddress(const sockaddr_storage& host, mac::Address* address, socklen_t* length) {
    if (!address || !length) return;
    char bytes[sizeof(mac::AddressIPv6)] = {};
    std::size_t size = sizeof(mac::Address);
    if (host.ss_family == AF_INET) {
        const auto& from = reinterpret_cast<const sockaddr_in&>(host);
        const mac::AddressIPv4 to{sizeof to, mac::familyIPv4, from.sin_port, from.sin_addr.s_addr, {}};
        std::memcpy(bytes, &to, size = sizeof to);
    } else if (host.ss_family == AF_INET6) {
        const auto& from = reinterpret_cast<const sockaddr_in6&>(host);
        mac::AddressIPv6 to{sizeof to, mac::familyIPv6,   from.sin6_port, from.sin6_flowinfo,
                            {},        from.sin6_scope_id};
        std::memcpy(to.address, &from.sin6_addr, sizeof to.address);
        std::memcpy(bytes, &to, size = sizeof to);
    } else {
        bytes[0] = static_cast<char>(size);
        bytes[1] = static_cast<char>(std::max(macFamily(host.ss_family), 0));
    }
    std::memcpy(address, bytes, std::min<std::size_t>(size, *length));
    *length = static_cast<socklen_t>(size);
}

} // namespace machost::libsystem
