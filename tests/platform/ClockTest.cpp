// The clock of this system, whatever clock is in force.

#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>

namespace {

platform::Clock& systemClock() { return platform::clockService.backend(); }

std::int64_t microsecondsOfTheSystem() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

template <class Operation>
std::chrono::microseconds lengthOf(Operation operation) {
    const auto start = std::chrono::steady_clock::now();
    operation();
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
}

TEST(SystemClock, TellsTheMicrosecondsOfGettimeofday) {
    const std::int64_t before = microsecondsOfTheSystem();
    const std::int64_t told = systemClock().microseconds();
    const std::int64_t after = microsecondsOfTheSystem();

    EXPECT_LE(before, told);
    EXPECT_LE(told, after);
}

TEST(SystemClock, GoesOnByMicroseconds) {
    const std::int64_t first = systemClock().microseconds();
    std::int64_t next = first;
    const auto length = lengthOf([&] {
        while ((next = systemClock().microseconds()) == first) {
        }
    });

    EXPECT_LE(next - first, length.count() + 1000) << "not by a coarser step";
}

TEST(SystemClock, TellsTheSecondsOfTime) {
    const std::time_t before = std::time(nullptr);
    const std::time_t told = systemClock().seconds();
    const std::time_t after = std::time(nullptr);

    EXPECT_LE(before, told);
    EXPECT_LE(told, after);
}

TEST(SystemClock, SleepsAtLeastTheMicrosecondsThatItIsAskedFor) {
    EXPECT_GE(lengthOf([] { systemClock().sleepMicroseconds(20000); }).count(), 20000);
    EXPECT_LT(lengthOf([] { systemClock().sleepMicroseconds(1); }).count(), 1000000);
}

TEST(SystemClock, SleepsForSecondsUntilASignalCallsItBack) {
    struct sigaction silent {};
    silent.sa_handler = [](int) {};
    sigaction(SIGALRM, &silent, nullptr);
    itimerval soon{};
    soon.it_value.tv_usec = 50000;
    setitimer(ITIMER_REAL, &soon, nullptr);

    // 40 is no length of a test: only a sleep of seconds is there for the signal to end.
    const auto length = lengthOf([] { systemClock().sleepSeconds(40); });

    EXPECT_GE(length.count(), 40000);
    EXPECT_LT(length.count(), 20000000);
}

TEST(SystemClock, NoSecondsAreNoSleep) {
    EXPECT_LT(lengthOf([] { systemClock().sleepSeconds(0); }).count(), 500000);
}

TEST(SystemClock, LetsAWaitForEventsLastItsWholeLimit) {
    EXPECT_EQ(systemClock().eventWaitLimit(5), 5000000);
    EXPECT_EQ(systemClock().eventWaitLimit(86400), 86400000000);
}

} // namespace
