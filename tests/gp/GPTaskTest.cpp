#include "gp/GPTask.h"

#include "gp/GPArray.h"
#include "gp/GPFilesystem.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/CapturedLog.h"
#include "support/ForkedChild.h"
#include "support/ManualClock.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Words = std::vector<std::string>;

Words wordsOf(const char* commandLine) {
    const auto words = Owned<GPArray>::adopt(GPTask::splitCommandLine(commandLine));
    Words found;
    for (int i = 0; i < words->count(); ++i)
        found.emplace_back(static_cast<GPString*>(words->objectAtIndex(i))->cstr());
    return found;
}

TEST(GPTaskWords, BlanksSeparateWords) {
    EXPECT_EQ(wordsOf("ls -l  /tmp\t/var "), (Words{"ls", "-l", "/tmp", "/var"}));
    EXPECT_EQ(wordsOf("ls\n-l\r\n/tmp\v/var\f/etc"), (Words{"ls", "-l", "/tmp", "/var", "/etc"}));
}

TEST(GPTaskWords, EchoWithAQuotedWordAndAPlainOneGivesThreeWords) {
    EXPECT_EQ(wordsOf("echo 'a b' c"), (Words{"echo", "a b", "c"}));
    EXPECT_EQ(wordsOf("echo \"a b\" c"), (Words{"echo", "a b", "c"}));
}

TEST(GPTaskWords, AnUnclosedQuoteTakesTheWordUpToTheNextBlankMinusTheQuote) {
    EXPECT_EQ(wordsOf("echo 'a b c"), (Words{"echo", "a", "b", "c"}));
    EXPECT_EQ(wordsOf("echo \"a"), (Words{"echo", "a"}));
    EXPECT_EQ(wordsOf("echo '"), (Words{"echo", ""}));
    EXPECT_EQ(wordsOf("' a"), (Words{"", "a"}));
}

TEST(GPTaskWords, AQuoteIsClosedByTheSameQuote) {
    EXPECT_EQ(wordsOf("echo 'say \"a b\"' \"it's\""), (Words{"echo", "say \"a b\"", "it's"}));
}

TEST(GPTaskWords, AQuoteInsideAWordIsAPlainCharacter) {
    EXPECT_EQ(wordsOf("echo a'b c'd"), (Words{"echo", "a'b", "c'd"}));
}

TEST(GPTaskWords, TextDirectlyBehindAClosingQuoteStartsANewWord) {
    EXPECT_EQ(wordsOf("echo 'a b'c"), (Words{"echo", "a b", "c"}));
}

TEST(GPTaskWords, AnEmptyPairOfQuotesIsAnEmptyWord) {
    EXPECT_EQ(wordsOf("echo '' c"), (Words{"echo", "", "c"}));
}

TEST(GPTaskWords, ThereIsNoEscapeCharacter) {
    EXPECT_EQ(wordsOf("echo 'a\\' b' c"), (Words{"echo", "a\\", "b'", "c"}));
}

TEST(GPTaskWords, ABlankAtTheVeryBeginningStaysInTheFirstWord) {
    EXPECT_EQ(wordsOf(" ls -l"), (Words{" ls", "-l"}));
}

TEST(GPTaskWords, AnEmptyLineHasNoWords) {
    EXPECT_EQ(wordsOf(""), Words{});
    EXPECT_EQ(wordsOf(nullptr), Words{});
}

int openDescriptors() {
    int open = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor)
        if (fcntl(descriptor, F_GETFD) != -1) ++open;
    return open;
}

// Runs real programs; the clock lets the short sleeps of the wait for the exec pass.
class GPTaskTest : public testing::Test {
protected:
    void SetUp() override { testsupport::ManualClock::installed().letSleepsPass(true); }

    std::string run(const std::string& commandLine) {
        const auto text = Owned<GPString>::adopt(GPTask::task(commandLine.c_str(), true, false));
        return text ? text->cstr() : "null";
    }

