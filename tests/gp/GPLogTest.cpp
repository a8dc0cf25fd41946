#include "gp/GPLog.h"

#include "gp/GPFilesystem.h"
#include "platform/Clock.h"
#include "platform/ThreadNumber.h"
#include "support/ManualClock.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using testsupport::ManualClock;
using testsupport::readAll;
using testsupport::writeAll;

// Stands at a second whose year no number of a calendar holds.
class EndOfTime final : public platform::Clock {
public:
    std::int64_t microseconds() override { return std::numeric_limits<std::int64_t>::max(); }
    std::time_t seconds() override { return std::numeric_limits<std::time_t>::max(); }
    void sleepMicroseconds(unsigned) override {}
    void sleepSeconds(unsigned) override {}
    std::int64_t eventWaitLimit(int) override { return 0; }
};

// The log of this process, with its files in a folder of the test's own and the clock's local time universal.
class GPLogTest : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        tzset();
        setLogName("fernhill");
        setLogDirectory(folder_.path().c_str());
    }
    void TearDown() override { setLogDirectory("/nonexistent"); }

    std::string at(const std::string& name) const { return folder_.file(name); }
    std::string content(const std::string& name) const { return readAll(at(name)); }
    bool exists(const std::string& name) const { return ifExist(at(name).c_str()); }
    const std::string& folder() const { return folder_.path(); }

    // The record of a message at the time at which the tests' clock stands.
    static std::string record(const std::string& message) {
        return "[" + std::to_string(platform::threadNumber()) + " Sat Nov 14 05:56:50 2026]: " + message +
               "\n";
    }

    // Logs a message whose record is longer than a file of one kibibyte may be.
    static void fillFile(char letter) { logs(std::string(1100, letter).c_str()); }
    static std::string filled(char letter) { return record(std::string(1100, letter)); }

    // Goes on to the file with index 0.
    static void leaveTheFirstFile() { fillFile('-'); }

private:
    testsupport::TemporaryFolder folder_;
};

TEST_F(GPLogTest, AFirstLineGoesToTheFileWhoseIndexIsMinusOne) {
    logs("first");
    EXPECT_EQ(content("fernhill0-1.log"), record("first"));
    EXPECT_FALSE(exists("fernhill00.log"));
}

TEST_F(GPLogTest, ALineHasTheThreadNumberAndTheTimeInFront) {
    logs("message");
    logs("another");
    EXPECT_EQ(content("fernhill0-1.log"), record("message") + record("another"));
}

TEST_F(GPLogTest, TheTimeIsLocal) {
    setenv("TZ", "EST5", 1);
    tzset();
    logs("x");
    EXPECT_NE(content("fernhill0-1.log").find(" Sat Nov 14 00:56:50 2026]: x\n"), std::string::npos);
}

TEST_F(GPLogTest, EachLineHasTheTimeOfItsOwnSecondWhereverTheClockIsSet) {
    for (const int moved : {0, 0, 1, -2}) {
        ManualClock::installed().advanceSeconds(moved);
        logs("x");
    }
    std::vector<std::string> seconds;
    const std::string lines = content("fernhill0-1.log");
    for (std::size_t at = lines.find(":56:"); at != std::string::npos; at = lines.find(":56:", at + 1))
        seconds.push_back(lines.substr(at + 4, 2));
    EXPECT_EQ(seconds, (std::vector<std::string>{"50", "50", "51", "49"}));
}

TEST_F(GPLogTest, TheFirstLineOfAllHasItsTimeAlsoWhereThatIsZero) {
    ManualClock::installed().set(0);
    logs("x");
    EXPECT_NE(content("fernhill0-1.log").find(" Thu Jan  1 00:00:00 1970]: x\n"), std::string::npos);
}

TEST_F(GPLogTest, ATimeOfNoYearIsLeftOutAndIsNotThatOfTheLineBefore) {
    logs("x");
    EndOfTime clock;
    platform::clockService.install(clock);
    logs("y");
    platform::clockService.install(ManualClock::installed());
    const std::string front = "[" + std::to_string(platform::threadNumber());
    EXPECT_EQ(content("fernhill0-1.log"), record("x") + front + " ]: y\n");
}

TEST_F(GPLogTest, logfFormatsItsArguments) {
    logf("%s has %d of %ld", "one", 2, 3L);
    EXPECT_EQ(content("fernhill0-1.log"), record("one has 2 of 3"));
}

TEST_F(GPLogTest, logfTakesLinesOfAnyLength) {
    const std::string text(100000, 'x');
    logf("<%s>", text.c_str());
    EXPECT_EQ(content("fernhill0-1.log"), record("<" + text + ">"));
}

