// What a line of the log asks of the system, and what others can do between two of these calls.

#include "gp/GPLog.h"

#include "support/FileCalls.h"
#include "support/ForkedChild.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using testsupport::FileCalls;
using testsupport::readAll;
using testsupport::writeAll;

class GPLogFileCallsTest : public testing::Test {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of these calls";
        setLogName("fernhill");
        setLogDirectory(folder_.path().c_str());
        logs("first"); // the time zone is read, the file is made
    }
    void TearDown() override { setLogDirectory("/nonexistent"); }

    std::string place() const { return folder_.file("fernhill0-1.log"); }
    std::string precious() const { return folder_.file("precious"); }

    // Logs a line while somebody has put another name of a file of root's into the log's place and comes in
    // between. What the file holds then.
    std::string preciousAfter(const std::function<void(FileCalls&)>& come) {
        writeAll(precious(), "precious");
        fs::remove(place());
        fs::create_hard_link(precious(), place());
        FileCalls calls;
        come(calls);
        logs("line");
        EXPECT_GE(calls.byDescriptor(), 1);
        return readAll(precious());
    }

    testsupport::TemporaryFolder folder_;
};

} // namespace

TEST_F(GPLogFileCallsTest, ALineCostsOneStatOfTheFileAndOneOfWhatWasOpened) {
    FileCalls calls;
    logs("second");
    EXPECT_EQ(calls.byPath(), 1);
    EXPECT_EQ(calls.byDescriptor(), 1);
    logs("third");
    EXPECT_EQ(calls.byPath(), 2);
    EXPECT_EQ(calls.byDescriptor(), 2);
}

TEST_F(GPLogFileCallsTest, AFileThatIsNewToTheLogCostsAnotherStatOnce) {
    writeAll(folder_.file("other"), "");
    fs::rename(folder_.file("other"), place()); // made while the first was there: its number is another
    FileCalls calls;
    logs("second");
    EXPECT_EQ(calls.byPath(), 2);
    logs("third");
    EXPECT_EQ(calls.byPath(), 3);
    EXPECT_EQ(calls.byDescriptor(), 2);
}

TEST_F(GPLogFileCallsTest, ALineWithItsFileOpenIsNotInheritedByPrograms) {
    FileCalls calls;
    logs("second");
    EXPECT_EQ(calls.byDescriptor(), 1);
    EXPECT_TRUE(calls.allClosedOnExec());
}

TEST_F(GPLogFileCallsTest, ALineThatTheSystemTakesInPiecesAndWithInterruptionsIsWrittenWhole) {
    FileCalls calls;
    calls.shortenWrites(7);
    logs("a line of more than seven bytes");
    EXPECT_GE(calls.writes(), 5);
    const std::string text = readAll(place());
    EXPECT_EQ(text.substr(text.rfind("]: ")), "]: a line of more than seven bytes\n");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(GPLogFileCallsTest, AnotherNameThatIsTakenAwayOnceItIsOpenDoesNotPassForTheLog) {
    EXPECT_EQ(
        preciousAfter([this](FileCalls& calls) { calls.beforeNextFstat([this] { fs::remove(place()); }); }),
        "precious");
}

TEST_F(GPLogFileCallsTest, AnotherNameThatIsTakenAwayAndGivenBackDoesNotPassForTheLog) {
    EXPECT_EQ(preciousAfter([this](FileCalls& calls) {
                  calls.beforeNextFstat([this] { fs::remove(place()); });
                  calls.behindNextFstat([this] { fs::create_hard_link(precious(), place()); });
              }),
              "precious");
}

TEST_F(GPLogFileCallsTest, AnotherNameThatIsReplacedByARealFileOnceItIsOpenDoesNotPassForTheLog) {
    EXPECT_EQ(preciousAfter([this](FileCalls& calls) {
                  calls.beforeNextFstat([this] {
                      fs::remove(place());
                      writeAll(place(), "");
                  });
              }),
              "precious");
}

TEST_F(GPLogFileCallsTest, AnotherNameThatBecomesALinkToItsFileDoesNotPassForTheLog) {
    EXPECT_EQ(preciousAfter([this](FileCalls& calls) {
                  calls.beforeNextFstat([this] {
                      fs::remove(place());
                      fs::create_symlink(precious(), place());
                  });
              }),
              "precious");
}

// Threads log without a lock, so one can rotate while another has just opened the file.
TEST_F(GPLogFileCallsTest, ALineWhoseFileIsMovedAwayOnceItIsOpenIsNotLost) {
    FileCalls calls;
    calls.beforeNextFstat([this] {
        fs::rename(place(), folder_.file("moved"));
        logs("another thread's");
    });
    logs("second");
    EXPECT_NE(readAll(place()).find("]: second\n"), std::string::npos) << readAll(place());
}

TEST_F(GPLogFileCallsTest, ALineWhoseNewFileIsMovedAwayOnceItIsOpenIsNotLost) {
    fs::rename(place(), folder_.file("former"));
    FileCalls calls;
    calls.beforeNextFstat([this] { fs::rename(place(), folder_.file("moved")); });
    logs("second");
    EXPECT_NE(readAll(place()).find("]: second\n"), std::string::npos);
}

TEST_F(GPLogFileCallsTest, SomebodyWhoMovesEveryFileAwayHoldsNoLineBack) {
    FileCalls calls;
    int moved = 0;
    fs::rename(place(), folder_.file("former"));
    calls.beforeEachFstat([&] { fs::rename(place(), folder_.file("moved" + std::to_string(moved++))); });
    logs("second");
    EXPECT_LE(calls.byDescriptor(), 8);
}

// Whoever owns a file can ask the system to hold back others who open it.
TEST_F(GPLogFileCallsTest, AFileWhoseOwnerHoldsOthersBackIsNotWaitedFor) {
    signal(SIGIO, SIG_IGN);
    const int held = open(place().c_str(), O_RDWR | O_CLOEXEC);
    if (fcntl(held, F_SETLEASE, F_WRLCK) != 0) GTEST_SKIP() << "no leases here";
    EXPECT_TRUE(testsupport::comesToItsEnd([] { logs("second"); }));
    close(held);
    EXPECT_EQ(readAll(place()).find("second"), std::string::npos);
}
