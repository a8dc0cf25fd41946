// A semaphore for which the memory does not suffice.

#include "platform/Semaphore.h"

#include "support/AllocationCounter.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

TEST(SemaphoreMemory, WithoutRoomForItThereIsNone) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers have an allocator of their own";
    testsupport::failAllocation(1);
    EXPECT_EQ(platform::semaphoreCreate(0), nullptr);
    EXPECT_TRUE(testsupport::allocationFailed());
}