TEST_F(GPLogTest, logfStandsBesideTheLogarithmOfTheSameName) {
    EXPECT_FLOAT_EQ(logf(1.0f), 0.0f);
    EXPECT_FALSE(exists("fernhill0-1.log"));
}

TEST_F(GPLogTest, AMessageWithANewlineIsWrittenAsItIsWithNoSecondTimestamp) {
    logs("one\ntwo\n");
    EXPECT_EQ(content("fernhill0-1.log"), record("one\ntwo\n"));
}

TEST_F(GPLogTest, PercentSignsOfATextAreNoFormat) {
    logs("100%s %n");
    EXPECT_EQ(content("fernhill0-1.log"), record("100%s %n"));
}

TEST_F(GPLogTest, AfterSetMaxLogSize1TheCounterStandsAt0AsSoonAsTheFirstFilePasses1024Bytes) {
    setMaxLogSize(1);
    const std::size_t front = record("").size();
    logs(std::string(1024 - front, 'x').c_str());
    EXPECT_EQ(content("fernhill0-1.log").size(), 1024u);
    logs("still there");
    EXPECT_EQ(content("fernhill0-1.log").size(), 1024u + record("still there").size())
        << "a file at its limit is not over it";
    logs("next");
    EXPECT_EQ(content("fernhill00.log"), record("next"));
}

TEST_F(GPLogTest, OneByteMakesAFileLongerThanItMayBe) {
    setMaxLogSize(1);
    logs(std::string(1025 - record("").size(), 'x').c_str());
    logs("next");
    EXPECT_EQ(content("fernhill00.log"), record("next"));
}

TEST_F(GPLogTest, SetMaxLogSizeOfZeroOrLessChangesNothingAndOf2GivesALimitOf2048Bytes) {
    setMaxLogSize(2);
    setMaxLogSize(0);
    setMaxLogSize(-1);
    logs(std::string(2048 - record("").size(), 'x').c_str());
    logs("over");
    EXPECT_FALSE(exists("fernhill00.log"));
    logs("next");
    EXPECT_EQ(content("fernhill00.log"), record("next"));
}

TEST_F(GPLogTest, TheLimitIsAMebibyteUnlessToldOtherwise) {
    setMaxLogSize(0);
    const std::size_t front = record("").size();
    logs(std::string(1048576 - front, 'x').c_str());
    logs("over");
    logs("next");
    EXPECT_EQ(content("fernhill0-1.log").size(), 1048576u + record("over").size());
    EXPECT_EQ(content("fernhill00.log"), record("next"));
}

TEST_F(GPLogTest, Index9IsNamedWithTheLeadingZeroAndIndex10WithoutIt) {
    setMaxLogSize(1);
    leaveTheFirstFile();
    for (char letter = '0'; letter <= '9'; ++letter)
        fillFile(letter);
    logs("ten");
    EXPECT_EQ(content("fernhill09.log"), filled('9'));
    EXPECT_EQ(content("fernhill10.log"), record("ten"));
    EXPECT_FALSE(exists("fernhill010.log"));
}

TEST_F(GPLogTest, AtTheHighestIndexTheOldestIsDroppedTheOthersMoveDownAndTheFirstFileStays) {
    setMaxLogSize(1);
    setMaxLogCount(2);
    leaveTheFirstFile();
    fillFile('0');
    fillFile('1');
    fillFile('2');
    EXPECT_EQ(content("fernhill00.log"), filled('1'));
    EXPECT_EQ(content("fernhill01.log"), filled('2'));
    EXPECT_FALSE(exists("fernhill02.log"));
    EXPECT_EQ(content("fernhill0-1.log"), filled('-'));
    logs("next");
    EXPECT_EQ(content("fernhill02.log"), record("next"));
}

TEST_F(GPLogTest, TheSeriesHolds21FilesBesideTheFirst) {
    setMaxLogSize(1);
    for (int i = 0; i < 30; ++i)
        fillFile(static_cast<char>('A' + i));
    EXPECT_TRUE(exists("fernhill0-1.log"));
    EXPECT_TRUE(exists("fernhill00.log"));
    EXPECT_TRUE(exists("fernhill19.log"));
    EXPECT_FALSE(exists("fernhill21.log"));
    logs("last");
    EXPECT_EQ(content("fernhill20.log"), record("last"));
    EXPECT_EQ(content("fernhill19.log"), filled(static_cast<char>('A' + 29)));
}

TEST_F(GPLogTest, SetMaxLogCountBelowOneChangesNothing) {
    setMaxLogSize(1);
    setMaxLogCount(1);
    setMaxLogCount(0);
    setMaxLogCount(-5);
    leaveTheFirstFile();
    fillFile('0');
    fillFile('1');
    logs("next");
    EXPECT_EQ(content("fernhill00.log"), filled('1'));
    EXPECT_EQ(content("fernhill01.log"), record("next"));
}

