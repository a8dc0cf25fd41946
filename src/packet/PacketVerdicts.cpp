#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "config/FilterCheck.h"
#include "config/FilterIPAddresses.h"
#include "config/FilterServer.h"
#include "filter/FilterQuery.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "packet/HijackPacket.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"

#include <arpa/inet.h>
#include <cstdint>
#include <cstring>

namespace {

constexpr unsigned loopbackAddress = 0x7f000001;
constexpr int httpsPrefixLength = 8;

// The hosts that tell a device whether it sits behind a captive portal: never queried.
constexpr const char* bypassedHostNames[10] = {
    "captive.apple.com",
    "connectivitycheck.gstatic.com",
    "connectivitycheck.android.com",
    "clients3.google.com",
    "detectportal.firefox.com",
    "www.msftconnecttest.com",
    "www.msftncsi.com",
    "network-test.debian.org",
    "nmcheck.gnome.org",
    "connectivity-check.ubuntu.com",
};

// The packet id as a value, for log lines; 0 without a record.
void* packetIdOf(void* result) {
    void* id = nullptr;
    if (result) std::memcpy(static_cast<void*>(&id), result, sizeof id);
    return id;
}

// What a log line shows of a packet id.
unsigned shortId(void* packetId) { return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(packetId)); }

bool isLoopback(const in6_addr& address) {
    static const in6_addr loopback = [] {
        in6_addr parsed{};
        inet_pton(AF_INET6, "0:0:0:0:0:0:0:1", &parsed);
        return parsed;
    }();
    return std::memcmp(&address, &loopback, sizeof address) == 0;
}

int quickEvaluateIpv6(char* packet, void* packetId, int direction) {
    int port;
    const in6_addr remote = direction == directionInbound ? TCPPacket::srcIPAddressIpv6(packet, port)
                                                          : TCPPacket::dstIPAddressIpv6(packet, port);
    if (isLoopback(remote)) return verdictPass;
    if (direction == directionOutbound && FilterQuery::isFilteringDisabled()) {
        if (Configuration::isLogLevel(64)) {
            logf("--[0x%x] tcp ipv6 outbound. Filter disabled=%d", shortId(packetId), 1);
        }
        return verdictPass;
    }
    if (FilterQuery::isBlockedSSLIpv6(packet)) {
        if (Configuration::isLogLevel(16)) {
            auto text = Owned<GPString>::adopt(TCPPacket::formatIpAddressIpv6(remote));
            logf("--[0x%x] tcp ipv6 ssl packet dropped (ip %s port %d):", shortId(packetId), text->cstr(),
                 port);
        }
        return verdictDrop;
    }
    return verdictUndecided;
}

// Whether an address belongs to a filter server or to an update source.
bool isOwnTraffic(unsigned address) {
    FilterIPAddresses* snapshot = FilterIPAddresses::getCurrentIPAddresses();
    const bool own = FilterQuery::isFilteringIP(snapshot, address) || FilterCheck::isUpdateBypass(address);
    if (snapshot) snapshot->release();
    return own;
}

// The only one of the two that knows server and update addresses: the snapshots hold IPv4 alone.
int quickEvaluateIpv4(char* packet, void* packetId, int direction) {
    int port;
    const unsigned remote = direction == directionInbound ? TCPPacket::srcIPAddress(packet, port)
                                                          : TCPPacket::dstIPAddress(packet, port);
    if (remote != 0 && (remote == loopbackAddress || isOwnTraffic(remote))) return verdictPass;
    if (direction == directionOutbound && FilterQuery::isFilteringDisabled()) {
        if (Configuration::isLogLevel(64)) {
            logf("--[0x%x] tcp outbound. Filter disabled=%d", shortId(packetId), 1);
        }
        return verdictPass;
    }
    if (FilterQuery::isBlockedSSL(packet)) {
        if (Configuration::isLogLevel(16)) {
            logf("--[0x%x] tcp ssl packet dropped (ip 0x%x port %d):", shortId(packetId), remote, port);
        }
        return verdictDrop;
    }
    return verdictUndecided;
}