    // A program of the test's own in its folder.
    std::string program(const std::string& name, const std::string& script, mode_t mode = 0755) {
        const std::string path = folder_.file(name);
        testsupport::writeAll(path, "#!/bin/sh\n" + script + "\n");
        chmod(path.c_str(), mode);
        return path;
    }

    std::string at(const std::string& name) const { return folder_.file(name); }
    testsupport::CapturedLog& log() { return log_; }

    // Kills the program whose script wrote its number into that file.
    void killProgramOf(const std::string& numberFile) {
        const int number = std::atoi(testsupport::readAll(numberFile).c_str());
        ASSERT_GT(number, 1);
        kill(number, SIGKILL);
    }

private:
    testsupport::TemporaryFolder folder_;
    testsupport::CapturedLog log_;
};

TEST_F(GPTaskTest, TheOutputComesBack) { EXPECT_EQ(run("/bin/echo one two"), "one two\n"); }

TEST_F(GPTaskTest, WordsReachTheProgramAsSplit) {
    const std::string shows = program("shows", "printf '<%s>' \"$@\"");
    EXPECT_EQ(run(shows + " 'a b' c"), "<a b><c>");
}

TEST_F(GPTaskTest, OutputAndErrorOutputComeBackTogether) {
    EXPECT_EQ(run(program("both", "echo out; echo err >&2")), "out\nerr\n");
}

TEST_F(GPTaskTest, TheExitStatusMakesNoDifference) {
    EXPECT_EQ(run(program("fails", "echo text; exit 3")), "text\n");
}

TEST_F(GPTaskTest, ACommandWhoseOutputIsEmptyComesBackAsNull) { EXPECT_EQ(run("/usr/bin/true"), "null"); }

TEST_F(GPTaskTest, TheResultBelongsToTheCaller) {
    GPString* text = GPTask::task("/bin/echo x", true, false);
    EXPECT_EQ(text->retainonly(), 2);
    text->release();
    text->release();
}

TEST_F(GPTaskTest, RunGoesByTheFlagsThatWereSet) {
    GPTask task;
    task.waitOn(true);
    task.showWindow(true);
    const auto text = Owned<GPString>::adopt(task.run("/bin/echo x"));
    EXPECT_STREQ(text->cstr(), "x\n");
    task.waitOn(false);
    EXPECT_EQ(task.run("/bin/echo x"), nullptr);
}

TEST_F(GPTaskTest, WithoutWaitingTheResultIsNullAndThePipeOfTheOutputStaysOpen) {
    const int before = dup(0);
    close(before);
    EXPECT_EQ(GPTask::task("/bin/echo x", false, false), nullptr);
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after - before, 2) << "descriptors are given lowest first";
}

