#include "gp/GuardedAppend.h"

#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testsupport::readAll;
using testsupport::writeAll;

class GuardedAppend : public testing::Test {
protected:
    bool append(const std::string& text, KnownFile* known = nullptr) {
        return appendGuarded(path_.c_str(), text.data(), text.size(), known);
    }

    testsupport::TemporaryFolder folder_;
    const std::string path_ = folder_.file("file");
    const std::string other_ = folder_.file("other");
};

TEST_F(GuardedAppend, AFileIsMadeAndGrows) {
    EXPECT_TRUE(append("one"));
    EXPECT_TRUE(append(" two"));
    EXPECT_TRUE(append(""));
    EXPECT_EQ(readAll(path_), "one two");
}

TEST_F(GuardedAppend, AFileThatIsKnownIsWrittenToAsBeforeAndAnotherOneToo) {
    KnownFile known;
    EXPECT_TRUE(append("one", &known));
    struct stat entry {};
    stat(path_.c_str(), &entry);
    EXPECT_TRUE(known.is(entry.st_dev, entry.st_ino));
    EXPECT_FALSE(known.is(entry.st_dev, entry.st_ino + 1));
    EXPECT_FALSE(known.is(entry.st_dev + 1, entry.st_ino));
    EXPECT_TRUE(append(" two", &known));
    EXPECT_EQ(readAll(path_), "one two");

    rename(path_.c_str(), other_.c_str());
    EXPECT_TRUE(append("new", &known));
    EXPECT_EQ(readAll(path_), "new");
    stat(path_.c_str(), &entry);
    EXPECT_TRUE(known.is(entry.st_dev, entry.st_ino));
}

TEST_F(GuardedAppend, WhatIsNoFileOfOneNameIsLeftAlone) {
    writeAll(other_, "precious");
    ASSERT_EQ(symlink(other_.c_str(), path_.c_str()), 0);
    EXPECT_FALSE(append("x")) << "a link";
    unlink(path_.c_str());
    ASSERT_EQ(link(other_.c_str(), path_.c_str()), 0);
    EXPECT_FALSE(append("x")) << "a second name";
    unlink(path_.c_str());
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    EXPECT_FALSE(append("x")) << "a pipe";
    unlink(path_.c_str());
    ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
    EXPECT_FALSE(append("x")) << "a folder";
    EXPECT_EQ(readAll(other_), "precious");
    EXPECT_FALSE(appendGuarded(folder_.file("none/file").c_str(), "x", 1)) << "a folder that is not there";
}

TEST_F(GuardedAppend, AFileMayHaveTheNumberZero) {
    EXPECT_TRUE(testsupport::passesInChild([this] {
        close(0);
        EXPECT_TRUE(append("one"));
    }));
    EXPECT_EQ(readAll(path_), "one");
}

TEST_F(GuardedAppend, TextThatFindsNoRoomIsAFailure) {
    EXPECT_TRUE(testsupport::passesInChild([this] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit room = {100, 100};
        setrlimit(RLIMIT_FSIZE, &room);
        EXPECT_TRUE(append(std::string(60, 'a')));
        EXPECT_FALSE(append(std::string(60, 'b')));
        EXPECT_FALSE(append("c"));
    }));
    EXPECT_EQ(readAll(path_), std::string(60, 'a') + std::string(40, 'b'));
}

} // namespace
