#pragma once

// The world around the agent link in a test: a scratch root, a captured log, a name service that knows the
// loopback address, a played hardware registry, sleeps that pass at once, and ports of the test's own. The
// agent itself is made when the test wants one to be there. One for each process.

#include "support/AgentStandIn.h"
#include "support/CapturedLog.h"
#include "support/PlayedNames.h"
#include "support/ScratchRoot.h"

#include <string>

namespace testsupport {

class AgentLinkWorld {
public:
    AgentLinkWorld();
    ~AgentLinkWorld();

    AgentLinkWorld(const AgentLinkWorld&) = delete;
    AgentLinkWorld& operator=(const AgentLinkWorld&) = delete;

    // Starts the agent, which stays until the process ends: the link's reader outlives the test.
    AgentStandIn& startAgent();

    // The running agent.
    AgentStandIn& agent();

    // From now on the link has no reader of its own: one that a reconnect ends, say, still has the socket. Sleeps
    // no longer pass at once, and whoever reads in its place waits for what comes. Before the link is made.
    void holdReaderBack();

    // Blocks until the log holds a message with `text` in it; the test fails when it does not come.
    void awaitLog(const std::string& text) const;

    static constexpr char uuid[] = "11111111-2222-3333-4444-555555555555";

    ScratchRoot root;

    // Both are used by the link's threads after the test's end, so they are never destroyed.
    CapturedLog& log;
    PlayedNames& names;
};

} // namespace testsupport
