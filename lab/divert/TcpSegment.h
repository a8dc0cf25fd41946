#pragma once

// One TCP segment: what a live run reads of those that it is handed, and what it makes of its own.

#include "lab/Capture.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lab {

enum TcpFlag : std::uint8_t { finFlag = 0x01, rstFlag = 0x04, pshFlag = 0x08, ackFlag = 0x10 };

struct TcpSegment {
    std::uint32_t sequence = 0;
    std::uint32_t acknowledged = 0;
    std::uint32_t payload = 0; // bytes
    std::uint32_t length = 0;  // of sequence numbers: the payload, SYN and FIN

    std::uint32_t end() const { return sequence + length; }
};

// Nothing for what is no whole TCP segment.
std::optional<TcpSegment> tcpSegmentOf(const CapturedPacket& packet);

// Whether `a` stands behind `b`; sequence numbers go round.
inline bool isBehind(std::uint32_t a, std::uint32_t b) { return static_cast<std::int32_t>(a - b) > 0; }

// The IP packet of a segment without options.
std::vector<char> tcpPacket(const Endpoint& from, const Endpoint& to, std::uint32_t sequence,
                            std::uint32_t acknowledged, unsigned flags, const std::string& payload);

} // namespace lab
