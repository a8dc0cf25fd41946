#pragma once

// The wire format of the agent link. A frame is a header of three 32-bit numbers in network order (length of
// the whole frame, type, sequence) and a body of JSON text without an ending NUL. Pure functions over bytes;
// any thread.

#include <cstddef>
#include <cstdint>

constexpr std::size_t agentFrameHeader = 12;

// Buffers that outgoing frames are assembled in.
constexpr std::size_t agentPolicyFrameSpace = 5008;
constexpr std::size_t agentOtherFrameSpace = 512;

// From here on a length is none: it is how printable text or a TLS record begins, and more than the daemon is
// to hold for one answer. Below it all are read, those of 16 MiB and more too, whose length field does not
// begin with NUL and so does not end a body in front of it.
constexpr std::uint32_t agentFrameLimit = 1u << 27;

enum AgentFrameType : std::uint32_t {
    agentPolicyFrame = 1,
    agentDnsRedirectsFrame = 2,
    agentLogonFrame = 3,
    agentConfigurationFrame = 5,
    agentAddressesFrame = 6,
};

// Writes a frame into `buffer` and returns its size in bytes; 0, with nothing written, when the body does not
// fit into `space` bytes behind the header.
std::size_t buildAgentFrame(char* buffer, std::size_t space, std::uint32_t type, std::uint32_t sequence,
                            const char* body);

// One received frame. The body is borrowed from the bytes that it was read from.
struct AgentFrame {
    std::uint32_t type = 0;
    std::uint32_t sequence = 0;
    const char* body = nullptr;
    std::size_t bodyLength = 0;
    std::size_t next = 0; // where the following frame begins
};

enum class AgentFrameStep {
    frame,    // `frame` holds what stands at the offset
    needMore, // more bytes have to arrive first
    end,      // nothing more can be read from these bytes
    broken,   // the stream makes no sense from here on
};

// Reads the frame at `offset` of the `held` bytes received so far. `frame` is set for AgentFrameStep::frame
// alone.
AgentFrameStep readAgentFrame(const char* bytes, std::size_t held, std::size_t offset, AgentFrame& frame);
