#include "agent/AgentFrames.h"

#include "platform/ByteOrder.h"

#include <cstring>

std::size_t buildAgentFrame(char* buffer, std::size_t space, std::uint32_t type, std::uint32_t sequence,
                            const char* body) {
    const std::size_t bodyLength = std::strlen(body);
    if (space < agentFrameHeader || bodyLength > space - agentFrameHeader) return 0;
    const std::size_t length = agentFrameHeader + bodyLength;
    platform::writeBig32(buffer, static_cast<std::uint32_t>(length));
    platform::writeBig32(buffer + 4, type);
    platform::writeBig32(buffer + 8, sequence);
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result): a frame's length stands in its header
    std::memcpy(buffer + agentFrameHeader, body, bodyLength);
    return length;
}

AgentFrameStep readAgentFrame(const char* bytes, std::size_t held, std::size_t offset, AgentFrame& frame) {
    if (offset >= held) return AgentFrameStep::end;
    const std::size_t left = held - offset;
    if (left < 4) return AgentFrameStep::needMore;
    const char* start = bytes + offset;
    const std::uint32_t length = platform::readBig32(start);
    if (length >= agentFrameLimit) return AgentFrameStep::broken;
    if (length > left) return AgentFrameStep::needMore;
    // A length below that of the header can end before the header does.
    if (left < agentFrameHeader) return AgentFrameStep::end;

    frame.type = platform::readBig32(start + 4);
    frame.sequence = platform::readBig32(start + 8);
    // The body runs on to the end of all bytes held or to the first NUL, which the length field of
    // any following frame below 16 MiB begins with. The frame's own length does not end it.
    frame.body = start + agentFrameHeader;
    frame.bodyLength = strnlen(frame.body, left - agentFrameHeader);
    // A length of 0 would repeat this frame for ever; it ends the reading of these bytes.
    frame.next = length == 0 ? held : offset + length;
    return AgentFrameStep::frame;
}
