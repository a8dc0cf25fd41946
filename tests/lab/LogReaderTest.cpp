// The daemon's log files as `fernhill-lab log` shows them.

#include "lab/LogReader.h"

#include "lab/LabRun.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class LogReader : public testing::Test {
protected:
    // A line of thread 7 at that second.
    static std::string line(int second, const std::string& text) {
        const std::string two = (second < 10 ? "0" : "") + std::to_string(second);
        return "[7 Sun Nov 22 06:20:" + two + " 2026]: " + text + "\n";
    }

    void given(const std::string& name, const std::string& content) const {
        testsupport::writeAll(folder_.file(name), content);
    }

    std::vector<std::string> texts() const {
        std::vector<std::string> found;
        for (const lab::LogLine& read : lab::readLog(folder_.path()))
            found.push_back(read.text);
        return found;
    }

    // What is said of pages that hang, of a log that holds these lines.
    std::string hangs(const std::string& content) const {
        given("fernhill0-1.log", content);
        std::string all;
        for (const std::string& sentence : lab::explainHangs(lab::readLog(folder_.path())))
            all += sentence + "\n";
        return all;
    }

    labtest::LabRun show(const std::vector<std::string>& options) const {
        std::vector<std::string> arguments = {"log", folder_.path()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return labtest::runLab(arguments);
    }

    testsupport::TemporaryFolder folder_;
};

using Texts = std::vector<std::string>;

} // namespace

TEST_F(LogReader, LinesOfAllFilesComeByTheirTimes) {
    given("fernhill0-1.log", line(1, "a") + line(9, "d"));
    given("fernhill00.log", line(2, "b"));
    given("fernhill01.log", line(3, "c"));
    given("other.log", line(4, "not the daemon's"));
    EXPECT_EQ(texts(), (Texts{"a", "b", "c", "d"}));
}

TEST_F(LogReader, LinesOfOneSecondKeepTheOrderOfTheirFiles) {
    given("fernhill010.log", line(5, "c"));
    given("fernhill02.log", line(5, "b"));
    given("fernhill0-1.log", line(5, "a"));
    EXPECT_EQ(texts(), (Texts{"a", "b", "c"}));
}

TEST_F(LogReader, TheRestOfAMessageStaysBehindItsFirstLine) {
    given("fernhill0-1.log", line(5, "first") + "second\n" + line(5, "third"));
    const auto lines = lab::readLog(folder_.path());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].text, "second");
    EXPECT_EQ(lines[1].thread, 0);
    EXPECT_EQ(lines[0].thread, 7);
}

TEST_F(LogReader, TheNewestStartBeginsWhatIsShown) {
    given("fernhill0-1.log", line(1, "Ostler Interceptor Started") + line(2, "old") +
                                 line(3, "Ostler Interceptor Started") + line(4, "new"));
    const auto lines = lab::sinceNewestStart(lab::readLog(folder_.path()));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].text, "new");
}

TEST_F(LogReader, AQuestionWithoutAnAnswerIsASilentAgent) {
    const std::string told =
        hangs(line(1, "[7] OstComm getPolicyCommand sending {}") +
              line(1, "[8] OstComm getPolicyCommand sending {}") +
              line(2, "[8] OstComm getPolicyCommand response {}") + line(31, "checking url x"));
    EXPECT_EQ(told.find("1 questions are without an answer; the oldest, number 7, for 30 seconds"), 0u)
        << told;
}

TEST_F(LogReader, AReconnectLeavesOpenQuestionsWaiting) {
    const std::string told = hangs(line(1, "[7] OstComm getPolicyCommand sending {}") +
                                   line(1, "[8] OstComm getPolicyCommand sending {}") +
                                   line(2, "OstComm responseThread reconnecting") +
                                   line(3, "[7] OstComm getPolicyCommand response "));
    EXPECT_EQ(told.find("The link ended with 1 questions open"), 0u) << told;
}

TEST_F(LogReader, AnAgentThatIsAbsentIsToldUntilTheLinkIsUp) {
    const std::string failed = line(5, "OstComm setUserLogonCommand socket send failed errno is 57.");
    EXPECT_EQ(hangs(failed).find("The agent has been absent since 2026-11-22 06:20:05"), 0u);
    EXPECT_EQ(hangs(failed + line(6, "OstComm setUserLogonCommand send success")).find("absent"),
              std::string::npos);
}

TEST_F(LogReader, AnAgentThatCameAgainIsToldWhereTheLogHasNoQuestions) {
    const auto link = [](int second) {
        return line(second, "OstComm socket opened [0x1]") +
               line(second, "OstComm setUserLogonCommand send success");
    };
    const std::string first = link(1) + line(2, "OstComm setUserLogonCommand send success"); // and a login
    EXPECT_EQ(hangs(first).find("made anew"), std::string::npos);
    const std::string told = hangs(first + link(3) + link(4));
    EXPECT_EQ(told.find("The link to the agent was made anew 2 times"), 0u) << told;
    const std::string question = line(2, "[7] OstComm getPolicyCommand sending {}") +
                                 line(2, "[7] OstComm getPolicyCommand response {}");
    EXPECT_EQ(hangs(first + question + link(3)), "Every question that the log has was answered.\n");
}

TEST_F(LogReader, ALogWithoutQuestionsSaysHowToGetThem) {
    EXPECT_NE(hangs(line(1, "Ostler Interceptor Started")).find("-ll=65"), std::string::npos);
}

TEST_F(LogReader, OneQuestionsLinesAreShownByItsNumber) {
    given("fernhill0-1.log", line(1, "[7] OstComm getPolicyCommand sending {}") +
                                 line(1, "[77] OstComm getPolicyCommand sending {}") +
                                 line(2, "[7] OstCommFilterQueryThread hijackRedirectURL: http://x"));
    const labtest::LabRun run = show({"--request", "7"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out,
              "2026-11-22 06:20:01         7  [7] OstComm getPolicyCommand sending {}\n"
              "2026-11-22 06:20:02         7  [7] OstCommFilterQueryThread hijackRedirectURL: http://x\n");
}

TEST_F(LogReader, ALinesMeaningStandsBelowItWhenAskedFor) {
    given("fernhill0-1.log", line(1, "FILTERING IS DISABLED") + line(2, "nothing known"));
    EXPECT_EQ(show({"--explain"}).out,
              "2026-11-22 06:20:01         7  FILTERING IS DISABLED\n"
              "                               ^ a check-in has put filtering to sleep: everything passes\n"
              "2026-11-22 06:20:02         7  nothing known\n");
}

TEST_F(LogReader, BytesThatATerminalActsOnAreNotPrinted) {
    given("fernhill0-1.log", line(1, "url \x1b[2J"));
    EXPECT_EQ(show({"--containing", "url"}).out, "2026-11-22 06:20:01         7  url ?[2J\n");
}

TEST_F(LogReader, NoLineLeftEndsWithStatusOne) {
    given("fernhill0-1.log", line(1, "a"));
    EXPECT_EQ(show({"--containing", "b"}).status, 1);
}

TEST_F(LogReader, AFolderWithoutALogIsRefused) {
    const labtest::LabRun run = show({});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + folder_.path() + ": no fernhill*.log is there\n");
}
