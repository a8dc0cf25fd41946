#include "gp/GPFilesystem.h"

#include "gp/GPArray.h"
#include "gp/GPData.h"
#include "gp/GPList.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testsupport::readAll;
using testsupport::writeAll;

class GPFilesystemTest : public testing::Test {
protected:
    // The path of a file of the test's folder, written with `content`.
    std::string fileWith(const std::string& name, const std::string& content) {
        const std::string path = at(name);
        writeAll(path, content);
        return path;
    }
    std::string at(const std::string& name) const { return folder_.file(name); }

    void workIn(const std::string& path) { ASSERT_EQ(chdir(path.c_str()), 0); }

private:
    testsupport::TemporaryFolder folder_;
};

std::string textOf(GPString* text) {
    const auto owned = Owned<GPString>::adopt(text);
    return owned ? owned->cstr() : "null";
}

std::string textOf(GPData* data) {
    const auto owned = Owned<GPData>::adopt(data);
    return owned ? std::string(owned->bytes(), static_cast<std::size_t>(owned->length())) : "null";
}

// --- tests on a path

TEST_F(GPFilesystemTest, ifExistIsTrueForFilesAndDirectories) {
    const std::string file = fileWith("a", "x");
    EXPECT_TRUE(ifExist(file.c_str()));
    EXPECT_TRUE(ifExist("/"));
    EXPECT_FALSE(ifExist(at("none").c_str()));
    EXPECT_FALSE(ifExist(nullptr));
}

TEST_F(GPFilesystemTest, isDirectoryIsTrueForDirectoriesAlone) {
    const std::string file = fileWith("a", "x");
    EXPECT_TRUE(isDirectory("/"));
    EXPECT_FALSE(isDirectory(file.c_str()));
    EXPECT_FALSE(isDirectory(at("none").c_str()));
}

TEST_F(GPFilesystemTest, isFileOnAPathThatDoesNotExistIsTrue) {
    const std::string file = fileWith("a", "x");
    EXPECT_TRUE(isFile(at("none").c_str()));
    EXPECT_TRUE(isFile(file.c_str()));
    EXPECT_FALSE(isFile("/"));
}

TEST_F(GPFilesystemTest, isSymbolicLinkIsFalseEvenForALink) {
    const std::string file = fileWith("a", "x");
    ASSERT_EQ(symlink(file.c_str(), at("link").c_str()), 0);
    EXPECT_FALSE(isSymbolicLink(at("link").c_str()));
    EXPECT_FALSE(isSymbolicLink(nullptr));
}

TEST_F(GPFilesystemTest, isHiddenLooksAtTheFirstCharacterOfThePath) {
    EXPECT_TRUE(isHidden("~/x"));
    EXPECT_FALSE(isHidden("/a/~x"));
    EXPECT_FALSE(isHidden(".x"));
    EXPECT_FALSE(isHidden(""));
    EXPECT_FALSE(isHidden(nullptr));
}

TEST_F(GPFilesystemTest, isUnixIsAlwaysTrue) { EXPECT_TRUE(isUnix()); }

// --- whole files

TEST_F(GPFilesystemTest, readFileReadsFromTheOffsetAndSaysHowMuch) {
    const std::string file = fileWith("a", "0123456789");
    char buffer[20] = {};
    long length = 4;
    EXPECT_TRUE(readFile(file.c_str(), buffer, length, 3, true));
    EXPECT_EQ(length, 4);
    EXPECT_STREQ(buffer, "3456");
    length = 20;
    EXPECT_TRUE(readFile(file.c_str(), buffer, length, 8, false));
    EXPECT_EQ(length, 2);
}

TEST_F(GPFilesystemTest, readFileRefusesNullAMissingFileAndALengthBelowOne) {
    const std::string file = fileWith("a", "0123456789");
    char buffer[20] = {};
    long length = 4;
    EXPECT_FALSE(readFile(nullptr, buffer, length, 0, true));
    EXPECT_FALSE(readFile(file.c_str(), nullptr, length, 0, true));
    EXPECT_FALSE(readFile(at("none").c_str(), buffer, length, 0, true));
    length = 0;
    EXPECT_FALSE(readFile(file.c_str(), buffer, length, 0, true));
}

TEST_F(GPFilesystemTest, writeFileAppendsUnlessItTruncates) {
    const std::string file = at("a");
    EXPECT_TRUE(writeFile(file.c_str(), "one", 3, true, false));
    EXPECT_TRUE(writeFile(file.c_str(), "two", 3, false, false));
    EXPECT_EQ(readAll(file), "onetwo");
    EXPECT_TRUE(writeFile(file.c_str(), "three", 5, true, true));
    EXPECT_EQ(readAll(file), "three");
    EXPECT_TRUE(writeFile(file.c_str(), "four", 4, false, true));
    EXPECT_EQ(readAll(file), "four");
}

