#include "platform/ThreadNumber.h"

#include <gtest/gtest.h>

#include <future>

namespace {

TEST(ThreadNumber, IsTheSameAtEveryCallOfAThread) {
    EXPECT_NE(platform::threadNumber(), 0u);
    EXPECT_EQ(platform::threadNumber(), platform::threadNumber());
}

TEST(ThreadNumber, DiffersBetweenThreads) {
    auto other = std::async(std::launch::async, platform::threadNumber);
    EXPECT_NE(other.get(), platform::threadNumber());
}

} // namespace
