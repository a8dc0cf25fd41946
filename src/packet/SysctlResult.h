#pragma once

// The result record: what the daemon answers to the kernel extension for each packet, byte for byte.

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

// What `result` can say, and what the extension does with the packet then. A verdict is final but for a hold.
//
// The daemon keeps nothing of a packet that it has answered and cannot ask for it again. A held packet's verdict
// is given when the extension next presents a packet of its connection: the held one, or the retransmission of
// whoever sent it.
enum KernelResult : std::int32_t {
    resultPass = 0,     // releases it to go on
    resultDrop = 1,     // discards it
    resultRedirect = 2, // applies the redirect fields: answers the browser in the server's place
    resultHold = 3,     // keeps it from going on, without a final verdict
};

struct sysctl_result {
    std::uint64_t packetId;        // as it came in the packet record
    std::int32_t result;           // a KernelResult
    std::int32_t redirectIsHttps;  // 1 when the redirect belongs to a TLS connection
    std::int32_t urlSeen;          // 1 when the packet gave a URL or its connection's URL was allowed
    std::uint32_t redirectAddress; // IPv4 address of the redirect host, network order
    in6_addr redirectAddressIpv6;  // IPv6 address of the redirect host, network order
    char redirectUrl[1024];        // zero-padded; a URL of 1024 bytes or more is cut, without an ending zero
    std::uint8_t reserved[8];      // zero
};

static_assert(offsetof(sysctl_result, packetId) == 0);
static_assert(offsetof(sysctl_result, result) == 8);
static_assert(offsetof(sysctl_result, redirectIsHttps) == 12);
static_assert(offsetof(sysctl_result, urlSeen) == 16);
static_assert(offsetof(sysctl_result, redirectAddress) == 20);
static_assert(offsetof(sysctl_result, redirectAddressIpv6) == 24);
static_assert(offsetof(sysctl_result, redirectUrl) == 40);
static_assert(offsetof(sysctl_result, reserved) == 1064);
static_assert(sizeof(sysctl_result) == 1072);
