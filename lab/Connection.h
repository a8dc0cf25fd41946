#pragma once

// What a replay or a live run knows of one TCP connection.

#include "lab/Capture.h"
#include "lab/Policy.h"

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

namespace lab {

// One URL of a connection that the agent was asked about.
struct Query {
    std::string url;
    Decision decision; // of the last answer
    long retries = 0;  // host-lookup errors before it
    bool answered = true;
};

// A packet on its way through the daemon.
struct PlayedPacket {
    CapturedPacket packet;
    bool outbound = false;
    std::size_t row = 0; // its place in the report
    int presented = 0;
};

struct Connection {
    Endpoint local;
    Endpoint remote;
    std::int64_t first = 0;
    std::int64_t last = 0;

    // The held packet stands in front; what came behind it waits.
    std::deque<PlayedPacket> waiting;
    bool held = false;
    int retries = 0; // how often the held packet was presented again
    std::int64_t heldSince = 0;
    std::int64_t heldTime = 0; // of all packets, in microseconds
    std::vector<std::pair<std::int64_t, std::int64_t>> heldSpans;

    bool closedLocally = false;
    bool closedRemotely = false;
    bool reset = false;
    bool reported = false;

    std::vector<Query> queries;
    bool redirected = false;
    bool gaveUp = false; // a packet's hold stands
    long packets = 0;
    long dropped = 0;

    bool over() const { return redirected || reset || (closedLocally && closedRemotely); }
};

// The two ends of a connection, the smaller first.
using ConnectionKey = std::pair<Endpoint, Endpoint>;

} // namespace lab
