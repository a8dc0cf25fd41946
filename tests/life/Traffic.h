#pragma once

// The packets of a connection that asks for a page, and stray bytes, drawn from a seed.

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace life {

using Packet = std::vector<char>;

// The numbers that a run is drawn from. The same on every machine.
class Draw {
public:
    explicit Draw(std::uint64_t seed) : engine_(seed) {}

    // From 0 to `count` - 1.
    std::int64_t below(std::int64_t count) {
        return static_cast<std::int64_t>(engine_() % static_cast<std::uint64_t>(count));
    }
    bool oneIn(std::int64_t count) { return below(count) == 0; }

private:
    std::mt19937_64 engine_;
};

struct Connection {
    Packet request;
    Packet dataOut;
    Packet dataIn; // a single byte
    Packet ackOut;
    Packet ackIn;
};

// The host is `number`, a dot and `kind`.example.
Connection makeConnection(Draw& draw, long number, const std::string& kind, bool ipv6);

Packet strayBytes(Draw& draw);

} // namespace life
