#include "platform/HostPaths.h"

#include <gtest/gtest.h>

#include <string>

using platform::HostPaths;

TEST(HostPaths, WithoutARootThePathsAreTheDocumentedOnes) {
    EXPECT_STREQ("", HostPaths::root());
    EXPECT_STREQ("/Library/twsys/fernhill.xml", HostPaths::configurationFile());
    EXPECT_STREQ("/Library/Logs/TarnwickSystems", HostPaths::logDirectory());
}

TEST(HostPaths, ARootStandsInFrontOfEveryPath) {
    ASSERT_TRUE(HostPaths::setRoot("/tmp/scratch"));

    EXPECT_STREQ("/tmp/scratch", HostPaths::root());
    EXPECT_STREQ("/tmp/scratch/Library/twsys", HostPaths::settingsDirectory());
    EXPECT_STREQ("/tmp/scratch/usr/local/bin/fernhillupdate", HostPaths::updateHelper());
}

TEST(HostPaths, ARootOfSixtyBytesIsTaken) {
    const std::string root = "/" + std::string(59, 'r');

    EXPECT_TRUE(HostPaths::setRoot(root.c_str()));
    EXPECT_EQ(root + "/Library/twsys", HostPaths::settingsDirectory());
}

TEST(HostPaths, ALongerRootIsRefusedAndChangesNothing) {
    const std::string root = "/" + std::string(60, 'r');

    EXPECT_FALSE(HostPaths::setRoot(root.c_str()));
    EXPECT_STREQ("/Library/twsys", HostPaths::settingsDirectory());
}
