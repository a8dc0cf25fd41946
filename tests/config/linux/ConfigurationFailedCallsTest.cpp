// A load and a save of the configuration of which one system call fails, each call in turn.

#include "config/Configuration.h"

#include "support/SettingsWorld.h"
#include "support/TracedCalls.h"

namespace {

// As the daemon writes it, with a log level that is not the default.
constexpr char levelOf16[] = "<LogLevel>16</LogLevel>";
constexpr char levelOf64[] = "<LogLevel>64</LogLevel>";

class ConfigurationFailedCalls : public testsupport::CallsFailIn<testsupport::SettingsWorld> {
protected:
    void SetUp() override {
        CallsFailIn::SetUp();
        // What the daemon itself writes with each of the two levels.
        removeFile();
        Configuration::setLogLevel(64);
        with64_ = file();
        Configuration::setLogLevel(16);
        with16_ = file();
        ASSERT_NE(with16_.find(levelOf16), std::string::npos);
        ASSERT_NE(with64_.find(levelOf64), std::string::npos);
        Configuration::setLogLevel(0);
        with0_ = file();
    }

    std::string with0_;
    std::string with16_;
    std::string with64_;
};

TEST_F(ConfigurationFailedCalls, OfASaveLeaveTheOldFileTheNewOneOrAnEmptyOne) {
    const long failures = testsupport::failEachCallOf(
        [&] {
            givenFile(with16_);
            Configuration::loadConfig();
        },
        [] { Configuration::setLogLevel(64); },
        [&] {
            // It is emptied and written in place.
            const std::string left = file();
            EXPECT_TRUE(left == with16_ || left == with64_ || left.empty()) << left;
            EXPECT_EQ(Configuration::getLogLevel(), 64);

            // No lock is left held, and the next save makes the file whole.
            EXPECT_TRUE(Configuration::saveConfig(true));
            EXPECT_EQ(file(), with64_);
        });
    EXPECT_GE(failures, 4);
}

TEST_F(ConfigurationFailedCalls, OfASaveNeverLetItSayThatItWorked) {
    bool saved = false;
    const std::string logged =
        "[ERROR]: unable to write to configuration file " + root.configurationFile() + ".";
    testsupport::failEachCallOf([&] { givenFile("what was there"); },
                                [&] { saved = Configuration::saveConfig(true); },
                                [&] { EXPECT_TRUE(saved ? file() == with0_ : log.holds(logged)) << file(); });
}

TEST_F(ConfigurationFailedCalls, OfALoadLeaveTheFileAsItIsAndTheDefaultsOrWhatItSays) {
    const long failures = testsupport::failEachCallOf(
        [&] { givenFile(with16_); }, [] { EXPECT_TRUE(Configuration::loadConfig()); },
        [&] {
            EXPECT_EQ(file(), with16_);
            const int level = Configuration::getLogLevel();
            EXPECT_TRUE(level == 16 || level == 0) << level;

            // No lock is left held.
            EXPECT_TRUE(Configuration::saveConfig(true));
            EXPECT_EQ(inFile("LogLevel"), std::to_string(level));
        });
    EXPECT_GE(failures, 6);
}

} // namespace
