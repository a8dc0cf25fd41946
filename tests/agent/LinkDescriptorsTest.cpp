// The agent link of a process that has run out of descriptors, and what a reconnect costs of them.

#include "agent/AgentFrames.h"
#include "agent/AgentLink.h"
#include "agent/OstComm.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AgentLinkWorld.h"
#include "support/Eventually.h"
#include "support/ManualClock.h"
#include "support/Sanitizers.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <future>
#include <string>

using testsupport::AgentStandIn;
using testsupport::ManualClock;

namespace {

constexpr std::int64_t second = 1000000;

// As long as this lives, every new descriptor has a number below the limit.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int limit) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit lower = {static_cast<rlim_t>(limit), before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lower);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit before_{};
};

constexpr int standardStreamsAlone = STDERR_FILENO + 1;

int roomForOne() {
    const int lowestFree = dup(STDIN_FILENO);
    close(lowestFree);
    return lowestFree + 1;
}

// Whether the clock's sleepers have asked for so many seconds in all, and for no more.
bool sleptSeconds(std::int64_t seconds) {
    return testsupport::eventually(
        [=] { return ManualClock::installed().sleptMicroseconds() == seconds * second; });
}

void answerOneQuestion(AgentStandIn& agent) {
    auto answer = std::async(std::launch::async, [] {
        char url[] = "http://probe/";
        return std::string(Owned<GPString>::adopt(OstComm::Instance()->getPolicyCommand(url, 1))->cstr());
    });
    agent.reply(agent.awaitFrame(agentPolicyFrame).sequence, "{probe}");
    EXPECT_EQ(answer.get(), "{probe}");
}

} // namespace

TEST(LinkDescriptors, AReaderThatCanMakeNoQueueWaitsASecondBetweenItsTriesAndGoesOnWhenItCan) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker opens descriptors of its own";
    EXPECT_TRUE(testsupport::passesInChild([] {
        testsupport::AgentLinkWorld world;
        AgentStandIn& agent = world.startAgent();
        ManualClock& clock = ManualClock::installed();
        clock.letSleepsPass(false);
        {
            // The connection takes the last one, and its queue finds none.
            const DescriptorLimit limit(roomForOne());
            OstComm::Instance();
            for (int tries = 1; tries <= 5; ++tries) {
                ASSERT_TRUE(sleptSeconds(tries)) << "a wait of one second for each try";
                if (tries < 5) clock.advanceSeconds(1);
            }
        }
        clock.advanceSeconds(1);
        answerOneQuestion(agent);
        EXPECT_EQ(clock.sleptMicroseconds(), 5 * second) << "nothing waits once there is a queue";
    }));
}

TEST(LinkDescriptors, AReconnectThatFindsNoneLeftEndsTheLinkForGoodAndCannotEvenSaySo) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        testsupport::AgentLinkWorld world;
        AgentStandIn& agent = world.startAgent();
        OstComm* link = OstComm::Instance();
        answerOneQuestion(agent);
        {
            const DescriptorLimit none(standardStreamsAlone);
            agent.closeConnection();
            EXPECT_TRUE(testsupport::eventually([] { return !agentLink.isBeingRead(); }));
        }
        EXPECT_FALSE(link->isOpened());
        char url[] = "http://after/";
        const auto answer = Owned<GPString>::adopt(link->getPolicyCommand(url, 1));
        EXPECT_STREQ(answer->cstr(), "{BOF}");
        EXPECT_EQ(world.log.countContaining("WARNING: Socket open error in OstComm."), 0);
        EXPECT_TRUE(world.log.holds("[1] OstComm getPolicyCommand no socket."));
    }));
}
