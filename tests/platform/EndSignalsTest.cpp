#include "platform/EndSignals.h"

#include "platform/ThreadNumber.h"
#include "support/Eventually.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <thread>
#include <unistd.h>

namespace {

using testsupport::eventually;
using testsupport::passesInChild;

std::atomic<int> handled{0};           // how many signals the handler has been called for
std::atomic<std::uint64_t> handler{0}; // the thread on which it was last
std::atomic<bool> mayReturn{true};

void handle(int) {
    handler = platform::threadNumber();
    ++handled;
    while (!mayReturn) {
    }
}

bool comesToHaveHandled(int count) {
    return eventually([count] { return handled == count; });
}

bool blocks(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

TEST(EndSignals, TheHandlerRunsOnAThreadOfItsOwn) {
    EXPECT_TRUE(passesInChild([] {
        platform::handleEndSignals(handle);
        for (int signal : {SIGTERM, SIGINT}) {
            const int before = handled;
            kill(getpid(), signal);
            EXPECT_TRUE(comesToHaveHandled(before + 1));
            EXPECT_NE(handler, platform::threadNumber());
        }
    }));
}

TEST(EndSignals, TheCallingThreadAndAllThatItStartsBlockBoth) {
    EXPECT_TRUE(passesInChild([] {
        platform::handleEndSignals(handle);
        for (int signal : {SIGTERM, SIGINT}) {
            EXPECT_TRUE(blocks(signal));
            std::thread([signal] { EXPECT_TRUE(blocks(signal)); }).join();
        }
        EXPECT_FALSE(blocks(SIGHUP));
    }));
}

TEST(EndSignals, AThreadOfBeforePassesOnWhatItTakes) {
    EXPECT_TRUE(passesInChild([] {
        std::atomic<bool> over{false};
        std::thread earlier([&] {
            while (!over)
                std::this_thread::yield();
        });
        const pthread_t thread = earlier.native_handle();
        platform::handleEndSignals(handle);
        kill(getpid(), SIGTERM);
        EXPECT_TRUE(comesToHaveHandled(1));
        const std::uint64_t waiting = handler;
        pthread_kill(thread, SIGTERM);
        EXPECT_TRUE(comesToHaveHandled(2));
        EXPECT_EQ(handler, waiting);
        over = true;
        earlier.join();
    }));
}

TEST(EndSignals, TheSecondWaitsUntilTheHandlerReturns) {
    EXPECT_TRUE(passesInChild([] {
        platform::handleEndSignals(handle);
        mayReturn = false;
        kill(getpid(), SIGTERM);
        EXPECT_TRUE(comesToHaveHandled(1));
        kill(getpid(), SIGINT);
        sigset_t pending;
        EXPECT_TRUE(eventually([&] { return sigpending(&pending) == 0 && sigismember(&pending, SIGINT); }));
        EXPECT_EQ(handled, 1);
        mayReturn = true;
        EXPECT_TRUE(comesToHaveHandled(2));
    }));
}

TEST(EndSignals, BothEndAChildThatIsToBecomeAProgramAndNothingIsBlockedThere) {
    EXPECT_TRUE(passesInChild([] {
        platform::handleEndSignals(handle);
        platform::restoreChildSignals();
        for (int signal : {SIGTERM, SIGINT}) {
            EXPECT_FALSE(blocks(signal));
            struct sigaction now {};
            sigaction(signal, nullptr, &now);
            EXPECT_EQ(now.sa_handler, SIG_DFL);
        }
    }));
}

TEST(EndSignals, WhatWasIgnoredStaysIgnoredInAChild) {
    EXPECT_TRUE(passesInChild([] {
        std::signal(SIGINT, SIG_IGN);
        platform::restoreChildSignals();
        kill(getpid(), SIGINT);
    }));
}

} // namespace
