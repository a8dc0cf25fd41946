#include "agent/Updater.h"

#include <gtest/gtest.h>

namespace {

TEST(Updater, TheVersionIsMadeOfItsThreeNumbersAndStaysTheSameText) {
    const char* version = Updater::versionString();
    EXPECT_STREQ(version, "1.5.2");
    EXPECT_EQ(Updater::versionString(), version);
}

TEST(Updater, ThePathIsWhatStandsBeforeTheLastSlash) {
    Updater::setPath("/usr/local/bin/fernhill");
    EXPECT_STREQ(Updater::exePath(), "/usr/local/bin");
    Updater::setPath("./fernhill");
    EXPECT_STREQ(Updater::exePath(), ".");
}

TEST(Updater, ABareProgramNameLeavesThePathEmpty) {
    Updater::setPath("/usr/local/bin/fernhill");
    Updater::setPath("fernhill");
    EXPECT_EQ(Updater::exePath(), nullptr);
}

TEST(Updater, ALeadingSlashAloneDoesNotCount) {
    Updater::setPath("/fernhill");
    EXPECT_EQ(Updater::exePath(), nullptr);
}

} // namespace
