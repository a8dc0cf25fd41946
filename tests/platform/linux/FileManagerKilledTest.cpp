// The process is killed between any two system calls of the move that puts a fetched package into its place.

#include "platform/FileManager.h"

#include "support/TemporaryFolder.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using testsupport::readAll;
using testsupport::TemporaryFolder;
using testsupport::volumeOf;
using testsupport::writeAll;

namespace fs = std::filesystem;

namespace {

class FileManagerKilled : public testsupport::KilledIn<testing::Test> {
protected:
    // Takes the former package away and puts the new one there, as a download ends; killed at each call in turn.
    static long killAtEachCallOfATakeOver(const std::string& from, const std::string& to,
                                          const std::function<void()>& lookAt) {
        return testsupport::killAtEachCall(
            [&] {
                writeAll(from, std::string(300000, 'n'));
                fs::remove(to);
                writeAll(to, std::string(300000, 'f'));
                auto& files = platform::fileManagerService.backend();
                testsupport::beginCalls();
                files.removeItem(to.c_str());
                files.moveItem(from.c_str(), to.c_str());
                testsupport::endCalls();
            },
            [&](const testsupport::TracedEnd&) { lookAt(); });
    }

    TemporaryFolder folder_;
};

TEST_F(FileManagerKilled, InATakeOverLeavesTheFormerPackageNoneOrTheNewOne) {
    const std::string from = folder_.file("fetched"), to = folder_.file("package");
    const long kills = killAtEachCallOfATakeOver(from, to, [&] {
        const std::string left = readAll(to);
        EXPECT_TRUE(!fs::exists(to) || left == std::string(300000, 'f') || left == std::string(300000, 'n'));
    });
    EXPECT_GE(kills, 4);
}

TEST_F(FileManagerKilled, InATakeOverFromAnotherVolumeCanLeaveAPartWithTheWholeStillAtItsFirstPlace) {
    setenv("TMPDIR", "/dev/shm", 1);
    const TemporaryFolder other;
    if (volumeOf(other.path()) == volumeOf(folder_.path())) GTEST_SKIP() << "this machine has one volume";
    const std::string from = other.file("fetched"), to = folder_.file("package");
    long parts = 0;
    const long kills = killAtEachCallOfATakeOver(from, to, [&] {
        const std::string left = readAll(to);
        if (!fs::exists(to) || left == std::string(300000, 'f') || left == std::string(300000, 'n')) return;
        ++parts;
        EXPECT_EQ(readAll(from), std::string(300000, 'n'));
    });
    EXPECT_GE(kills, 8);
    EXPECT_GT(parts, 0);
}

} // namespace
