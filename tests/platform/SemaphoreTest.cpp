#include "platform/Semaphore.h"

#include <gtest/gtest.h>

#include <future>

TEST(Semaphore, AWaitReturnsWhenAnotherThreadSignals) {
    platform::Semaphore* semaphore = platform::semaphoreCreate(0);
    auto waiter = std::async(std::launch::async, [&] { platform::semaphoreWait(semaphore); });
    platform::semaphoreSignal(semaphore);
    waiter.get();
    platform::semaphoreRelease(semaphore);
}

TEST(Semaphore, SignalsAreCountedUntilTheyAreWaitedFor) {
    platform::Semaphore* semaphore = platform::semaphoreCreate(1);
    platform::semaphoreSignal(semaphore);
    platform::semaphoreWait(semaphore);
    platform::semaphoreWait(semaphore);
    auto third = std::async(std::launch::async, [&] { platform::semaphoreWait(semaphore); });
    EXPECT_EQ(third.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    platform::semaphoreSignal(semaphore);
    third.get();
    platform::semaphoreRelease(semaphore);
}
