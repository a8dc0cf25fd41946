#include "lab/SlotProof.h"
#include "lab/DrawnNumbers.h"
#include "lab/LabRun.h"
#include "lab/LabStage.h"
#include "support/FixedPorts.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cstdint>
#include <regex>
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
        options.patienceMilliseconds = 3000; // one wait of each proof is in vain
        options.numberOf = [change, come = 0](std::uint32_t number) mutable {
            return ++come == 10 ? number + change : number;
        };
        testing::internal::CaptureStdout();
        status = lab::proveSlots(options);
        out = testing::internal::GetCapturedStdout();
    }

    // What the daemon's line says. The daemon draws its numbers beside its threads, so that on a busy machine more of
    // them are the same than the proof has seen to.
    long sharing() const { return figure(R"((\d+) under a number drawn twice)"); }
    long waiting() const { return figure(R"((\d+) wait under such a number)"); }
    long lost() const { return 30 - waiting() - figure(R"(twice, (\d+) of 30 slots live)"); }

    int status;
    std::string out;

private:
    long figure(const char* pattern) const {
        std::smatch found;
        return std::regex_search(out, found, std::regex(pattern)) ? std::stol(found[1]) : -1000;
    }
};

// The stacks of threads to come take a megabyte each. As many as 600 can be there at once, and with the eight that are
// usual they would take more memory than scripts/mutants gives a test: a slot whose thread cannot be made is lost.
void takeSmallStacks() {
    rlimit stack{};
    ASSERT_EQ(getrlimit(RLIMIT_STACK, &stack), 0);
    stack.rlim_cur = 1 << 20;
    ASSERT_EQ(setrlimit(RLIMIT_STACK, &stack), 0);
}

TEST(SlotProof, AllSlotsLiveAfterQuestionsOfABusyMachine) {
    testsupport::claimFixedPorts();
    takeSmallStacks();
    // Fewer where each start of a thread takes many times as long.
    const std::string operations = testsupport::sanitized ? "300" : "3000";
    const LabRun run = runLab({"slots", "--questions", "300", "--operations", operations});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(run.out.find("daemon  300 questions, 300 asked, 300 answered, "), 0u) << run.out;
    EXPECT_NE(
        run.out.find("pool    " + operations + " operations, " + operations + " done, 30 of 30 slots live\n"),
        std::string::npos)
        << run.out;
}

TEST(SlotProof, ASlotThatWaitsUnderANumberDrawnTwiceIsNotLost) {
    const Proof proof(static_cast<std::uint32_t>(-1));
    EXPECT_EQ(proof.status, 0) << proof.out;
    EXPECT_GE(proof.sharing(), 2) << proof.out;
    EXPECT_GE(proof.waiting(), 1) << proof.out;
    EXPECT_EQ(proof.lost(), 0) << proof.out;
}

TEST(SlotProof, ASlotThatWaitsUnderANumberOfItsOwnIsLost) {
    const Proof proof(1000);
    EXPECT_EQ(proof.status, 1);
    EXPECT_GE(proof.sharing(), 0) << proof.out;
    EXPECT_GE(proof.waiting(), 0) << proof.out;
    EXPECT_EQ(proof.lost(), 1) << proof.out;
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
