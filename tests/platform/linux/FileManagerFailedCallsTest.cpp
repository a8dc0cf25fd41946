// Moves of a file of which one system call fails, each call in turn.

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

class FileManagerFailedCalls : public testsupport::CallsFailIn<testing::Test> {
protected:
    // Moves `from` to `to` with each call failing in turn, and looks at both.
    static long failEachCallOfAMove(const std::string& from, const std::string& to,
                                    const std::function<void()>& prepare,
                                    const std::function<void(bool)>& lookAt) {
        bool done = false;
        return testsupport::failEachCallOf(
            prepare,
            [&] { done = platform::fileManagerService.backend().moveItem(from.c_str(), to.c_str()).done; },
            [&] { lookAt(done); });
    }

    const std::string content_ = std::string(300000, 'x');
    TemporaryFolder folder_;
};

TEST_F(FileManagerFailedCalls, OfAMoveLeaveWhatWasInTheWay) {
    const std::string from = folder_.file("a"), to = folder_.file("b");
    const long failures = failEachCallOfAMove(
        from, to,
        [&] {
            writeAll(from, content_);
            writeAll(to, "in the way");
        },
        [&](bool done) {
            EXPECT_FALSE(done);
            EXPECT_EQ(readAll(from), content_);
            EXPECT_EQ(readAll(to), "in the way");
        });
    EXPECT_GE(failures, 2);
}

TEST_F(FileManagerFailedCalls, OfAMoveToAnotherVolumeLeaveTheWholeFileAtOneEndOrTheOther) {
    setenv("TMPDIR", "/dev/shm", 1);
    const TemporaryFolder other;
    if (volumeOf(other.path()) == volumeOf(folder_.path())) GTEST_SKIP() << "this machine has one volume";
    const std::string from = other.file("a"), to = folder_.file("b");
    const long failures = failEachCallOfAMove(
        from, to,
        [&] {
            writeAll(from, content_);
            fs::remove(to);
        },
        [&](bool done) {
            EXPECT_EQ(readAll(done ? to : from), content_);
            EXPECT_FALSE(fs::exists(done ? from : to));
        });
    EXPECT_GE(failures, 6);
}

} // namespace
