// What a reconnect of the agent link leaves open, as Linux lists it.

#include "agent/AgentFrames.h"
#include "agent/OstComm.h"
#include "support/AgentLinkWorld.h"
#include "support/Eventually.h"
#include "support/ProcessDescriptors.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <string>

namespace {

long openOfKind(const std::string& kind) {
    const testsupport::DescriptorList open = testsupport::descriptorsOf(getpid());
    return std::count_if(open.begin(), open.end(),
                         [&](const auto& entry) { return entry.second.rfind(kind, 0) == 0; });
}

// Whether the process comes to have so many.
bool haveOpen(long sockets, long queues) {
    return testsupport::eventually(
        [=] { return openOfKind("socket:") == sockets && openOfKind("anon_inode:[eventpoll]") == queues; });
}

} // namespace

// The object that was there before is neither closed nor released. A queue is two descriptors here, one elsewhere.
TEST(ReconnectCost, IsTheOldConnectionAndItsQueue) {
    testsupport::AgentLinkWorld world;
    testsupport::AgentStandIn& agent = world.startAgent();
    const long other = openOfKind("socket:");
    OstComm::Instance();
    agent.awaitFrame(agentLogonFrame);
    // The link's own end and the agent's.
    ASSERT_TRUE(haveOpen(other + 2, 2));
    for (int reconnect = 1; reconnect <= 4; ++reconnect) {
        agent.closeConnection();
        agent.awaitFrame(agentLogonFrame);
        EXPECT_TRUE(haveOpen(other + 2 + reconnect, 2 + 2 * reconnect));
    }
}
