#include "platform/Semaphore.h"

#include "support/Await.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>

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

namespace {

std::atomic<int> interruptions{0};

} // namespace

TEST(Semaphore, AWaitOutlivesTheSignalsThatInterruptIt) {
    struct sigaction interrupting {};
    interrupting.sa_handler = [](int) { ++interruptions; };
    sigaction(SIGUSR1, &interrupting, nullptr); // nothing is taken up again by itself
    platform::Semaphore* semaphore = platform::semaphoreCreate(0);
    std::atomic<bool> mayReturn{false};
    std::atomic<bool> early{false};
    std::thread waiter([&] {
        platform::semaphoreWait(semaphore);
        if (!mayReturn) early = true;
    });

    // A signal that comes while the waiter does something else interrupts nothing: of many, some meet the wait.
    for (int sent = 0; sent < 50 && !early; ++sent) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(testsupport::comesTrue([sent] { return interruptions > sent; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(1)); // for the waiter to wait again
    }
    mayReturn = true;
    platform::semaphoreSignal(semaphore);
    waiter.join();

    EXPECT_FALSE(early);
    platform::semaphoreRelease(semaphore);
}

TEST(Semaphore, ThatWouldBeginBelowZeroIsNone) { EXPECT_EQ(platform::semaphoreCreate(-1), nullptr); }
