#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "platform/NameLookup.h"

#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t fieldSize = sizeof(sysctl_result::redirectUrl);

// Where the host stands in the URL field. A full field has no ending zero, so nothing looks for one.
struct HostSpan {
    std::size_t start;
    std::size_t length;
};

HostSpan hostIn(const char* field) {
    const std::string_view text(field, strnlen(field, fieldSize));
    std::size_t start = 0;
    for (const std::string_view scheme : {std::string_view("https://"), std::string_view("http://")}) {
        const std::size_t at = text.find(scheme);
        if (at == std::string_view::npos) continue;
        start = at + scheme.size();
        break;
    }
    const std::size_t slash = text.find('/', start);
    return {start, (slash == std::string_view::npos ? text.size() : slash) - start};
}

// strncpy of the field's size.
void storeUrl(char* field, const char* url) {
    const std::size_t length = strnlen(url, fieldSize);
    std::memcpy(field, url, length);
    std::memset(field + length, 0, fieldSize - length);
}

std::string printed(int family, const void* address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address, text, sizeof text);
    return text;
}

unsigned shortId(const sysctl_result* result) { return static_cast<unsigned>(result->packetId); }

void storeIpv4(sysctl_result* result, const std::string& host) {
    platform::HostEntry entry;
    if (!platform::nameLookup().gethostbyname2(host.c_str(), AF_INET, entry)) return;

    const bool logsVerdict = Configuration::isLogLevel(64);
    const unsigned id = shortId(result);
    if (logsVerdict) {
        logf("[0x%x] host is %s official name is %s\n", id, host.c_str(), entry.officialName.c_str());
        for (const std::string& alias : entry.aliases)
            logf("[0x%x] has alias  %s\n", id, alias.c_str());
    }
    // The last address of the list stays.
    for (const std::string& address : entry.addresses) {
        if (address.size() != sizeof result->redirectAddress) continue;
        std::memcpy(&result->redirectAddress, address.data(), address.size());
        if (logsVerdict) logf("[0x%x] has address  %s\n", id, printed(AF_INET, address.data()).c_str());
    }
}

// False when the host has no IPv6 address.
bool storeIpv6(sysctl_result* result, const std::string& host) {
    platform::HostEntry entry;
    if (!platform::nameLookup().gethostbyname2(host.c_str(), AF_INET6, entry)) return false;

    const bool logsVerdict = Configuration::isLogLevel(64);
    const unsigned id = shortId(result);
    if (logsVerdict) {
        logf("[0x%x] Ipv6 host is %s official name is %s\n", id, host.c_str(), entry.officialName.c_str());
        for (const std::string& alias : entry.aliases)
            logf("[0x%x] Ipv6 has alias  %s\n", id, alias.c_str());
    }
    for (const std::string& address : entry.addresses) {
        if (address.size() != sizeof result->redirectAddressIpv6) continue;
        std::memcpy(&result->redirectAddressIpv6, address.data(), address.size());
        if (logsVerdict) logf("[0x%x] Ipv6 has address  %s\n", id, printed(AF_INET6, address.data()).c_str());
    }
    return true;
}

// A host that is an IPv6 address itself: stored, and its printed form written over the host where that fits
// with its ending zero.
void storeIpv6Literal(sysctl_result* result, const std::string& host, const HostSpan& span) {
    in6_addr address;
    if (inet_pton(AF_INET6, host.c_str(), &address) != 1) return;
    result->redirectAddressIpv6 = address;
    char* text = result->redirectUrl + span.start;
    const bool written = inet_ntop(AF_INET6, &address, text, static_cast<socklen_t>(span.length)) != nullptr;
    if (written && Configuration::isLogLevel(64))
        logf("[0x%x] Ipv6 has address  %s\n", shortId(result), text);
}

} // namespace

void setRedirectData(sysctl_result* result, const char* url, bool ipv6) {
    if (!result || !url) return;
    storeUrl(result->redirectUrl, url);
    const HostSpan span = hostIn(result->redirectUrl);
    const std::string host(result->redirectUrl + span.start, span.length);
    if (!ipv6) {
        storeIpv4(result, host);
    } else if (!storeIpv6(result, host)) {
        storeIpv6Literal(result, host, span);
    }
}
