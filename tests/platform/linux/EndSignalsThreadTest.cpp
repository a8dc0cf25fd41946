#include "platform/EndSignals.h"
#include "platform/ThreadNumber.h"
#include "support/TestChild.h"
#include "support/ThreadStarts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace {

std::atomic<std::uint64_t> handler{0}; // the thread on which it was last

int failToStart(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; }

TEST(EndSignals, WithoutAThreadOfTheirOwnTheCallingOneTakesBoth) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        testsupport::playThreadStarts(failToStart);
        platform::handleEndSignals([](int) { handler = platform::threadNumber(); });
        for (int signal : {SIGTERM, SIGINT}) {
            handler = 0;
            raise(signal);
            EXPECT_EQ(handler, platform::threadNumber());
        }
    }));
}

} // namespace
