#include "dns/DNSPacket.h"

#include "config/Configuration.h"
#include "dns/DNSPacketState.h"
#include "gp/GPLog.h"
#include "gp/GPMap.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "platform/ByteOrder.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

constexpr int protocolV4 = 9;
constexpr int protocolUDP = 17;
constexpr int portDNS = 53;

// Positions behind the UDP header.
constexpr int udpHeaderSize = 8;
constexpr int questionCount = 4;
constexpr int answerCount = 6;
constexpr int dnsHeaderSize = 12;

// Behind the name of a question stand its type and its class.
constexpr int typeSize = 2;
constexpr int typeAndClassSize = 4;
constexpr int typeA = 1;

// A redirect host out of the table. Its reference is taken and given back under the tables' lock, so that the
// text outlives tables that are cleared meanwhile.
class RedirectHost {
public:
    RedirectHost() = default;
    ~RedirectHost() {
        if (!host_) return;
        GPMutexLock lock(dnsState.mutex);
        host_->release();
    }

    RedirectHost(const RedirectHost&) = delete;
    RedirectHost& operator=(const RedirectHost&) = delete;

    // Looks up a host that was asked for, by its exact text.
    bool find(const char* asked) {
        GPMutexLock lock(dnsState.mutex);
        if (!dnsState.map) initMap();
        auto* found = static_cast<GPString*>(dnsState.map->objectForKey(asked));
        if (!found || found->length() == 0) return false;
        found->retain();
        host_ = found;
        return true;
    }

    const char* text() const { return host_->cstr(); }

    // Its address in network order, or 0.
    in_addr address() const {
        in_addr address{};
        GPMutexLock lock(dnsState.mutex);
        GPMutexLock ipv4Lock(dnsState.ipv4Mutex);
        if (!dnsState.mapIpv4) return address;
        auto* dotted = static_cast<GPString*>(dnsState.mapIpv4->objectForKey(text()));
        if (dotted) inet_aton(dotted->cstr(), &address);
        return address;
    }

private:
    GPString* host_ = nullptr;
};

// The first question of type A for a host of the table. A name that cannot be read ends the search.
bool findRedirect(char* packet, char* message, RedirectHost& redirect) {
    const char* const end = packet + TCPPacket::packetRoom;
    char* position = message + dnsHeaderSize;
    for (int left = platform::readBig16(message + questionCount); left > 0; --left) {
        char name[dnsNameBufferSize] = {};
        unsigned short nameOffset = 0;
        if (!readName(position, name, message, nameOffset, packet, end)) return false;
        if (end - position < typeSize) return false;
        if (platform::readBig16(position) == typeA && redirect.find(name)) return true;
        if (end - position < typeAndClassSize) return false;
        position += typeAndClassSize;
    }
    return false;
}

} // namespace

bool DNSPacket::isUsableDNSPacket(char* packet) {
    switch (packet[0] & 0xf0) {
        case 0x60:
            if (!TCPPacket::isProtocolUDP(packet)) return false;
            break;
        case 0x40:
            if (packet[protocolV4] != protocolUDP) return false;
            break;
        default:
            return false;
    }
    // The source port: a query, which has 53 as its destination, does not qualify.
    return platform::readBig16(packet + TCPPacket::ipHeaderSize(packet)) == portDNS;
}

bool DNSPacket::remap(char* packet, void* result) {
    char* message = packet + TCPPacket::ipHeaderSize(packet) + udpHeaderSize;
    if (platform::readBig16(message + questionCount) == 0) return false;
    if (platform::readBig16(message + answerCount) == 0) return false;

    RedirectHost redirect;
    if (!findRedirect(packet, message, redirect)) return false;
    const in_addr address = redirect.address();
    if (!result) return true;

    if (Configuration::isVerbose()) logf("--redirecting DNS host %s", redirect.text());
    auto* record = static_cast<sysctl_result*>(result);
    // Without an ending zero where the text fills the field.
    std::memset(record->redirectUrl, 0, sizeof record->redirectUrl);
    std::memcpy(record->redirectUrl, redirect.text(), strnlen(redirect.text(), sizeof record->redirectUrl));
    record->redirectAddress = address.s_addr;
    if (Configuration::isVerbose()) {
        char dotted[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &address, dotted, sizeof dotted);
        logf("-- got address=%s for redirect DNS host %s", dotted, redirect.text());
    }
    return true;
}
