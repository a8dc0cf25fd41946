#include "support/AgentLinkWorld.h"

#include "agent/AgentLink.h"
#include "platform/HardwareRegistry.h"
#include "support/FixedPorts.h"
#include "support/ManualClock.h"
#include "support/Patience.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

namespace testsupport {
namespace {

class PlayedRegistry final : public platform::HardwareRegistry {
public:
    std::string platformUUID() override { return AgentLinkWorld::uuid; }
};

PlayedRegistry playedRegistry;
AgentStandIn* standIn = nullptr;

// An object that lasts as long as the process: the link's threads outlive their test.
template <class Kept>
Kept& lasting() {
    static auto& all = *new std::vector<std::unique_ptr<Kept>>;
    all.push_back(std::make_unique<Kept>());
    return *all.back();
}

} // namespace

AgentLinkWorld::AgentLinkWorld() : log(lasting<CapturedLog>()), names(lasting<PlayedNames>()) {
    claimFixedPorts();
    signal(SIGPIPE, SIG_IGN);
    names.install();
    names.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
    platform::hardwareRegistryService.install(playedRegistry);
    ManualClock::installed().letSleepsPass(true);
    ManualClock::installed().setEventWait(20000, false);
}

AgentLinkWorld::~AgentLinkWorld() {
    std::error_code ignored;
    std::filesystem::remove_all(log.folder(), ignored);
}

AgentStandIn& AgentLinkWorld::startAgent() {
    standIn = new AgentStandIn;
    return *standIn;
}

AgentStandIn& AgentLinkWorld::agent() { return *standIn; }

void AgentLinkWorld::holdReaderBack() {
    ManualClock::installed().letSleepsPass(false);
    ManualClock::installed().setEventWait(patienceMicroseconds, false);
    agentLink.beginReading();
}

void AgentLinkWorld::awaitLog(const std::string& text) const {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (log.countContaining(text) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            ADD_FAILURE() << "not logged: " << text;
            return;
        }
        std::this_thread::yield();
    }
}

} // namespace testsupport
