#include "gp/GPTimer.h"

#include "support/ManualClock.h"

#include <gtest/gtest.h>

#include <future>

namespace {

using testsupport::ManualClock;

TEST(GPTimer, MadeWithTrueStartsNow) {
    GPTimer timer(true);
    EXPECT_EQ(timer.startedTime(), ManualClock::start);
}

TEST(GPTimer, MadeWithFalseDoesNotStart) {
    GPTimer timer(false);
    EXPECT_EQ(timer.startedTime(), GPTimer().startedTime());
    EXPECT_NE(timer.startedTime(), ManualClock::start);
}

TEST(GPTimer, ElapsedTimeCountsMicrosecondsFromTheStart) {
    GPTimer timer;
    timer.start();
    ManualClock::installed().advance(1500);
    EXPECT_EQ(timer.elapsedTime(), 1500);
}

TEST(GPTimer, ElapsedTimeGoesBackwardsIfTheWallClockIsSetBack) {
    GPTimer timer(true);
    ManualClock::installed().advance(-700);
    EXPECT_EQ(timer.elapsedTime(), -700);
}

TEST(GPTimer, StartWithANumberTakesItAsTheStartTime) {
    GPTimer timer;
    timer.start(1000LL);
    EXPECT_EQ(timer.startedTime(), 1000);
    EXPECT_EQ(timer.elapsedTime(), ManualClock::start - 1000);
}

TEST(GPTimer, RestartClearsTheRetryCountAndStartDoesNot) {
    GPTimer timer;
    timer.restart();
    timer.incrementRetry();
    timer.incrementRetry();
    timer.start();
    EXPECT_EQ(timer.retryCount(), 2);
    timer.start(5LL);
    EXPECT_EQ(timer.retryCount(), 2);
    timer.restart();
    EXPECT_EQ(timer.retryCount(), 0);
}

TEST(GPTimer, RestartSetsTheStartTimeToNow) {
    GPTimer timer(true);
    ManualClock::installed().advance(10);
    timer.restart();
    EXPECT_EQ(timer.startedTime(), ManualClock::start + 10);
}

TEST(GPTimer, GetClockTimeIsTheWallClockInMicroseconds) {
    EXPECT_EQ(GPTimer::getClockTime(), ManualClock::start);
}

TEST(GPTimer, SleepBlocksForThatManyMicroseconds) {
    auto sleeper = std::async(std::launch::async, [] {
        GPTimer::sleep(250);
        return GPTimer::getClockTime();
    });
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    ManualClock::installed().advance(250);
    EXPECT_EQ(sleeper.get(), ManualClock::start + 250);
}

} // namespace
