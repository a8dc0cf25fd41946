#pragma once

// The agent's end of its link with the daemon, for whoever plays it: frames in both directions, and the listener.
// Written apart from the daemon's own code, so that a slip there does not meet itself here. Needs no more than
// POSIX.

#include "platform/ByteOrder.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace lab {

constexpr std::size_t agentFrameHeaderSize = 12;

enum AgentFrameType : std::uint32_t { policyFrame = 1, logonFrame = 3, configurationFrame = 5 };

struct AgentFrame {
    std::uint32_t type = 0;
    std::uint32_t sequence = 0;
    std::string body;
    std::string bytes; // the whole frame as it was on the wire
};

// The bytes of a frame whose length field says `length`, whatever its body has.
inline std::string agentFrameOfLength(std::uint32_t length, std::uint32_t type, std::uint32_t sequence,
                                      const std::string& body) {
    char header[agentFrameHeaderSize];
    platform::writeBig32(header, length);
    platform::writeBig32(header + 4, type);
    platform::writeBig32(header + 8, sequence);
    return std::string(header, sizeof header) + body;
}

// The bytes of a frame.
inline std::string agentFrame(std::uint32_t type, std::uint32_t sequence, const std::string& body) {
    return agentFrameOfLength(static_cast<std::uint32_t>(agentFrameHeaderSize + body.size()), type, sequence,
                              body);
}

// Cuts what has been received into frames.
class AgentFrameReader {
public:
    enum class Found { frame, nothing, noFrame };

    void add(const char* bytes, std::size_t count) { held_.append(bytes, count); }
    void clear() { held_.clear(); }

    // Takes the first frame out; nothing while it is not whole. `noFrame` for a length that no frame has: from then
    // on the stream cannot be read.
    Found next(AgentFrame& frame) {
        constexpr std::size_t longest = 1 << 20;
        if (held_.size() < agentFrameHeaderSize) return Found::nothing;
        const std::size_t length = platform::readBig32(held_.data());
        if (length < agentFrameHeaderSize || length > longest) return Found::noFrame;
        if (held_.size() < length) return Found::nothing;
        frame = {platform::readBig32(held_.data() + 4), platform::readBig32(held_.data() + 8),
                 held_.substr(agentFrameHeaderSize, length - agentFrameHeaderSize), held_.substr(0, length)};
        held_.erase(0, length);
        return Found::frame;
    }

private:
    std::string held_;
};

// Binds the socket to that port of the loopback address and listens. False, with errno set, when that fails; for no
// socket as it was.
inline bool listenOnLoopback(int socket, int port) {
    if (socket < 0) return false;
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
           listen(socket, 16) == 0;
}

} // namespace lab
