// A load and a save of the configuration whose memory runs out at each allocation in turn.

#include "config/Configuration.h"

#include "support/FailedAllocations.h"
#include "support/Sanitizers.h"
#include "support/SettingsWorld.h"

namespace {

constexpr char stored[] =
    "<Fernhill><LogLevel>16</LogLevel><Servers><ServerName>s</ServerName></Servers></Fernhill>";

class ConfigurationMemory : public testsupport::SettingsWorld {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checker has the allocator";
        givenFile(stored);
    }
};

TEST_F(ConfigurationMemory, ThatRunsOutInALoadEndsTheProcessAndLeavesTheFile) {
    const auto runs =
        testsupport::failEachAllocation([] {}, [] { Configuration::loadConfig(); }, [] {},
                                        [this] { return file() == stored ? "" : "another file"; });
    EXPECT_GT(runs.ended, 20);
}

TEST_F(ConfigurationMemory, ThatRunsOutInASaveEndsTheProcessAndLeavesAWholeFile) {
    const auto runs = testsupport::failEachAllocation(
        [this] {
            givenFile(stored);
            Configuration::loadConfig();
        },
        [] { Configuration::setLogLevel(64); },
        [this] {
            EXPECT_TRUE(Configuration::saveConfig(true));
            EXPECT_EQ(inFile("LogLevel"), "64");
        },
        [this] {
            return file() == stored || inFile("LogLevel") == "64" ? ""
                                                                  : "a file that is not whole: " + file();
        });
    EXPECT_GT(runs.ended, 20);
    EXPECT_GT(runs.survived, 0) << "that of the stream, which is a file that does not open";
}

} // namespace