void logHttpsRedirect(char* packet, void* packetId) {
    // The IPv6 positions, whatever the version: of an IPv4 packet the line shows other bytes.
    int port;
    auto src =
        Owned<GPString>::adopt(TCPPacket::formatIpAddressIpv6(TCPPacket::srcIPAddressIpv6(packet, port)));
    auto dst =
        Owned<GPString>::adopt(TCPPacket::formatIpAddressIpv6(TCPPacket::dstIPAddressIpv6(packet, port)));
    logf("--[0x%x] https redirect src %s dst %s", shortId(packetId), src->cstr(), dst->cstr());
}

// The redirect of a blocked connection: the verdict, or verdictUndecided when it does not fit the packet.
int deliverRedirect(char* packet, sysctl_result* result, void* packetId, const char* redirect, bool https) {
    const bool logsVerdict = Configuration::isLogLevel(64);
    if (https) {
        if (result) {
            if (logsVerdict) logHttpsRedirect(packet, packetId);
            setRedirectData(result, redirect, TCPPacket::isVersionIPV6(packet));
            result->redirectIsHttps = 1;
        }
        if (logsVerdict) {
            logf("--[0x%x] https redirect: res=%d to: %s", shortId(packetId), verdictRedirect, redirect);
        }
        return verdictRedirect;
    }
    if (!TCPPacket::redirectPacket(packet, redirect)) {
        if (logsVerdict) logf("--[0x%x] Inbound TCP packet is too small to redirect.\n", shortId(packetId));
        return verdictUndecided;
    }
    if (result) {
        setRedirectData(result, redirect, TCPPacket::isVersionIPV6(packet));
        result->redirectIsHttps = 0;
    }
    if (logsVerdict) {
        logf("--[0x%x] http packet redirected and repeated: %d (to: %s)", shortId(packetId), verdictRedirect,
             redirect);
    }
    return verdictRedirect;
}

// What the connection's record says about a packet; verdictUndecided without one that applies.
int evaluateRecord(char* packet, sysctl_result* result, void* packetId, int direction) {
    const HijackPacket::Found record(packet);
    if (!record) return verdictUndecided;

    if (!record->isResolved()) {
        const int verdict = direction == directionInbound ? verdictDrop : verdictHold;
        if (Configuration::isLogLevel(64)) {
            logf("--[0x%x] hijack packet exists but not resolved: %d", shortId(packetId), verdict);
        }
        return verdict;
    }
    const char* redirect = record->redirectURL();
    if (!redirect) {
        if (result && record->getTimeout() != 0) result->urlSeen = 1;
        if (Configuration::isLogLevel(64)) {
            logf("--[0x%x] packet resolved but not redirected: %d", shortId(packetId), verdictPass);
        }
        return verdictPass;
    }
    return deliverRedirect(packet, result, packetId, redirect, record->isHttps());
}

// Whether a TLS URL leads to the filter server itself. A bare address has no scheme and loses 8 of its own
// bytes; when nothing is left it passes, since an empty text starts with every name.
bool isServerBehindScheme(GPString* url, GPString* serverName) {
    auto host = Owned<GPString>::adopt(url->copy());
    host->subString(httpsPrefixLength);
    return host->startsWith(serverName);
}

// Whether a URL is never queried: a connectivity probe, or traffic to the filter server.
bool passesUnqueried(GPString* url, bool https) {
    if (inBypassedHostNames(url)) return true;

    const bool verbose = Configuration::isVerbose();
    FilterServer* server = Configuration::getCurrentServer();
    GPString* name = server ? server->getName() : nullptr;
    if (!name) {
        if (verbose) logf(" policyEvaluate url passed through because server or server name doesnt exist");
        return true;
    }
    // The two tests of the whole URL hardly ever hold, since it begins with its scheme.
    if (url->startsWith(name)) {
        if (verbose) logf(" policyEvaluate url passed through starts with %s", name->cstr());
        return true;
    }
    if (url->startsWith("localhost")) {
        if (verbose) logf(" policyEvaluate url passed through starts with localhost");
        return true;
    }
    if (https && isServerBehindScheme(url, name)) {
        if (verbose) logf(" policyEvaluate url passed through starts with %s", name->cstr());
        return true;
    }
    return false;
}

