#include "lab/LabRun.h"
#include "support/FixedPorts.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using labtest::LabRun;
using labtest::runLab;

TEST(SlotProof, AllSlotsLiveAfterQuestionsOfABusyMachine) {
    testsupport::claimFixedPorts();
    const LabRun run = runLab({"slots", "--questions", "300", "--operations", "3000"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.find("daemon  300 questions, 300 asked, 300 answered, "), 0u) << run.out;
    EXPECT_NE(run.out.find(" drawn twice, 30 of 30 slots live\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("pool    3000 operations, 3000 done, 30 of 30 slots live\n"), std::string::npos)
        << run.out;
}

TEST(SlotProof, ANegativeCountIsRefused) { EXPECT_EQ(runLab({"slots", "--questions", "-1"}).status, 2); }

} // namespace