TEST_F(GPFilesystemTest, writeFileWithLengthZeroInTextModeWritesTheWholeText) {
    EXPECT_TRUE(writeFile(at("a").c_str(), "whole text", 0, false, false));
    EXPECT_EQ(readAll(at("a")), "whole text");
    EXPECT_TRUE(writeFile(at("a").c_str(), "", 0, false, false));
}

TEST_F(GPFilesystemTest, writeFileWithLengthZeroInBinaryModeIsFalseWithTheFileAlreadyTruncated) {
    const std::string file = fileWith("a", "old");
    EXPECT_FALSE(writeFile(file.c_str(), "new", 0, true, false));
    EXPECT_EQ(readAll(file), "old");
    EXPECT_FALSE(writeFile(file.c_str(), "new", 0, true, true));
    EXPECT_EQ(readAll(file), "");
    EXPECT_FALSE(writeFile(at("b").c_str(), "new", 0, true, false));
    EXPECT_TRUE(ifExist(at("b").c_str()));
}

TEST_F(GPFilesystemTest, writeFileRefusesNullAndANegativeLength) {
    EXPECT_FALSE(writeFile(nullptr, "x", 1, true, true));
    EXPECT_FALSE(writeFile(at("a").c_str(), nullptr, 1, true, true));
    EXPECT_FALSE(writeFile(at("a").c_str(), "x", -1, false, true));
    EXPECT_FALSE(writeFile(at("none/a").c_str(), "x", 1, true, true));
}

TEST_F(GPFilesystemTest, writeFileIsFalseWhenNotAllBytesReachTheDisk) {
    if (!ifExist("/dev/full")) GTEST_SKIP() << "this system has no full device";
    EXPECT_FALSE(writeFile("/dev/full", "x", 1, false, false));
}

TEST_F(GPFilesystemTest, readDataWithANonZeroFirstIsNull) {
    const std::string file = fileWith("a", "content");
    EXPECT_EQ(readData(file.c_str(), 1, 0), nullptr);
    EXPECT_EQ(textOf(readData(file.c_str(), 0, 0)), "content");
}

TEST_F(GPFilesystemTest, readDataWithOffset10OnA100ByteFileGives90BytesInABufferOf100) {
    const std::string file = fileWith("a", std::string(10, 'x') + std::string(90, 'y'));
    const auto data = Owned<GPData>::adopt(readData(file.c_str(), 0, 10));
    ASSERT_TRUE(data);
    EXPECT_EQ(data->length(), 90);
    EXPECT_EQ(std::string(data->bytes(), 90), std::string(90, 'y'));
    std::memset(data->bytes(), 'z', 100); // within the buffer, or a memory checker complains
}

TEST_F(GPFilesystemTest, readDataIsNullForAFileThatIsLongerThanALengthCanTell) {
    const std::string file = fileWith("a", "");
    if (truncate(file.c_str(), off_t{INT_MAX} + 1) != 0) GTEST_SKIP() << "no file of that length here";
    EXPECT_EQ(readData(file.c_str(), 0, 0), nullptr);
}

TEST_F(GPFilesystemTest, readDataIsNullForNullMissingAndEmptyFiles) {
    const std::string file = fileWith("a", "");
    EXPECT_EQ(readData(nullptr, 0, 0), nullptr);
    EXPECT_EQ(readData(at("none").c_str(), 0, 0), nullptr);
    EXPECT_EQ(readData(file.c_str(), 0, 0), nullptr);
}

TEST_F(GPFilesystemTest, readTextOnAnEmptyFileIsNull) {
    const std::string file = fileWith("a", "");
    EXPECT_EQ(readText(file.c_str(), 0, 0), nullptr);
}

TEST_F(GPFilesystemTest, readTextGivesTheTextUpToTheFirstNul) {
    const std::string plain = fileWith("a", "some text\n");
    const std::string withNul = fileWith("b", std::string("so\0me", 5));
    EXPECT_EQ(textOf(readText(plain.c_str(), 0, 0)), "some text\n");
    EXPECT_EQ(textOf(readText(plain.c_str(), 0, 5)), "text\n");
    EXPECT_EQ(textOf(readText(withNul.c_str(), 0, 0)), "so");
}

TEST_F(GPFilesystemTest, readTextFromBeyondTheEndIsNull) {
    const std::string file = fileWith("a", "text");
    EXPECT_EQ(readText(file.c_str(), 0, 4), nullptr);
    EXPECT_EQ(readText(file.c_str(), 0, 400), nullptr);
}