// An outbound packet without a record that applies: queries its URL, if it has one.
int evaluateUrl(char* packet, sysctl_result* result, void* packetId) {
    auto url = Owned<GPString>::adopt(TCPPacket::httpsURL(packet));
    const bool https = static_cast<bool>(url);
    if (!https) url = Owned<GPString>::adopt(TCPPacket::httpURL(packet));
    if (!url) {
        result->urlSeen = 0;
        return verdictPass;
    }
    result->urlSeen = 1;
    if (passesUnqueried(url.get(), https)) return verdictPass;

    if (Configuration::isVerbose()) {
        if (TCPPacket::isVersionIPV6(packet)) {
            logf("Ipv6 checking url %s", url->cstr());
        } else {
            logf("checking url %s", url->cstr());
        }
    }
    HijackPacket::create(packet, url->cstr(), https);
    FilterQuery::send(url->cstr(), https, result);
    if (Configuration::isLogLevel(64)) {
        logf("--[0x%x] policyEvaluate QUERYING url : %s --result=%d", shortId(packetId), url->cstr(),
             verdictHold);
    }
    return verdictHold;
}

} // namespace

int tcpInBoundCallback(char* packet, void* result) {
    if (Configuration::filteringDisabled()) return verdictPass;
    // Only this direction asks for a server of a known kind.
    FilterServer* server = Configuration::getCurrentServer();
    if (!server || server->getServerType() == ServerTypeUnknown) return verdictPass;
    void* packetId = packetIdOf(result);
    if (!TCPPacket::isUsablePacket(packet)) return verdictPass;
    int verdict = quickEvaluate(packet, nullptr, packetId, directionInbound);
    if (verdict == verdictUndecided) verdict = policyEvaluate(packet, result, packetId, directionInbound);
    return verdict == verdictUndecided ? verdictPass : verdict;
}

int tcpOutBoundCallback(char* packet, void* result) {
    if (Configuration::filteringDisabled() || !TCPPacket::isUsablePacket(packet)) return verdictPass;
    void* packetId = packetIdOf(result);
    int verdict = quickEvaluate(packet, nullptr, packetId, directionOutbound);
    if (verdict == verdictUndecided) verdict = policyEvaluate(packet, result, packetId, directionOutbound);
    return verdict == verdictUndecided ? verdictPass : verdict;
}

int quickEvaluate(char* packet, void*, void* packetId, int direction) {
    if (TCPPacket::isVersionIPV6(packet)) return quickEvaluateIpv6(packet, packetId, direction);
    return quickEvaluateIpv4(packet, packetId, direction);
}

int policyEvaluate(char* packet, void* result, void* packetId, int direction) {
    auto* record = static_cast<sysctl_result*>(result);
    const int verdict = evaluateRecord(packet, record, packetId, direction);
    if (verdict != verdictUndecided) return verdict;
    if (direction == directionInbound) return verdictPass;
    if (direction != directionOutbound) return verdictUndecided;
    return evaluateUrl(packet, record, packetId);
}

bool inBypassedHostNames(GPString* url) {
    auto host = Owned<GPString>::adopt(url->copy());
    const int scheme = host->find("//", false);
    if (scheme < 1) return false;
    host->subString(scheme + 2);
    const int path = host->find("/", false);
    if (path > 0) host->subString(0, path);

    const bool verbose = Configuration::isVerbose();
    if (verbose) logf("inBypassedHostNames parsed host: %s", host->cstr());
    for (const char* name : bypassedHostNames) {
        if (host->isEqual(name)) {
            if (verbose) logf("inBypassedHostNames bypassing host: %s", host->cstr());
            return true;
        }
        GPString dotted(".");
        dotted.append(name);
        const int at = host->find(&dotted, false);
        if (at > 0 && at == host->length() - dotted.length()) {
            if (verbose) logf("inBypassedHostNames bypassing host(end): %s", host->cstr());
            return true;
        }
    }
    return false;
}
