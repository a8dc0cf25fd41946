#include "lab/OneProcessor.h"

#include <gtest/gtest.h>

#include <sched.h>

#include <thread>

namespace {

cpu_set_t allowedProcessors() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    EXPECT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
    return allowed;
}

} // namespace

TEST(OneProcessor, IsOneOfThoseThatWereAllowedAndHoldsForWhatIsStartedThen) {
    const cpu_set_t before = allowedProcessors();
    if (CPU_COUNT(&before) == 1) GTEST_SKIP() << "this machine, or this user, has one processor as it is";
    lab::shareOneProcessor();
    cpu_set_t inherited;
    std::thread([&inherited] { inherited = allowedProcessors(); }).join();
    EXPECT_EQ(CPU_COUNT(&inherited), 1);
    cpu_set_t both;
    CPU_AND(&both, &before, &inherited);
    EXPECT_TRUE(CPU_EQUAL(&both, &inherited));
}