TEST_F(GPFilesystemTest, writeDataAndWriteTextWriteWhatTheyAreGiven) {
    GPData data("a\0b", 3, false);
    GPString text("text");
    EXPECT_TRUE(writeData(at("a").c_str(), &data, true));
    EXPECT_TRUE(writeData(at("a").c_str(), &data, false));
    EXPECT_EQ(readAll(at("a")), std::string("a\0ba\0b", 6));
    EXPECT_TRUE(writeText(at("b").c_str(), &text, false));
    EXPECT_TRUE(writeText(at("b").c_str(), &text, false));
    EXPECT_EQ(readAll(at("b")), "texttext");
    EXPECT_TRUE(writeText(at("b").c_str(), &text, true));
    EXPECT_EQ(readAll(at("b")), "text");
}

TEST_F(GPFilesystemTest, writeDataOfNoBytesIsFalse) {
    GPData nothing;
    EXPECT_FALSE(writeData(at("a").c_str(), &nothing, true));
}

TEST_F(GPFilesystemTest, createNewFileMakesAnEmptyFileAndEmptiesAnOldOne) {
    const std::string file = fileWith("a", "old");
    EXPECT_TRUE(createNewFile(file.c_str()));
    EXPECT_EQ(readAll(file), "");
    EXPECT_TRUE(createNewFile(at("b").c_str()));
    EXPECT_TRUE(ifExist(at("b").c_str()));
    EXPECT_FALSE(createNewFile(nullptr));
    EXPECT_FALSE(createNewFile(at("none/a").c_str()));
}

TEST_F(GPFilesystemTest, copyFileOntoAnExistingFileLeavesTheOldContentInFrontOfTheNew) {
    const std::string from = fileWith("from", "new");
    const std::string to = fileWith("to", "old");
    EXPECT_TRUE(copyFile(from.c_str(), to.c_str()));
    EXPECT_EQ(readAll(to), "oldnew");
}

TEST_F(GPFilesystemTest, copyFileOfAnEmptySourceIsFalseAndCreatesNothing) {
    const std::string from = fileWith("from", "");
    EXPECT_FALSE(copyFile(from.c_str(), at("to").c_str()));
    EXPECT_FALSE(ifExist(at("to").c_str()));
    EXPECT_FALSE(copyFile(at("none").c_str(), at("to").c_str()));
    EXPECT_FALSE(copyFile(nullptr, at("to").c_str()));
    EXPECT_FALSE(copyFile(from.c_str(), nullptr));
}

TEST_F(GPFilesystemTest, copyFileCopiesEveryByte) {
    const std::string content("a\0b\r\n\xff", 6);
    const std::string from = fileWith("from", content);
    EXPECT_TRUE(copyFile(from.c_str(), at("to").c_str()));
    EXPECT_EQ(readAll(at("to")), content);
}

TEST_F(GPFilesystemTest, renameFileAndMoveFileAreTheSame) {
    const std::string a = fileWith("a", "x");
    EXPECT_TRUE(renameFile(a.c_str(), at("b").c_str()));
    EXPECT_TRUE(moveFile(at("b").c_str(), at("c").c_str()));
    EXPECT_EQ(readAll(at("c")), "x");
    EXPECT_FALSE(ifExist(a.c_str()));
    EXPECT_FALSE(renameFile(a.c_str(), at("d").c_str()));
    EXPECT_FALSE(renameFile(nullptr, a.c_str()));
    EXPECT_FALSE(moveFile(a.c_str(), nullptr));
}

TEST_F(GPFilesystemTest, deleteFileRemovesAFile) {
    const std::string file = fileWith("a", "x");
    EXPECT_TRUE(deleteFile(file.c_str()));
    EXPECT_FALSE(ifExist(file.c_str()));
    EXPECT_FALSE(deleteFile(file.c_str()));
}

TEST_F(GPFilesystemTest, fileSizeCountsBytesAndIsZeroForNull) {
    const std::string file = fileWith("a", "12345");
    EXPECT_EQ(fileSize(file.c_str()), 5);
    EXPECT_EQ(fileSize(nullptr), 0);
}

TEST_F(GPFilesystemTest, fileModeGivesTheModeBitsThatSetFileModeSets) {
    const std::string file = fileWith("a", "x");
    EXPECT_TRUE(setFileMode(file.c_str(), 0640));
    EXPECT_EQ(fileMode(file.c_str()), 0640);
    EXPECT_EQ(fileMode(at("none").c_str()), 0);
    EXPECT_FALSE(setFileMode(at("none").c_str(), 0640));
    EXPECT_FALSE(setFileMode(nullptr, 0640));
}

