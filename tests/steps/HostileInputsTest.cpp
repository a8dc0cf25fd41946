// Readers of foreign text take steps and memory in proportion to it, whatever it is.

#include "support/HostileInputs.h"
#include "steps/StepCounter.h"
#include "support/AllocationCounter.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>

using testsupport::HostileInput;

namespace testsupport {

void PrintTo(const HostileInput& input, std::ostream* out) { *out << input.name; }

} // namespace testsupport

namespace {

struct Cost {
    long steps;
    long allocations;
    long bytes;
};

Cost costOf(const HostileInput& input, std::size_t size) {
    const auto read = input.make(size);
    const testsupport::AllocationCounter memory;
    const testsupport::StepCounter steps;
    read();
    return {steps.count(), memory.count(), memory.bytes()};
}

// Buffers that double are up to twice too large, and a search tree is one step deeper for each doubling.
constexpr double tolerance = 1.5;

void expectProportion(const Cost& smaller, const Cost& larger, long factor) {
    EXPECT_LE(larger.steps, smaller.steps * factor * tolerance);
    EXPECT_LE(larger.allocations, smaller.allocations * factor * tolerance);
    EXPECT_LE(larger.bytes, smaller.bytes * factor * tolerance);
}

class HostileInputs : public testing::TestWithParam<HostileInput> {};

} // namespace

TEST_P(HostileInputs, TakeStepsAndMemoryInProportionToTheirSize) {
    const Cost small = costOf(GetParam(), 1 << 13);
    const Cost larger = costOf(GetParam(), 1 << 15);
    expectProportion(small, larger, 4);
    if (HasFailure()) return; // which a whole megabyte would take minutes to confirm

    const Cost megabyte = costOf(GetParam(), 1 << 20);
    expectProportion(larger, megabyte, 32);
    EXPECT_LE(megabyte.steps, 300L << 20);
    EXPECT_LE(megabyte.bytes, 300L << 20);
}

INSTANTIATE_TEST_SUITE_P(Readers, HostileInputs, testing::ValuesIn(testsupport::hostileInputs()),
                         [](const auto& input) { return input.param.name; });
