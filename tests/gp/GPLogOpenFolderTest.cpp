// The log in a folder that everybody may write to: what others put in its file's place.

#include "gp/GPLog.h"

#include "support/ForkedChild.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using testsupport::readAll;
using testsupport::writeAll;

class GPLogOpenFolderTest : public testing::Test {
protected:
    GPLogOpenFolderTest() {
        setLogName("fernhill");
        fs::create_directory(logs_);
        setLogDirectory(logs_.c_str());
        writeAll(precious(), "precious");
    }
    ~GPLogOpenFolderTest() override { setLogDirectory("/nonexistent"); }

    std::string place() const { return logs_ + "/fernhill0-1.log"; }

    // A file of somebody else's outside of the folder.
    std::string precious() const { return folder_.file("precious"); }

    static bool logsWithoutWaiting() {
        return testsupport::comesToItsEnd([] { logs("line"); });
    }

    // Clears the place and expects the next line there, and none before it.
    void expectTheLogGoesOn() const {
        fs::remove(place());
        logs("goes on");
        const std::string text = readAll(place());
        EXPECT_NE(text.find("]: goes on\n"), std::string::npos) << text;
        EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
    }

    testsupport::TemporaryFolder folder_;
    const std::string logs_ = folder_.file("logs");
};

} // namespace

TEST_F(GPLogOpenFolderTest, APipeInTheLogsPlaceIsNotWaitedForAndCostsItsLines) {
    ASSERT_EQ(mkfifo(place().c_str(), 0666), 0);
    EXPECT_TRUE(logsWithoutWaiting());
    expectTheLogGoesOn();
}

TEST_F(GPLogOpenFolderTest, APipeThatIsReadGetsNothingAndIsNotWaitedForEither) {
    ASSERT_EQ(mkfifo(place().c_str(), 0666), 0);
    const int end = open(place().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(end, 0);
    EXPECT_TRUE(logsWithoutWaiting());
    char byte;
    EXPECT_EQ(read(end, &byte, 1), 0);
    close(end);
    expectTheLogGoesOn();
}

TEST_F(GPLogOpenFolderTest, NothingIsWrittenThroughALinkInTheLogsPlace) {
    fs::create_symlink(precious(), place());
    logs("line");
    EXPECT_EQ(readAll(precious()), "precious");
    expectTheLogGoesOn();
}

TEST_F(GPLogOpenFolderTest, ALinkToNothingMakesNoFile) {
    fs::create_symlink(folder_.file("made"), place());
    logs("line");
    EXPECT_FALSE(fs::exists(folder_.file("made")));
    expectTheLogGoesOn();
}

TEST_F(GPLogOpenFolderTest, NothingIsWrittenToAFileThatHasAnotherName) {
    fs::create_hard_link(precious(), place());
    logs("line");
    EXPECT_EQ(readAll(precious()), "precious");
    expectTheLogGoesOn();
}

TEST_F(GPLogOpenFolderTest, AFolderOrASocketInTheLogsPlaceCostsItsLines) {
    fs::create_directory(place());
    logs("line");
    EXPECT_TRUE(fs::is_empty(place()));
    expectTheLogGoesOn();

    fs::remove(place());
    fs::current_path(logs_); // since a socket's path has little room
    const int bound = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    place().copy(name.sun_path, sizeof name.sun_path - 1, logs_.size() + 1);
    ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
    EXPECT_TRUE(logsWithoutWaiting());
    close(bound);
    expectTheLogGoesOn();
}

TEST_F(GPLogOpenFolderTest, AFileThatWasTakenAwayAndIsLinkedFromElsewhereIsNoLongerWritten) {
    logs("line");
    fs::rename(place(), folder_.file("taken"));
    const std::string taken = readAll(folder_.file("taken"));
    fs::create_hard_link(folder_.file("taken"), place());
    logs("second");
    EXPECT_EQ(readAll(folder_.file("taken")), taken);
    fs::remove(place());
    fs::create_symlink(folder_.file("taken"), place());
    logs("third");
    EXPECT_EQ(readAll(folder_.file("taken")), taken);
}

TEST_F(GPLogOpenFolderTest, ALinkToAFullFileDoesNotMoveTheLogOn) {
    setMaxLogSize(1);
    writeAll(precious(), std::string(5000, 'x'));
    fs::create_symlink(precious(), place());
    logs("line");
    EXPECT_FALSE(fs::exists(logs_ + "/fernhill00.log"));
    expectTheLogGoesOn();
}

TEST_F(GPLogOpenFolderTest, ALinkThatIsItselfLongerThanTheLimitDoesNotMoveTheLogOn) {
    setMaxLogSize(1);
    std::string longTarget = folder_.path();
    while (longTarget.size() < 1500)
        longTarget += "/.";
    fs::create_symlink(longTarget, place());
    logs("line");
    EXPECT_FALSE(fs::exists(logs_ + "/fernhill00.log"));
    expectTheLogGoesOn();
}

TEST_F(GPLogOpenFolderTest, AFileThatARotationMovesDownMayBeALinkAndIsNotFollowed) {
    setMaxLogSize(1);
    setMaxLogCount(1);
    const std::string full(1100, 'f');
    logs(full.c_str());
    logs(full.c_str()); // index 0 is full, so the next line begins index 1
    fs::remove(logs_ + "/fernhill00.log");
    fs::create_symlink(precious(), logs_ + "/fernhill00.log");
    logs(full.c_str()); // drops index 0 and moves index 1 down
    EXPECT_EQ(readAll(precious()), "precious");
    EXPECT_FALSE(fs::is_symlink(logs_ + "/fernhill00.log"));
    EXPECT_NE(readAll(logs_ + "/fernhill00.log").find(full), std::string::npos);
}

TEST_F(GPLogOpenFolderTest, TheFolderItselfMayBeALink) {
    fs::create_directory_symlink(logs_, folder_.file("link"));
    const std::string link = folder_.file("link");
    setLogDirectory(link.c_str());
    expectTheLogGoesOn();
}