TEST_F(GPTaskTest, AWaitedTaskLeavesNoDescriptorOpen) {
    const int before = dup(0);
    close(before);
    run("/bin/echo x");
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

TEST_F(GPTaskTest, AFailedTaskLeavesTheTwoEndsOfTheOutputsPipeOpenAndNoMore) {
    setenv("PATH", at("none").c_str(), 1);
    const int before = openDescriptors();
    run("no-such-program");
    EXPECT_EQ(openDescriptors() - before, 2) << "the pipe of the failure report is closed";
}

TEST_F(GPTaskTest, ATaskThatIsNotWaitedForLeavesNoEndOfTheFailPipeOpen) {
    const int before = openDescriptors();
    EXPECT_EQ(GPTask::task("/bin/echo x", false, false), nullptr);
    EXPECT_EQ(openDescriptors() - before, 2) << "the pipe of the output alone";
}

TEST_F(GPTaskTest, AWaitedChildIsReapedAndNoOther) {
    EXPECT_TRUE(testsupport::passesInChild([&] {
        int status = 0;
        run("/bin/echo x");
        EXPECT_EQ(waitpid(-1, &status, 0), -1) << "nobody is left";
        EXPECT_EQ(errno, ECHILD);

        GPTask::task("/bin/echo x", false, false);
        EXPECT_GT(waitpid(-1, &status, 0), 0) << "not waited for";
        setenv("PATH", at("none").c_str(), 1);
        run("no-such-program");
        EXPECT_GT(waitpid(-1, &status, 0), 0) << "failed before it was a program";
        EXPECT_EQ(WEXITSTATUS(status), 1);
    }));
}

TEST_F(GPTaskTest, APipeInThePlaceOfAStandardStreamServesAsOne) {
    const std::string both = program("both", "echo out; echo err >&2");
    // The pipe gets the lowest numbers: 1 and 2, then 2 and one above.
    EXPECT_TRUE(testsupport::passesInChild([&] {
        close(1);
        close(2);
        EXPECT_EQ(run(both), "out\nerr\n");
    }));
    EXPECT_TRUE(testsupport::passesInChild([&] {
        close(2);
        EXPECT_EQ(run(both), "out\nerr\n");
    }));
    EXPECT_TRUE(testsupport::passesInChild([&] {
        close(0);
        close(1);
        close(2);
        EXPECT_EQ(run(both), "out\nerr\n");
    }));
}

TEST_F(GPTaskTest, AProgramIsFoundInTheFirstElementOfPathThatHasIt) {
    program("one/tool", "echo one");
    program("two/tool", "echo two");
    setenv("PATH", (at("none") + ":" + at("two") + ":" + at("one")).c_str(), 1);
    EXPECT_EQ(run("tool"), "two\n");
}

TEST_F(GPTaskTest, AnExistingFirstWordIsNotSearchedInPath) {
    program("tool", "echo here");
    program("one/tool", "echo one");
    setenv("PATH", at("one").c_str(), 1);
    ASSERT_EQ(chdir(at("").c_str()), 0);
    EXPECT_EQ(run("tool"), "here\n");
}

TEST_F(GPTaskTest, TheEnvironmentIsInherited) {
    setenv("OSTLER_TEST_WORD", "inherited", 1);
    EXPECT_EQ(run(program("shows", "echo $OSTLER_TEST_WORD")), "inherited\n");
}

TEST_F(GPTaskTest, TheChildsInputIsThePipeOfItsOutput) {
    EXPECT_EQ(run(program("reads", "echo written; read line; echo \"read $line\"")), "read written\n");
}

TEST_F(GPTaskTest, ACommandThatNamesNothingComesBackAsTheReportWithThePathShownAsTheNullText) {
    setenv("PATH", at("none").c_str(), 1);
    const std::string report =
        "GPTask exec failure: " + std::to_string(ENOENT) + ". Path that was detected: (null)";
    EXPECT_EQ(run("no-such-program -x"), report);
    EXPECT_TRUE(log().holds("Error: GPTask set id failed. error=" + report));
    EXPECT_TRUE(log().holds("!!! Error: childfork - " + report + "\n"));
}

TEST_F(GPTaskTest, WithoutAPathVariableNothingIsFound) {
    unsetenv("PATH");
    EXPECT_EQ(run("no-such-program"), "GPTask exec failure: 2. Path that was detected: (null)");
}

TEST_F(GPTaskTest, AnEmptyCommandLineComesBackAsAFailureReport) {
    EXPECT_NE(run("").find("Path that was detected: (null)"), std::string::npos);
}

TEST_F(GPTaskTest, AFileThatCannotBeExecutedComesBackAsTheReport) {
    const std::string plain = program("plain", "echo x", 0644);
    EXPECT_EQ(run(plain), "GPTask exec failure: 13. Path that was detected: (null)");
}

TEST_F(GPTaskTest, AFileOfPathThatCannotBeExecutedIsNamedInTheReport) {
    const std::string plain = program("dir/plain", "echo x", 0644);
    setenv("PATH", at("dir").c_str(), 1);
    EXPECT_EQ(run("plain"), "GPTask exec failure: 13. Path that was detected: " + plain);
}

TEST_F(GPTaskTest, AReportComesBackWithoutWaitingToo) {
    setenv("PATH", at("none").c_str(), 1);
    const auto text = Owned<GPString>::adopt(GPTask::task("no-such-program", false, false));
    ASSERT_TRUE(text);
    EXPECT_STREQ(text->cstr(), "GPTask exec failure: 2. Path that was detected: (null)");
}

TEST_F(GPTaskTest, AReportIsCutTo255Bytes) {
    const std::string plain = program(std::string(240, 'd') + "/plain", "echo x", 0644);
    setenv("PATH", at(std::string(240, 'd')).c_str(), 1);
    const std::string whole = "GPTask exec failure: 13. Path that was detected: " + plain;
    EXPECT_EQ(run("plain"), whole.substr(0, 255));
}

TEST_F(GPTaskTest, OutputLongerThanAChunkComesBackWhole) {
    const std::string text = run(program("long", "head -c 10000 /dev/zero | tr '\\0' x"));
    EXPECT_EQ(text, std::string(10000, 'x'));
}

TEST_F(GPTaskTest, OutputOfAMultipleOf4096BytesBlocksForEver) {
    const std::string makes = program("makes", "head -c 8192 /dev/zero | tr '\\0' x");
    EXPECT_TRUE(testsupport::neverEnds([&] { run(makes); }));
}

TEST_F(GPTaskTest, AChildThatWritesMoreThanThePipeHoldsBlocksForEver) {
    const std::string fills =
        program("fills", "echo $$ > " + at("number") + "\nexec head -c 100000 /dev/zero");
    EXPECT_TRUE(testsupport::neverEnds([&] { run(fills); }));
    killProgramOf(at("number"));
}

TEST_F(GPTaskTest, AShortChildDoesNotLoseItsOutputThoughChildrenAreNotKept) {
    signal(SIGCHLD, SIG_IGN);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(run("/bin/echo short"), "short\n");
}

TEST_F(GPTaskTest, AFailureReportIsNotLostThoughChildrenAreNotKept) {
    signal(SIGCHLD, SIG_IGN);
    setenv("PATH", at("none").c_str(), 1);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(run("no-such-program"), "GPTask exec failure: 2. Path that was detected: (null)");
}

TEST_F(GPTaskTest, ThreadsMayRunTasksAtTheSameTime) {
    signal(SIGCHLD, SIG_IGN);
    std::vector<std::thread> threads;
    std::vector<int> right(4, 0);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this, i, &right] {
            const std::string word = "word" + std::to_string(i);
            for (int k = 0; k < 10; ++k)
                right[i] += run("/bin/echo " + word) == word + "\n";
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right, (std::vector<int>{10, 10, 10, 10}));
}

