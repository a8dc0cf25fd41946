// Names and addresses.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/SocketAddresses.h"
#include "machost/world/Network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <optional>
#include <string>
#include <vector>

namespace machost::libsystem {
namespace {

// The answer of a thread's last look-up, which stays until its next one.
class LastEntry {
public:
    mac::HostEntry* hold(world::Host found, int family) {
        found_ = std::move(found);
        aliases_.clear();
        addresses_.clear();
        for (std::string& alias : found_.aliases)
            aliases_.push_back(alias.data());
        for (std::string& address : found_.addresses)
            addresses_.push_back(address.data());
        aliases_.push_back(nullptr);
        addresses_.push_back(nullptr);
        const int length = family == mac::familyIPv6 ? sizeof(in6_addr) : sizeof(in_addr);
        entry_ = {found_.name.data(), aliases_.data(), family, length, addresses_.data()};
        return &entry_;
    }

private:
    world::Host found_;
    std::vector<char*> aliases_, addresses_;
    mac::HostEntry entry_{};
};

mac::HostEntry* playedHost2(const char* name, int family) {
    static thread_local LastEntry last;
    const int host = hostFamily(family);
    if (!name || (host != AF_INET && host != AF_INET6)) return nullptr;
    std::optional<world::Host> found = world::lookUp(name, host);
    return found ? last.hold(std::move(*found), family) : nullptr;
}

mac::HostEntry* playedHost(const char* name) { return playedHost2(name, mac::familyIPv4); }

const char* playedNtop(int family, const void* address, char* text, socklen_t size) {
    const ErrorScope scope;
    return inet_ntop(hostFamily(family), address, text, size);
}

int playedPton(int family, const char* text, void* address) {
    const ErrorScope scope;
    return inet_pton(hostFamily(family), text, address);
}

} // namespace

const ImportTable& nameImports() {
    static const auto& table = *new ImportTable{
        function("_gethostbyname", playedHost, "gethostbyname(3) of Libinfo"),
        function("_gethostbyname2", playedHost2, "gethostbyname(3) of Libinfo"),
        function("_inet_ntop", playedNtop, "inet_ntop.c of Libc"),
        function("_inet_pton", playedPton, "inet_pton.c of Libc"),
        function("_inet_aton", &inet_aton, "inet_addr.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