TEST_F(GPFilesystemTest, createDirMakesOneLevelWithTheMode775) {
    const mode_t mask = umask(0);
    EXPECT_TRUE(createDir(at("d").c_str()));
    umask(mask);
    EXPECT_EQ(fileMode(at("d").c_str()), 509);
    EXPECT_TRUE(isDirectory(at("d").c_str()));
    EXPECT_FALSE(createDir(at("d").c_str()));
    EXPECT_FALSE(createDir(at("x/y").c_str()));
    EXPECT_FALSE(createDir(nullptr));
}

TEST_F(GPFilesystemTest, deleteDirRemovesAnEmptyDirectory) {
    createDir(at("d").c_str());
    writeAll(at("d/a"), "x");
    EXPECT_FALSE(deleteDir(at("d").c_str()));
    deleteFile(at("d/a").c_str());
    EXPECT_TRUE(deleteDir(at("d").c_str()));
    EXPECT_FALSE(ifExist(at("d").c_str()));
    EXPECT_FALSE(deleteDir(nullptr));
}

// --- the process

TEST_F(GPFilesystemTest, getCurrentDirectoryStaysValidAcrossALaterCall) {
    workIn("/");
    const char* root = getCurrentDirectory();
    workIn("/tmp");
    const char* other = getCurrentDirectory();
    EXPECT_STREQ(root, "/");
    EXPECT_STRNE(other, "/");
}

TEST_F(GPFilesystemTest, getCurrentDirectoryIsNullWhenThereIsNone) {
    createDir(at("gone").c_str());
    workIn(at("gone"));
    deleteDir(at("gone").c_str());
    EXPECT_EQ(getCurrentDirectory(), nullptr);
}

TEST_F(GPFilesystemTest, TheConstantDirectoriesAreAsWritten) {
    EXPECT_STREQ(getAppDirectory(), "/Applications");
    EXPECT_STREQ(getAppDataDirectory(), "/Library/Preferences");
    EXPECT_STREQ(getSystemDirectory(), "/user/local/bin");
}

TEST_F(GPFilesystemTest, TheUserAndDocumentDirectoriesComeFromTheAccount) {
    const passwd* account = getpwuid(getuid());
    if (!account) GTEST_SKIP() << "this user has no account";
    const std::string home = account->pw_dir;
    EXPECT_EQ(getUserDirectory(), home);
    EXPECT_EQ(getDocDirectory(), home + "/Documents");
}

TEST_F(GPFilesystemTest, TheUserDirectoryOfAUserWithoutAnAccountIsEmpty) {
    if (getuid() != 0) GTEST_SKIP() << "needs to become another user";
    constexpr uid_t nobodys = 64999;
    if (getpwuid(nobodys)) GTEST_SKIP() << "this number has an account here";
    EXPECT_TRUE(testsupport::passesInChild([] {
        ASSERT_EQ(setuid(nobodys), 0);
        EXPECT_STREQ(getUserDirectory(), "");
        EXPECT_STREQ(getDocDirectory(), "/Documents");
    }));
}

TEST_F(GPFilesystemTest, getTempDirectoryWithTMPDIRUnsetIsTmp) {
    unsetenv("TMPDIR");
    EXPECT_STREQ(getTempDirectory(), "/tmp");
    setenv("TMPDIR", "", 1);
    EXPECT_STREQ(getTempDirectory(), "/tmp");
    setenv("TMPDIR", "/var/somewhere", 1);
    EXPECT_STREQ(getTempDirectory(), "/var/somewhere");
}

TEST_F(GPFilesystemTest, TheProcessNameIsTheProgramsUntilOneIsSet) {
    EXPECT_STREQ(getProcessName(), "gp_tests");
    setProcessName("fernhill");
    EXPECT_STREQ(getProcessName(), "fernhill");
}

TEST_F(GPFilesystemTest, setProcessNameKeepsWhatLiesBehindTheLastSlash) {
    setProcessName("/usr/bin/tool");
    EXPECT_STREQ(getProcessName(), "tool");
    setProcessName("bin/other");
    EXPECT_STREQ(getProcessName(), "other");
}

TEST_F(GPFilesystemTest, setProcessNameWithASlashAtPositionZeroAloneKeepsItAll) {
    setProcessName("/tool");
    EXPECT_STREQ(getProcessName(), "/tool");
}

TEST_F(GPFilesystemTest, getPIDIsTheProcessNumber) { EXPECT_EQ(getPID(), getpid()); }

} // namespace
