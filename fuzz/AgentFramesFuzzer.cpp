// The reader of the agent link over a stream that arrives in pieces.

#include "agent/AgentFrames.h"
#include "fuzz/FuzzInput.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::FuzzInput input(data, size);
    std::string held;
    std::size_t offset = 0;
    for (;;) {
        AgentFrame frame;
        const AgentFrameStep step = readAgentFrame(held.data(), held.size(), offset, frame);
        if (step == AgentFrameStep::frame) {
            if (frame.next <= offset) std::abort();
            if (frame.body < held.data() || frame.body + frame.bodyLength > held.data() + held.size())
                std::abort();
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
