#include "platform/FileManager.h"

#include "support/NetworkNamespace.h"
#include "support/SystemCallFailure.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

using platform::FileResult;
using testsupport::readAll;
using testsupport::TemporaryFolder;
using testsupport::volumeOf;
using testsupport::writeAll;

namespace fs = std::filesystem;

namespace {

class FileManagerTest : public testing::Test {
protected:
    static FileResult remove(const std::string& path) {
        return platform::fileManagerService.backend().removeItem(path.c_str());
    }

    static FileResult move(const std::string& from, const std::string& to) {
        return platform::fileManagerService.backend().moveItem(from.c_str(), to.c_str());
    }

    static void expectFailure(const FileResult& result, long code) {
        EXPECT_FALSE(result.done);
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.raised, "");
    }

    TemporaryFolder folder;
};

} // namespace

TEST_F(FileManagerTest, AFileIsRemoved) {
    writeAll(folder.file("a"), "text");
    const FileResult result = remove(folder.file("a"));
    EXPECT_TRUE(result.done);
    EXPECT_EQ(result.code, 0);
    EXPECT_FALSE(fs::exists(folder.file("a")));
}

TEST_F(FileManagerTest, AFolderIsRemovedWithAllThatIsInIt) {
    writeAll(folder.file("a/b/c"), "text");
    writeAll(folder.file("a/d"), "text");
    EXPECT_TRUE(remove(folder.file("a")).done);
    EXPECT_FALSE(fs::exists(folder.file("a")));
}

TEST_F(FileManagerTest, ALinkIsRemovedAndWhatItPointsAtStays) {
    writeAll(folder.file("kept/file"), "text");
    fs::create_directory_symlink(folder.file("kept"), folder.file("link"));
    EXPECT_TRUE(remove(folder.file("link")).done);
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder.file("link"))));
    EXPECT_EQ(readAll(folder.file("kept/file")), "text");
}

