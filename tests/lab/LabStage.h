#pragma once

// The lab's stage for tests: the shipped daemon in a forked child, between stand-ins that the test steers.

#include "lab/Stage.h"
#include "packet/SysctlResult.h"

#include <cstdint>
#include <string>

namespace labtest {

// Puts this system's own services in force again, for a daemon that is forked from a test, and gives the test
// the fixed ports. To be called before any thread is started.
void useRealServices();

class LabStage {
public:
    // The policy as its file would read.
    explicit LabStage(const std::string& policy, bool blockOnFailure = false);

    // Starts the daemon, with its agent unless told. The test fails when it does not come up.
    void raise(bool withAgent = true);

    // Lets an agent come that was not there at the start, and enough time pass for the daemon to find it.
    void letTheAgentCome();

    // Presents an outbound packet; the kernel result, or -1 without an answer.
    int present(const std::string& packet);

    // The same until the result is another one than hold, a millisecond of played time between; the last
    // result after the tests' patience.
    int presentUntilDecided(const std::string& packet);

    lab::PolicyAgent& agent() { return stage_.agent; }
    lab::ExtensionStandIn& extension() { return stage_.extension; }
    lab::DaemonRun& daemon() { return stage_.daemon; }

    // Blocks until so many questions, or logons, have come; the test fails after five seconds.
    void awaitQuestions(long count);
    void awaitLogons(long count);

private:
    void passTime(std::int64_t microseconds);

    lab::Stage stage_;
    std::int64_t played_;
};

// The lab's kernel results.
constexpr int pass = resultPass;
constexpr int drop = resultDrop;
constexpr int redirect = resultRedirect;
constexpr int hold = resultHold;

} // namespace labtest
