#pragma once

// Base of the tests around verdicts: settings with one filter server, a log, a name service, and both
// callbacks with a fresh result record for each packet. No agent can be reached, so a query stays open until
// the test answers its record.

#include "packet/SysctlResult.h"
#include "support/CapturedLog.h"
#include "support/PacketBuilder.h"
#include "support/PlayedNames.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace testsupport {

class VerdictWorld : public testing::Test {
protected:
    VerdictWorld();

    // Judges a packet; what the callback wrote is in `result` afterwards. The packet id is 0x1122334455667788.
    int outbound(const PacketBuilder& packet);
    int inbound(const PacketBuilder& packet);

    // Both again, for a packet that is given anew with what an earlier verdict left in the buffer.
    int outbound(PacketBuffer& packet);
    int inbound(PacketBuffer& packet);

    // Packets of one connection from local port 50000 to port 80 (plain) or 443 (TLS) of 93.184.216.34.
    static PacketBuilder get(const std::string& path = "/", const std::string& host = "www.example.org");
    static PacketBuilder hello(const std::string& name = "www.example.org");
    static PacketBuilder reply(int port = 80, const std::string& payload = "HTTP/1.1 200 OK\r\n");

    // Whether the packet's connection has a record.
    static bool hasRecord(const PacketBuilder& packet);

    // Whether a URL was handed to the query pool.
    bool wasQueried(const std::string& url) const;

    static void advance(std::int64_t microseconds);

    ScratchRoot root;
    CapturedLog log;
    PlayedNames& names; // never destroyed, since a query thread may use it after the test
    sysctl_result result{};
};

} // namespace testsupport
