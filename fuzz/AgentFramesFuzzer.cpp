// The reader of the agent link over a stream that arrives in pieces: runs of bytes, each with its length in front.

#include "agent/AgentFrames.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/Mutation.h"
#include "fuzz/Require.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

using fuzzing::bigEndian;
using fuzzing::Draw;
using fuzzing::require;

// A frame is what stands at its offset: its numbers, and the text up to the first zero byte or the end of all.
void lookAt(const AgentFrame& frame, const std::string& held, std::size_t offset) {
    require(frame.next > offset);
    require(frame.type == fuzzing::bigEndianAt(held, offset + 4, 4));
    require(frame.sequence == fuzzing::bigEndianAt(held, offset + 8, 4));
    require(frame.body == held.data() + offset + agentFrameHeader);
    require(frame.bodyLength ==
            std::min(held.find('\0', offset + agentFrameHeader), held.size()) - offset - agentFrameHeader);
    const std::size_t length = fuzzing::bigEndianAt(held, offset, 4);
    require(frame.next == (length == 0 ? held.size() : offset + length));
}

// All that the runs hold, one behind the other.
std::string streamOf(const std::string& input) {
    fuzzing::FuzzInput runs(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    std::string stream;
    while (!runs.empty())
        stream += runs.run();
    return stream;
}

std::vector<std::string> framesOf(const std::string& stream) {
    std::vector<std::string> frames;
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t length = std::clamp<std::size_t>(fuzzing::bigEndianAt(stream, at, 4), 12, 4096);
        frames.push_back(stream.substr(at, length));
        at += length;
    }
    return frames;
}

std::string madeUp(Draw& draw) {
    static const char* const bodies[] = {"{}", R"({"category":"x","redirect":"http://p/",})",
                                         R"({"allowed":"true",})", R"({"error":"no host",})", ""};
    const std::string body = draw.oneIn(6) ? std::string(draw.below(3000), 'b') : bodies[draw.below(5)];
    return bigEndian(agentFrameHeader + body.size(), 4) + bigEndian(draw.below(8), 4) +
           bigEndian(draw.below(4), 4) + body;
}

void changeLength(std::string& frame, Draw& draw) {
    const std::size_t lengths[] = {0,
                                   1,
                                   4,
                                   11,
                                   12,
                                   frame.size() - 1,
                                   frame.size() + 1,
                                   agentFrameLimit - 1,
                                   agentFrameLimit,
                                   0xffffffff,
                                   draw.below(1 << 24)};
    frame.replace(0, 4, bigEndian(lengths[draw.below(std::size(lengths))], 4));
}

void change(std::vector<std::string>& frames, Draw& draw) {
    if (frames.empty() || draw.oneIn(5)) {
        frames.insert(frames.begin() + static_cast<std::ptrdiff_t>(draw.below(frames.size() + 1)),
                      madeUp(draw));
        return;
    }
    const auto any = frames.begin() + static_cast<std::ptrdiff_t>(draw.below(frames.size()));
    switch (draw.below(6)) {
        case 0:
            std::iter_swap(any, frames.begin());
            return;
        case 1:
            frames.push_back(*any);
            return;
        case 2:
            frames.erase(any);
            return;
        case 3:
            any->resize(draw.below(any->size() + 1));
            return;
        case 4:
            changeLength(*any, draw);
            return;
        default:
            *any = fuzzing::mutatedBlindly(*any);
    }
}

// The stream in pieces: whole, byte by byte, or parted anywhere.
std::string partedAnew(const std::string& stream, Draw& draw) {
    const std::size_t piece = draw.oneIn(3) ? 60000 : draw.oneIn(2) ? 1 : 1 + draw.below(64);
    std::string input;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        const std::string part = stream.substr(at, piece);
        input += bigEndian(part.size(), 2) + part;
    }
    return input;
}

} // namespace

// Changes the stream by its frames: swapped, doubled, cut, made up, with lengths that are wrong on purpose.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t room,
                                               unsigned seed) {
    Draw draw(seed);
    if (draw.oneIn(4)) return LLVMFuzzerMutate(data, size, room);
    auto frames = framesOf(streamOf(std::string(reinterpret_cast<const char*>(data), size)));
    for (std::size_t changes = 1 + draw.below(3); changes > 0; --changes)
        change(frames, draw);
    std::string stream;
    for (const std::string& frame : frames)
        stream += frame;
    return fuzzing::handBack(partedAnew(stream, draw), data, room);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::FuzzInput input(data, size);
    std::string held;
    std::size_t offset = 0;
    for (;;) {
        AgentFrame frame;
        const AgentFrameStep step = readAgentFrame(held.data(), held.size(), offset, frame);
        if (step == AgentFrameStep::frame) {
            lookAt(frame, held, offset);
            offset = frame.next;
            continue;
        }
        if (step != AgentFrameStep::needMore && step != AgentFrameStep::end) return 0;
        if (input.empty()) return 0;
        if (step == AgentFrameStep::end) {
            held.clear();
            offset = 0;
        }
        held += input.run();
    }
}
