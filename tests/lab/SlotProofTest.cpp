#include "lab/SlotProof.h"
#include "lab/DrawnNumbers.h"
#include "lab/LabRun.h"
#include "lab/LabStage.h"
#include "support/FixedPorts.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using labtest::LabRun;
using labtest::runLab;

// The proof over 50 questions in this process, to an agent that takes the question which comes as the tenth under
// another number: that number is as much higher.
struct Proof {
    explicit Proof(std::uint32_t change) {
        labtest::useRealServices();
        lab::SlotOptions options;
        options.questions = 50;
        options.operations = 0;
        options.patienceMilliseconds = 500;
        options.numberOf = [change, come = 0](std::uint32_t number) mutable {
            return ++come == 10 ? number + change : number;
        };
        testing::internal::CaptureStdout();
        status = lab::proveSlots(options);
        out = testing::internal::GetCapturedStdout();
    }

    bool says(const std::string& words) const { return out.find(words) != std::string::npos; }

    int status;
    std::string out;
};

TEST(SlotProof, AllSlotsLiveAfterQuestionsOfABusyMachine) {
    testsupport::claimFixedPorts();
    const LabRun run = runLab({"slots", "--questions", "300", "--operations", "3000"});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(run.out.find("daemon  300 questions, 300 asked, 300 answered, "), 0u) << run.out;
    EXPECT_NE(run.out.find("pool    3000 operations, 3000 done, 30 of 30 slots live\n"), std::string::npos)
        << run.out;
}

TEST(SlotProof, ASlotThatWaitsUnderANumberDrawnTwiceIsNotLost) {
    const Proof proof(static_cast<std::uint32_t>(-1));
    EXPECT_EQ(proof.status, 0) << proof.out;
    EXPECT_TRUE(
        proof.says(" 2 under a number drawn twice, 29 of 30 slots live, 1 wait under such a number\n"))
        << proof.out;
}

TEST(SlotProof, ASlotThatWaitsUnderANumberOfItsOwnIsLost) {
    const Proof proof(1000);
    EXPECT_EQ(proof.status, 1);
    EXPECT_TRUE(
        proof.says(" 0 under a number drawn twice, 29 of 30 slots live, 0 wait under such a number\n"))
        << proof.out;
}

TEST(SlotProof, ANegativeCountIsRefused) { EXPECT_EQ(runLab({"slots", "--questions", "-1"}).status, 2); }

TEST(DrawnNumbers, TellOfAllQuestionsThatShareOneUntilTheyAreTaken) {
    lab::DrawnNumbers numbers;
    numbers.note(7, 1);
    numbers.note(8, 2);
    numbers.note(7, 3);
    numbers.note(7, 4);
    EXPECT_EQ(numbers.takeShared(), (std::vector<long>{1, 3, 4}));
    numbers.note(7, 5);
    EXPECT_TRUE(numbers.takeShared().empty());
}

} // namespace
