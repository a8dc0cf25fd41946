#pragma once

// What a test of live traffic stands on: whether this machine has it, and runs of commands through the daemon.

#include "lab/LabRun.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace labtest {

// Why no live run can be made here, found out without the lab; empty where one can.
std::string whyNoLiveTraffic();

// Skips its tests, with the reason, where no live run can be made.
class LiveTraffic : public testing::Test {
protected:
    void SetUp() override {
        const std::string reason = whyNoLiveTraffic();
        if (!reason.empty()) GTEST_SKIP() << reason;
    }

    // Runs a shell script in the client's network, with the agent steered by `policy`.
    LabRun live(const std::string& policy, const std::string& script,
                const std::vector<std::string>& options = {});

    // The lines that the last run wrote for its connections.
    std::vector<nlohmann::json> connections() const;

    // Of these, the one of the only connection with that URL.
    nlohmann::json connectionOf(const std::string& url) const;

    testsupport::TemporaryFolder folder_;
    const std::string policy_ = folder_.file("test.policy");
};

} // namespace labtest
