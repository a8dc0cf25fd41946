#pragma once

// Plays the policy agent from a process of its own, for tests whose own process is looked at or ends: each question
// has an answer that was laid down before.

#include "lab/AgentFrame.h"
#include "support/TestChild.h"

#include <functional>
#include <optional>
#include <string>

namespace testsupport {

class AgentProcess {
public:
    // The bytes that go back for a policy question; none ends the connection that it came on. Other frames have no
    // answer.
    using Answers = std::function<std::optional<std::string>(const lab::AgentFrame& question)>;

    // Claims the fixed ports, listens and forks. Any number of connections at once.
    explicit AgentProcess(const Answers& answers);

private:
    const int listener_;
    const EndlessChild child_;
};

} // namespace testsupport
