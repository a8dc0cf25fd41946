#include "lab/LabStage.h"

#include "lab/LabCaptures.h"
#include "platform/ConsoleUser.h"
#include "platform/HardwareRegistry.h"
#include "platform/InterfaceEntries.h"
#include "platform/KernelControl.h"
#include "platform/NetworkChanges.h"
#include "platform/UserDialog.h"
#include "support/FixedPorts.h"
#include "support/Patience.h"
#include "support/ShippedProgram.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace labtest {
namespace {

template <class Service>
void reinstall(Service& service) {
    service.install(service.backend());
}

} // namespace

void useRealServices() {
    reinstall(platform::kernelControlService);
    reinstall(platform::hardwareRegistryService);
    reinstall(platform::userDialogService);
    reinstall(platform::consoleUserService);
    reinstall(platform::interfaceEntriesService);
    reinstall(platform::networkChangesService);
    testsupport::claimFixedPorts();
}

LabStage::LabStage(const std::string& policy, bool blockOnFailure)
    : stage_("", lab::Policy::parse(policy, "policy"), CaptureWriter::startSecond * 1000000,
             testsupport::macProgram()),
      played_(CaptureWriter::startSecond * 1000000) {
    useRealServices();
    stage_.root.configure(blockOnFailure, 64);
}

void LabStage::raise(bool withAgent) { ASSERT_TRUE(stage_.raise(withAgent)) << stage_.root.outputTail(); }

void LabStage::letTheAgentCome() {
    stage_.agent.listen();
    stage_.agent.start();
    passTime(5000000);
}

void LabStage::passTime(std::int64_t microseconds) {
    played_ += microseconds;
    stage_.clock.set(played_);
}

int LabStage::present(const std::string& packet) {
    const auto result = stage_.extension.present(lab::Direction::out, {packet.begin(), packet.end()},
                                                 testsupport::patienceMilliseconds);
    return result ? result->result : -1;
}

int LabStage::presentUntilDecided(const std::string& packet) {
    const auto limit = std::chrono::steady_clock::now() + testsupport::patience;
    int result = present(packet);
    while (result == hold && std::chrono::steady_clock::now() < limit) {
        passTime(1000);
        result = present(packet);
    }
    return result;
}

void LabStage::awaitQuestions(long count) {
    EXPECT_TRUE(agent().waitUntil([&](const auto& counters) { return counters.questions >= count; },
                                  testsupport::patienceMilliseconds));
}

void LabStage::awaitLogons(long count) {
    EXPECT_TRUE(agent().waitUntil([&](const auto& counters) { return counters.logons >= count; },
                                  testsupport::patienceMilliseconds));
}

} // namespace labtest