// Nothing of it is found again by its path, which others could lead elsewhere meanwhile.
TEST_F(FileManagerTest, AFolderDeeperThanAPathIsLongIsRemoved) {
    const std::string name(250, 'n');
    const fs::path before = fs::current_path();
    fs::current_path(folder.path());
    for (int depth = 0; depth < 20; ++depth) {
        fs::create_directory(name);
        ASSERT_EQ(chdir(name.c_str()), 0);
    }
    ASSERT_EQ(close(creat("file", 0600)), 0);
    fs::current_path(before);
    EXPECT_TRUE(remove(folder.file(name)).done);
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST_F(FileManagerTest, LinksInAFolderAreRemovedAndWhatTheyPointAtStays) {
    writeAll(folder.file("kept/file"), "text");
    fs::create_directory(folder.file("a"));
    fs::create_directory_symlink(folder.file("kept"), folder.file("a/folder"));
    fs::create_symlink(folder.file("kept/file"), folder.file("a/file"));
    EXPECT_TRUE(remove(folder.file("a")).done);
    EXPECT_FALSE(fs::exists(folder.file("a")));
    EXPECT_EQ(readAll(folder.file("kept/file")), "text");
}

TEST_F(FileManagerTest, RemovingWhatIsNotThereFailsWithNoSuchFile) {
    expectFailure(remove(folder.file("a")), platform::fileNoSuchFileError);
    expectFailure(remove(""), platform::fileNoSuchFileError);
}

TEST_F(FileManagerTest, AFileIsMoved) {
    writeAll(folder.file("a"), "text");
    EXPECT_TRUE(move(folder.file("a"), folder.file("b")).done);
    EXPECT_EQ(readAll(folder.file("b")), "text");
    EXPECT_FALSE(fs::exists(folder.file("a")));
}

TEST_F(FileManagerTest, WhatIsAtTheTargetIsNotReplaced) {
    writeAll(folder.file("a"), "new");
    writeAll(folder.file("b"), "old");
    expectFailure(move(folder.file("a"), folder.file("b")), platform::fileWriteFileExistsError);
    EXPECT_EQ(readAll(folder.file("a")), "new");
    EXPECT_EQ(readAll(folder.file("b")), "old");
}

TEST_F(FileManagerTest, AMoveWithoutSourceOrTargetFolderFailsWithNoSuchFile) {
    expectFailure(move(folder.file("a"), folder.file("b")), platform::fileNoSuchFileError);
    expectFailure(move("", folder.file("b")), platform::fileNoSuchFileError);
    writeAll(folder.file("a"), "text");
    expectFailure(move(folder.file("a"), folder.file("none/b")), platform::fileNoSuchFileError);
    EXPECT_EQ(readAll(folder.file("a")), "text");
}

TEST_F(FileManagerTest, ANameThatIsTooLongIsAnInvalidName) {
    writeAll(folder.file("a"), "text");
    expectFailure(move(folder.file("a"), folder.file(std::string(300, 'n'))),
                  platform::fileWriteInvalidFileNameError);
}

TEST_F(FileManagerTest, AFileIsMovedToAnotherVolumeWithItsMode) {
    setenv("TMPDIR", "/dev/shm", 1);
    const TemporaryFolder other;
    if (volumeOf(other.path()) == volumeOf(folder.path())) GTEST_SKIP() << "this machine has one volume";
    const std::string content(300000, 'x');
    writeAll(other.file("a"), content);
    fs::permissions(other.file("a"), fs::perms::owner_read);
    EXPECT_TRUE(move(other.file("a"), folder.file("b")).done);
    EXPECT_EQ(readAll(folder.file("b")), content);
    EXPECT_EQ(fs::status(folder.file("b")).permissions(), fs::perms::owner_read);
    EXPECT_FALSE(fs::exists(other.file("a")));
}

TEST_F(FileManagerTest, AMoveToAnotherVolumeWorksWithTheDescriptorZero) {
    setenv("TMPDIR", "/dev/shm", 1);
    const TemporaryFolder other;
    if (volumeOf(other.path()) == volumeOf(folder.path())) GTEST_SKIP() << "this machine has one volume";
    writeAll(other.file("a"), "content");
    writeAll(other.file("b"), "more");
    EXPECT_TRUE(testsupport::passesInChild([&] {
        close(0);
        EXPECT_TRUE(move(other.file("a"), folder.file("a")).done);
        EXPECT_TRUE(move(other.file("b"), folder.file("b")).done);
    }));
    EXPECT_EQ(readAll(folder.file("a")), "content");
    EXPECT_EQ(readAll(folder.file("b")), "more");
}

TEST_F(FileManagerTest, AMoveToAnotherVolumeFollowsNoLinkAndWaitsForNoPipe) {
    setenv("TMPDIR", "/dev/shm", 1);
    const TemporaryFolder other;
    if (volumeOf(other.path()) == volumeOf(folder.path())) GTEST_SKIP() << "this machine has one volume";
    writeAll(other.file("kept"), "text");
    fs::create_symlink(other.file("kept"), other.file("link"));
    EXPECT_FALSE(move(other.file("link"), folder.file("b")).done);
    ASSERT_EQ(mkfifo(other.file("pipe").c_str(), 0600), 0);
    EXPECT_TRUE(
        testsupport::passesInChild([&] { EXPECT_FALSE(move(other.file("pipe"), folder.file("b")).done); }));
    EXPECT_FALSE(fs::exists(folder.file("b")));
}

TEST_F(FileManagerTest, AMoveToAVolumeThatIsFullFailsWithOutOfSpaceAndLeavesTheSourceAndNoTarget) {
    const TemporaryFolder disk;
    writeAll(folder.file("a"), std::string(300000, 'x'));
    const auto result = testsupport::runOnSmallDisk(disk.path(), 4096, [&] {
        expectFailure(move(folder.file("a"), disk.file("b")), platform::fileWriteOutOfSpaceError);
        EXPECT_FALSE(fs::exists(disk.file("b")));
    });
    if (result == testsupport::NamespaceResult::unavailable) GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(result, testsupport::NamespaceResult::passed);
    EXPECT_EQ(readAll(folder.file("a")).size(), 300000u);
}

TEST_F(FileManagerTest, AMoveToAVolumeThatTakesNoFilesLeavesTheSource) {
    writeAll(folder.file("a"), "text");
    EXPECT_FALSE(move(folder.file("a"), "/proc/nobody-makes-a-file-here").done);
    EXPECT_EQ(readAll(folder.file("a")), "text");
}

TEST_F(FileManagerTest, AMoveToAnotherVolumeWhoseSourceCannotBeRemovedLeavesTheSourceAndNoTarget) {
    setenv("TMPDIR", "/dev/shm", 1);
    const TemporaryFolder other;
    if (volumeOf(other.path()) == volumeOf(folder.path())) GTEST_SKIP() << "this machine has one volume";
    const std::string source = other.file("a");
    writeAll(source, "text");
    EXPECT_TRUE(testsupport::passesInChild([&] {
        const auto argument = reinterpret_cast<std::uintptr_t>(source.c_str());
        ASSERT_TRUE(testsupport::failSystemCall(SYS_unlink, EACCES, static_cast<unsigned>(argument)));
        expectFailure(move(source, folder.file("b")), platform::fileWriteNoPermissionError);
    }));
    EXPECT_EQ(readAll(source), "text");
    EXPECT_FALSE(fs::exists(folder.file("b")));
}

TEST_F(FileManagerTest, AMoveToAnotherVolumeThatFailsLeavesTheSourceAndNoTarget) {
    setenv("TMPDIR", "/dev/shm", 1);
    const TemporaryFolder other;
    if (volumeOf(other.path()) == volumeOf(folder.path())) GTEST_SKIP() << "this machine has one volume";
    writeAll(other.file("a/b"), "a folder is not moved there");
    EXPECT_FALSE(move(other.file("a"), folder.file("b")).done);
    EXPECT_TRUE(fs::exists(other.file("a/b")));
    EXPECT_FALSE(fs::exists(folder.file("b")));
}

TEST_F(FileManagerTest, AFailureHasTheCodeOfTheSystemsError) {
    const std::string source = folder.file("a");
    writeAll(source, "text");
    const std::pair<int, long> codes[] = {{EPERM, platform::fileWriteNoPermissionError},
                                          {ENOTDIR, platform::fileNoSuchFileError},
                                          {ENOTEMPTY, platform::fileWriteFileExistsError},
                                          {EROFS, platform::fileWriteVolumeReadOnlyError},
                                          {EIO, platform::fileWriteUnknownError}};
    for (const auto& [error, code] : codes) {
        EXPECT_TRUE(testsupport::passesInChild([&, error = error, code = code] {
            const auto argument = reinterpret_cast<std::uintptr_t>(source.c_str());
            ASSERT_TRUE(testsupport::failSystemCall(SYS_rename, error, static_cast<unsigned>(argument)));
            expectFailure(move(source, folder.file("b")), code);
        })) << error;
    }
}

TEST_F(FileManagerTest, AMoveToAnotherVolumeLeavesWhatAppearsAtItsTargetMeanwhile) {
    setenv("TMPDIR", "/dev/shm", 1);
    const TemporaryFolder other;
    if (volumeOf(other.path()) == volumeOf(folder.path())) GTEST_SKIP() << "this machine has one volume";
    const std::string target = folder.file("b");
    writeAll(other.file("a"), "text");
    writeAll(target, "of another");
    EXPECT_TRUE(testsupport::passesInChild([&] {
        // As if it were not there yet when the move looks for it.
        const auto argument = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(target.c_str()));
        ASSERT_TRUE(testsupport::failSystemCall(SYS_newfstatat, ENOENT, argument, 1));
        expectFailure(move(other.file("a"), target), platform::fileWriteFileExistsError);
    }));
    EXPECT_EQ(readAll(target), "of another");
    EXPECT_EQ(readAll(other.file("a")), "text");
}

TEST_F(FileManagerTest, AMoveToAnotherVolumeEndsWithAFileThatHoldsLessThanItSays) {
    const char* shorter = "/sys/kernel/uevent_seqnum"; // 4096 bytes by its size, and a number
    if (!fs::exists(shorter) || readAll(shorter).size() >= 4096) GTEST_SKIP() << "there is no such file here";
    EXPECT_TRUE(testsupport::passesInChild([&] { EXPECT_FALSE(move(shorter, folder.file("b")).done); }));
    EXPECT_FALSE(fs::exists(folder.file("b"))) << "its source cannot be removed";
}
