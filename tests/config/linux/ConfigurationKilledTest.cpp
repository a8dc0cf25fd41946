// The process is killed between any two system calls of a save; what the next start finds.

#include "config/Configuration.h"

#include "support/SettingsWorld.h"
#include "support/TestChild.h"
#include "support/TracedCalls.h"

#include <unistd.h>

#include <map>
#include <string>

namespace {

class ConfigurationKilled : public testsupport::KilledIn<testsupport::SettingsWorld> {
protected:
    // What a new process reads from the file, and leaves behind with the first save.
    static int levelAtTheNextStart() {
        for (const int possible : {0, 16, 64}) {
            const bool isIt = testsupport::passesInChild([&] {
                Configuration::loadConfig();
                if (Configuration::getLogLevel() != possible) _exit(1);
                if (!Configuration::saveConfig(true)) _exit(1);
            });
            if (isIt) return possible;
        }
        return -2;
    }

    static const std::string stored_;
};

const std::string ConfigurationKilled::stored_ = "<Fernhill><LogLevel>16</LogLevel></Fernhill>";

TEST_F(ConfigurationKilled, InASaveLeavesTheOldSettingsTheNewOnesOrTheDefaults) {
    std::map<int, int> found; // level, how often
    const long kills = testsupport::killAtEachCall(
        [this] {
            givenFile(stored_);
            Configuration::loadConfig();
            testsupport::beginCalls();
            Configuration::setLogLevel(64);
            testsupport::endCalls();
        },
        [&](const testsupport::TracedEnd&) {
            const bool empty = file().empty();
            const int level = levelAtTheNextStart();
            ++found[level];
            EXPECT_EQ(empty, level == 0) << "the defaults are those of an empty file alone";
            EXPECT_EQ(inFile("LogLevel"), std::to_string(level));
        });
    EXPECT_GE(kills, 4);
    EXPECT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0], 2) << "the file is empty in front of its write, and of that write alone";
}

} // namespace
