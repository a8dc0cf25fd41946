#pragma once

// Base of the tests around the console user: a scratch root, a log, a played console, directory tools that the test
// makes up, and sleeps that pass at once. One for each process.

#include "support/CapturedLog.h"
#include "support/DirectoryTools.h"
#include "support/ManualClock.h"
#include "support/PlayedConsoleUser.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace testsupport {

class IdentityWorld : public testing::Test {
protected:
    IdentityWorld() {
        ManualClock::installed().letSleepsPass(true);
        console.install();
    }

    using Calls = std::vector<std::string>;

    // How the question for a binding is recorded.
    static constexpr const char* askDsconfigad = "dsconfigad -show";

    ScratchRoot root;
    CapturedLog log;
    DirectoryTools tools;
    PlayedConsoleUser& console = *new PlayedConsoleUser; // a watching thread outlives the test
};

} // namespace testsupport
