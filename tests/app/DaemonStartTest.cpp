// The start of the daemon step by step, with every thread held back before it begins.

#include "app/Daemon.h"
#include "config/Configuration.h"
#include "gp/GPAutoReleasePool.h"
#include "identity/UserAuth.h"
#include "platform/HostPaths.h"
#include "support/CapturedLog.h"
#include "support/DirectoryTools.h"
#include "support/ManualClock.h"
#include "support/PlayedConsoleUser.h"
#include "support/PlayedKernelControl.h"
#include "support/PlayedNames.h"
#include "support/ScratchRoot.h"
#include "support/TestChild.h"
#include "support/ThreadStarts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

testsupport::CapturedLog* shownLog = nullptr;
Lines atWatch;
bool poolAtWatch = false;

// No thread of the daemon runs; the one of the login watch shows how far the start has come.
int holdBack(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*), void* argument) {
    if (function == loginChangeThread) {
        atWatch = shownLog->messages();
        poolAtWatch = GPAutoReleasePool::topPool() != nullptr;
    }
    return testsupport::startNothing(thread, attributes, function, argument);
}

// A start that ends at once, since the extension knows no inbound control.
class DaemonStart : public testing::Test {
protected:
    DaemonStart() {
        shownLog = &log;
        testsupport::ManualClock::installed().letSleepsPass(true); // those of the wait for kextload
        tools.programs().add("kextload", "exit 0");
        extension.install();
        extension.forget("twFernhill_inkext");
        console.install();
        names.install();
    }

    // Starts the daemon in a process of its own and runs the checks there afterwards.
    void started(void (*checks)()) {
        EXPECT_TRUE(testsupport::passesInChild([checks] {
            testsupport::playThreadStarts(holdBack);
            EXPECT_EQ(daemonStart(), 1);
            testsupport::playThreadStarts(nullptr);
            checks();
        }));
    }

    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
    testsupport::DirectoryTools tools;
    testsupport::PlayedKernelControl& extension = testsupport::lastingKernelControl();
    testsupport::PlayedConsoleUser& console = *new testsupport::PlayedConsoleUser;
    testsupport::PlayedNames& names = *new testsupport::PlayedNames;
};

} // namespace

TEST_F(DaemonStart, TheConsoleIsWatchedBehindTheSettingsAndBeforeTheAgentIsSwitchedOn) {
    testsupport::writeAll(platform::HostPaths::debugFile(), "<a><VerboseLogging>true</VerboseLogging></a>");
    testsupport::writeAll(root.configurationFile(),
                          "<Fernhill><VerboseLogging>true</VerboseLogging></Fernhill>");
    started([] {
        ASSERT_FALSE(atWatch.empty());
        EXPECT_EQ(atWatch.back(), "verbose mode is updated to: true");
        EXPECT_TRUE(Configuration::isVerbose());
        EXPECT_TRUE(shownLog->holds("Enable Ostler set to: true"));
    });
}

TEST_F(DaemonStart, TheAgentIsSwitchedOnBeforeItBecomesTheServer) {
    testsupport::writeAll(root.configurationFile(),
                          "<Fernhill><VerboseLogging>true</VerboseLogging></Fernhill>");
    started([] {
        const Lines lines = shownLog->messages();
        const auto at = [&](const char* line) { return std::find(lines.begin(), lines.end(), line); };
        ASSERT_NE(at("Added server: localhost to the config."), lines.end());
        EXPECT_LT(at("Enable Ostler set to: true"), at("Added server: localhost to the config."));
    });
}

TEST_F(DaemonStart, TheMainThreadHasAPoolUntilTheEndOfTheDaemon) {
    started([] {
        EXPECT_TRUE(poolAtWatch);
        EXPECT_EQ(GPAutoReleasePool::topPool(), nullptr);
    });
}
