// Where the files lie that the program names.

#include "machost/libsystem/Paths.h"
#include "machost/Settings.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace {

using machost::libsystem::hostPath;

class RootedPaths : public testing::Test {
protected:
    RootedPaths() {
        machost::settings().root = root.path();
        setenv("TMPDIR", machine.path().c_str(), 1);
        setenv("PATH", "/usr/bin:/bin", 1);
        std::filesystem::current_path(machine.path());
    }

    // Whether the path means the file of that path below the root.
    bool isRooted(const std::string& path, const std::string& below) const {
        return hostPath(path.c_str()) == root.path() + below;
    }

    testsupport::TemporaryFolder root, machine;
};

TEST_F(RootedPaths, LieBelowTheRoot) {
    EXPECT_TRUE(isRooted("/etc/passwd", "/etc/passwd"));
    EXPECT_TRUE(isRooted("/", "/"));
    EXPECT_TRUE(isRooted("/devices", "/devices"));
}

TEST_F(RootedPaths, AreAsTheyStandWhereTheyAreThisMachines) {
    for (const std::string& path : {std::string("/dev/null"), std::string("/bin/sh"), machine.file("own"),
                                    root.file("own"), std::string("relative")})
        EXPECT_EQ(hostPath(path.c_str()), path);
    testsupport::writeAll(root.path() + "/sh", "");
    std::filesystem::create_directories(root.path() + "/bin");
    std::filesystem::rename(root.path() + "/sh", root.path() + "/bin/sh");
    EXPECT_TRUE(isRooted("/bin/sh", "/bin/sh"));
}

TEST_F(RootedPaths, DoNotLeaveItUpwards) {
    EXPECT_TRUE(isRooted("/../../../../etc/passwd", "/etc/passwd"));
    EXPECT_TRUE(isRooted("/var/../../../etc/passwd", "/etc/passwd"));
    EXPECT_TRUE(isRooted("/..", "/"));
    EXPECT_TRUE(isRooted("/dev/../etc/passwd", "/etc/passwd"));
    EXPECT_TRUE(isRooted(root.path() + "/../../etc/passwd", "/etc/passwd"));
    EXPECT_TRUE(isRooted(machine.path() + "/../../../etc/passwd", "/etc/passwd"));
    EXPECT_TRUE(isRooted("/bin/../etc/passwd", "/etc/passwd"));
}

TEST_F(RootedPaths, WithDotsInNamesAreNoWayUp) {
    EXPECT_TRUE(isRooted("/a..b/..c/d../...", "/a..b/..c/d../..."));
    EXPECT_TRUE(isRooted("/a/./b", "/a/./b"));
}

} // namespace
