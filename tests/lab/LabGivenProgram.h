#pragma once

// A capture of a few connections, a policy, and builds to replay it with; skips where no such build can run.

#include "lab/LabRun.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace labtest {

class GivenProgram : public testing::Test {
protected:
    void SetUp() override;

    LabRun replay(const std::vector<std::string>& options, const std::function<void(pid_t)>& meanwhile = {});

    testsupport::TemporaryFolder folder_;
    const std::string capture_ = folder_.file("made.pcap");
    const std::string policy_ = folder_.file("rules.policy");
    const std::string fernhill_ = OSTLER_BINARY_DIR "/src/fernhill";
    const std::string onlooker_ = OSTLER_BINARY_DIR "/tests/lab_onlooker";
    const std::string unruly_ = OSTLER_BINARY_DIR "/tests/lab_unruly";
    const std::string borrower_ = OSTLER_BINARY_DIR "/tests/lab_borrower";
    const std::string neighbour_ = OSTLER_BINARY_DIR "/tests/lab_neighbour";
    const std::string audited_ = OSTLER_BINARY_DIR "/tests/lab_audited";
    const std::string borrowed_ = OSTLER_BINARY_DIR "/tests/liblab_borrowed.so";
};

// How many processes of this machine run the file.
int processesOf(const std::string& program);

} // namespace labtest