TEST_F(GPLogTest, ARestartWalksThroughTheFullFilesWithOneLineInEach) {
    const std::string full(2000, 'f');
    writeAll(at("fernhill0-1.log"), full);
    writeAll(at("fernhill00.log"), full);
    writeAll(at("fernhill01.log"), "begun ");
    setMaxLogSize(1);
    logs("a");
    logs("b");
    logs("c");
    logs("d");
    EXPECT_EQ(content("fernhill0-1.log"), full + record("a"));
    EXPECT_EQ(content("fernhill00.log"), full + record("b"));
    EXPECT_EQ(content("fernhill01.log"), "begun " + record("c") + record("d"));
}

TEST_F(GPLogTest, WithNoDirectorySetFilesGoToTheWorkingDirectory) {
    ASSERT_EQ(chdir(folder().c_str()), 0);
    setLogDirectory(nullptr);
    logs("here");
    EXPECT_EQ(content("fernhill0-1.log"), record("here"));
}

TEST_F(GPLogTest, WithNoStemSetTheProcessNameIsUsedAndKept) {
    setLogName(nullptr);
    setProcessName("/usr/bin/tool");
    logs("one");
    setProcessName("/usr/bin/longer-name");
    logs("two");
    EXPECT_EQ(content("tool0-1.log"), record("one") + record("two"));
    EXPECT_FALSE(exists("longer-name0-1.log"));
}

TEST_F(GPLogTest, AChangedStemTakesEffectAtTheNextLine) {
    logs("one");
    setLogName("other");
    logs("two");
    EXPECT_EQ(content("fernhill0-1.log"), record("one"));
    EXPECT_EQ(content("other0-1.log"), record("two"));
}

TEST_F(GPLogTest, WithEchoOnTheOutputLineIsTheLogLineWithAMarkBeforeIt) {
    setLogEcho(true);
    testing::internal::CaptureStdout();
    logs("message");
    setLogEcho(false);
    logs("unheard");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[LogEcho]: " + record("message"));
    EXPECT_EQ(content("fernhill0-1.log"), record("message") + record("unheard"));
}

TEST_F(GPLogTest, ALineThatCannotBeWrittenIsLostWithNoReportAndNoRotation) {
    setMaxLogSize(1);
    const std::string missing = at("none");
    setLogDirectory(missing.c_str());
    fillFile('x');
    fillFile('y');
    setLogDirectory(folder().c_str());
    logs("found");
    EXPECT_EQ(content("fernhill0-1.log"), record("found")) << "the counter has not moved";
}

TEST_F(GPLogTest, ThreadsLogWholeLinesWithoutALock) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int k = 0; k < 50; ++k)
                logs("a line of many threads");
        });
    for (std::thread& thread : threads)
        thread.join();
    const std::string text = content("fernhill0-1.log");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 200);
    int whole = 0;
    for (std::size_t at = text.find("]: a line of many threads\n["); at != std::string::npos;
         at = text.find("]: a line of many threads\n[", at + 1))
        ++whole;
    EXPECT_EQ(whole, 199);
}

TEST_F(GPLogTest, WithItsLockThreadsThatRotateLoseNoLine) {
    makeLogThreadSafe();
    makeLogThreadSafe();
    setMaxLogSize(1);
    setMaxLogCount(200);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int k = 0; k < 10; ++k)
                fillFile('x');
        });
    for (std::thread& thread : threads)
        thread.join();
    long lines = 0;
    for (int i = -1; i < 60; ++i) {
        const std::string name = "fernhill" + std::string(i < 10 ? "0" : "") + std::to_string(i) + ".log";
        if (!exists(name)) continue;
        const std::string text = content(name);
        lines += std::count(text.begin(), text.end(), '\n');
    }
    EXPECT_EQ(lines, 40);
}

TEST(PrintDumpBytes, PrintsHexadecimalBytesInLines) {
    testing::internal::CaptureStdout();
    printDumpBytes("\x01\xff\x7f\x80", 4, 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "01 ff \n7f 80 \n\n");
}

TEST(PrintDumpBytes, ALengthBelowOnePrintsOnlyTheNewline) {
    testing::internal::CaptureStdout();
    printDumpBytes("abc", 0, 8);
    printDumpBytes("abc", -1, 8);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n\n");
}

TEST(PrintDumpBytes, WithNoLengthOfALineThereIsOneLine) {
    testing::internal::CaptureStdout();
    printDumpBytes("abc", 3, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "61 62 63 \n");
}

} // namespace