TEST_F(GPTaskTest, DescriptorsAboveWhatSelectTakesAreRead) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 4096;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) GTEST_SKIP() << "no more descriptors to be had";
    while (dup(0) < 1100) {
    }
    EXPECT_EQ(run("/bin/echo high"), "high\n");
}

TEST_F(GPTaskTest, AForkThatFailsIsToldOnStandardOutputAndComesBackAsNull) {
    const std::string answer = testsupport::answerOfChild([&] {
        const int printed = open(at("printed").c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(printed, STDOUT_FILENO);
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_NPROC, &none); // does not bind the superuser
        constexpr uid_t nobody = 65534;
        if (geteuid() == 0 && setuid(nobody) != 0) return std::string("still the superuser");
        std::string result = run("/usr/bin/true");
        std::fflush(stdout);
        return result;
    });
    if (answer == "still the superuser") GTEST_SKIP() << "the limit cannot be made to bind here";
    EXPECT_EQ(answer, "null");
    EXPECT_EQ(testsupport::readAll(at("printed")), "error forking\n");
}

TEST_F(GPTaskTest, WithoutDescriptorsForThePipesThereIsNoOutputAndNoHarm) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the descriptors that this takes away";
    const rlimit few = {3, 4096};
    EXPECT_EQ(testsupport::answerOfChild([&] {
                  setrlimit(RLIMIT_NOFILE, &few);
                  return run("/usr/bin/true");
              }),
              "null");
}

} // namespace
