// The update thread from the fetched package to the end of the update program, with the time, the user and
// the download played.

#include "agent/UpdatePrompts.h"

#include "agent/AgentLink.h"
#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "platform/HostPaths.h"
#include "support/Await.h"
#include "support/LivingObjects.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedDialogs.h"
#include "support/PlayedUrlSession.h"
#include "support/SettingsWorld.h"
#include "support/StoredSettings.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

using testsupport::ManualClock;
using testsupport::PlayedDialogs;
using testsupport::PlayedUrlSession;

namespace {

using Lines = std::vector<std::string>;

constexpr int hour = 3600;

class UpdateThreadTest : public testsupport::SettingsWorld {
protected:
    UpdateThreadTest() {
        setenv("TZ", "TEST-2", 1); // two hours ahead of universal time
        tzset();
        files.install();
        session.endAll({"/tmp/fetched", 200, {}});
        installHelper("cp '" + root.configurationFile() + "' '" + root.path() + "/ran'");
    }

    ~UpdateThreadTest() override {
        updating = 0;
        clock.letSleepsPass(true);
        if (thread_.valid()) dialogs.answerAll(platform::notificationCancelResponse);
    }

    void installHelper(const std::string& commands) const {
        const std::string helper = platform::HostPaths::updateHelper();
        testsupport::writeAll(helper, "#!/bin/sh\n" + commands + "\n");
        std::filesystem::permissions(helper, std::filesystem::perms::owner_all);
    }

    // Sets the local time of the day, in seconds.
    void givenLocalTime(int seconds) {
        std::tm day{};
        day.tm_year = 126;
        day.tm_mon = 10;
        day.tm_mday = 17;
        day.tm_sec = seconds;
        day.tm_isdst = -1;
        clock.set(static_cast<std::int64_t>(std::mktime(&day)) * 1000000);
    }

    // The local time of the day, in seconds.
    int localTime() {
        const std::time_t now = clock.seconds();
        std::tm day{};
        localtime_r(&now, &day);
        return day.tm_hour * hour + day.tm_min * 60 + day.tm_sec;
    }

    void startUpdate(const std::string& url = "http://host/OstlerUpdate.dmg") {
        thread_ = std::async(std::launch::async, updateThread, new THREADPARAMETERS(url.c_str()));
    }

    // Blocks until the update thread has ended; whether it did within five seconds.
    bool hasEnded() { return thread_.wait_for(testsupport::patience) == std::future_status::ready; }

    // Steps through the wait for the deadline: each time the thread sleeps its ten seconds pass.
    void passPolls(int count) {
        for (int poll = 0; poll < count; ++poll) {
            ASSERT_TRUE(clock.waitForSleepers(1));
            const int before = log.countContaining("updateThread updatingpopup time check");
            clock.advanceSeconds(10);
            ASSERT_TRUE(testsupport::comesTrue(
                [&] { return log.countContaining("updateThread updatingpopup time check") > before; }));
        }
    }

    bool helperRan() const { return std::filesystem::exists(root.path() + "/ran"); }

    // The ready mark in the file at the moment when the helper ran.
    std::string markSeenByHelper() const {
        const auto settings = testsupport::settingsIn(testsupport::readAll(root.path() + "/ran"));
        return testsupport::valueOf(settings, "UpdateReady");
    }

    ManualClock& clock = ManualClock::installed();
    PlayedDialogs& dialogs = PlayedDialogs::install();
    PlayedUrlSession& session = PlayedUrlSession::install();
    testsupport::PlayedFileManager files;

private:
    std::future<void*> thread_;
};

} // namespace

TEST_F(UpdateThreadTest, ADownloadThatFailsEndsTheUpdateAndLeavesTheReadyMarkAlone) {
    Configuration::setLogLevel(1);
    session.endAll({{}, 404, {}});
    const int lines = static_cast<int>(log.messages().size());
    startUpdate("http://host/other.dmg");
    ASSERT_TRUE(hasEnded());
    const std::string package = root.path() + "/usr/local/etc/OstlerUpdate.dmg";
    const Lines messages = log.messages();
    EXPECT_EQ(
        Lines(messages.begin() + lines, messages.end()),
        (Lines{"updateThread entry",
               "updateThread downloading the file: http://host/other.dmg to: " + package + "\n",
               "downloadFileFromUrl server error: (null)",
               "downloadFileFromUrl downloaded file: http://host/other.dmg",
               "updateThread unable to download the file: http://host/other.dmg to: " + package + "\n"}));
    EXPECT_EQ(updating, 0);
    EXPECT_EQ(dialogs.shown(), 0);
    EXPECT_EQ(inFile("UpdateReady"), "false");
    EXPECT_EQ(log.countContaining("UpdateReady set to"), 0);
}

TEST_F(UpdateThreadTest, AFailedDownloadLeavesAReadyMarkOfAnEarlierUpdateStanding) {
    Configuration::setUpdateReady(true);
    session.endAll({{}, 0, "gone"});
    startUpdate();
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(inFile("UpdateReady"), "true");
}

TEST_F(UpdateThreadTest, WithoutLogLevelOneTheStepsAreNotLogged) {
    session.endAll({{}, 404, {}});
    startUpdate();
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(log.messages(), (Lines{"updateThread entry", "downloadFileFromUrl server error: (null)"}));
}

TEST_F(UpdateThreadTest, UpdatingIsSetFromTheStartAndClearedAtTheEnd) {
    givenLocalTime(8 * hour);
    EXPECT_EQ(updating, 0);
    startUpdate();
    dialogs.await(1);
    EXPECT_EQ(updating, 1);
    dialogs.answer(platform::notificationDefaultResponse);
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(updating, 0);
}

TEST_F(UpdateThreadTest, TheReadyMarkIsInTheFileBeforeTheUserIsAsked) {
    givenLocalTime(8 * hour);
    startUpdate();
    dialogs.await(1);
    EXPECT_EQ(inFile("UpdateReady"), "true");
}

TEST_F(UpdateThreadTest, TheDialogStaysUntilSixInTheEveningLocalTime) {
    givenLocalTime(8 * hour + 61);
    startUpdate();
    EXPECT_EQ(dialogs.await(1).timeout, 10 * hour - 61);
}

TEST_F(UpdateThreadTest, UpdateNowClearsTheReadyMarkAndRunsTheProgramAtOnce) {
    givenLocalTime(8 * hour);
    startUpdate();
    dialogs.await(1);
    EXPECT_FALSE(helperRan());
    dialogs.answer(platform::notificationDefaultResponse);
    ASSERT_TRUE(hasEnded());
    EXPECT_TRUE(helperRan());
    EXPECT_EQ(markSeenByHelper(), "false");
    EXPECT_EQ(dialogs.shown(), 1);
    EXPECT_EQ(localTime(), 8 * hour);
}

TEST_F(UpdateThreadTest, TheThreadBlocksUntilTheProgramHasEnded) {
    installHelper("while [ ! -e '" + root.path() + "/go' ]; do sleep 0.01; done; touch '" + root.path() +
                  "/ran'");
    dialogs.answerAll(platform::notificationDefaultResponse);
    startUpdate();
    ASSERT_TRUE(testsupport::comesTrue([this] { return inFile("UpdateReady") == "false"; }));
    EXPECT_EQ(updating, 1);
    testsupport::writeAll(root.path() + "/go", "");
    ASSERT_TRUE(hasEnded());
    EXPECT_TRUE(helperRan());
}

TEST_F(UpdateThreadTest, AMissingUpdateProgramIsNotReportedAndTheMarkStaysCleared) {
    std::filesystem::remove(platform::HostPaths::updateHelper());
    dialogs.answerAll(platform::notificationDefaultResponse);
    startUpdate();
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(inFile("UpdateReady"), "false");
    EXPECT_EQ(log.messages().back(), "UpdateReady set to: false");
}

TEST_F(UpdateThreadTest, AFailingUpdateProgramIsNotReportedEither) {
    installHelper("exit 3");
    dialogs.answerAll(platform::notificationDefaultResponse);
    startUpdate();
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(log.messages().back(), "UpdateReady set to: false");
}

TEST_F(UpdateThreadTest, UpdateLaterShowsNothingMoreUntilTheDeadlineIsPassedByASecond) {
    Configuration::setLogLevel(1);
    givenLocalTime(18 * hour - 20);
    startUpdate();
    EXPECT_EQ(dialogs.await(1).timeout, 20);
    dialogs.answer(platform::notificationAlternateResponse);
    passPolls(2); // at 18:00:00 the deadline is not yet passed
    ASSERT_TRUE(clock.waitForSleepers(1));
    EXPECT_EQ(localTime(), 18 * hour);
    EXPECT_EQ(dialogs.shown(), 1);
    clock.advanceSeconds(1);
    EXPECT_EQ(dialogs.shown(), 1);
    clock.advanceSeconds(9);
    EXPECT_EQ(dialogs.await(2).header(), "Ostler has an update for you in 10 minutes");
    EXPECT_EQ(log.countContaining("updateThread updatingpopup time check"), 4);
}

TEST_F(UpdateThreadTest, APollOneSecondPastTheDeadlineStartsTheCountdown) {
    Configuration::setLogLevel(1);
    givenLocalTime(18 * hour - 9);
    startUpdate();
    dialogs.await(1);
    dialogs.answer(platform::notificationAlternateResponse);
    passPolls(1);
    EXPECT_EQ(dialogs.await(2).timeout, 60);
    EXPECT_EQ(localTime(), 18 * hour + 1);
}

TEST_F(UpdateThreadTest, AUserWhoPressesNothingSeesOneDialogThenTenAndTheUpdateStartsAboutTenPastSix) {
    Configuration::setLogLevel(1);
    givenLocalTime(9 * hour);
    startUpdate();
    EXPECT_EQ(dialogs.await(1).timeout, 9 * hour);
    dialogs.timeOut();
    passPolls(1);
    for (int minutes = 10; minutes >= 1; --minutes) {
        const auto shown = dialogs.await(12 - minutes);
        EXPECT_EQ(shown.timeout, 60);
        EXPECT_EQ(shown.header(), "Ostler has an update for you in " + std::to_string(minutes) +
                                      (minutes == 1 ? " minute" : " minutes"));
        EXPECT_FALSE(helperRan());
        dialogs.timeOut();
    }
    ASSERT_TRUE(hasEnded());
    EXPECT_TRUE(helperRan());
    EXPECT_EQ(markSeenByHelper(), "false");
    EXPECT_EQ(localTime(), 18 * hour + 10 * 60 + 10);
    EXPECT_EQ(dialogs.shown(), 11);
    EXPECT_EQ(dialogs.released(), 11);
}

TEST_F(UpdateThreadTest, AnyPressInACountdownDialogRunsTheUpdateAtOnce) {
    givenLocalTime(18 * hour + 1);
    startUpdate();
    dialogs.await(1);
    dialogs.answer(platform::notificationAlternateResponse);
    for (int shown = 2; shown <= 4; ++shown) {
        dialogs.await(shown);
        if (shown < 4) dialogs.timeOut();
    }
    dialogs.answer(platform::notificationDefaultResponse);
    ASSERT_TRUE(hasEnded());
    EXPECT_TRUE(helperRan());
    EXPECT_EQ(dialogs.shown(), 4);
    EXPECT_EQ(localTime(), 18 * hour + 2 * 60 + 1);
}

TEST_F(UpdateThreadTest, PromptsAfterSixHaveTheirDeadlineInThePastAndTheCountdownFollowsTheFirstDialog) {
    givenLocalTime(20 * hour);
    startUpdate();
    EXPECT_EQ(dialogs.await(1).timeout, -2 * hour);
    EXPECT_EQ(dialogs.shown(), 1);
    dialogs.answer(platform::notificationAlternateResponse);
    for (int shown = 2; shown <= 11; ++shown) {
        dialogs.await(shown);
        dialogs.timeOut();
    }
    ASSERT_TRUE(hasEnded());
    EXPECT_TRUE(helperRan());
    EXPECT_EQ(localTime(), 20 * hour + 10 * 60);
}

TEST_F(UpdateThreadTest, TheDeadlineIsOfTheDayOnWhichThePromptsBegin) {
    givenLocalTime(23 * hour + 58 * 60);
    agentLink.beginReading();
    startUpdate();
    ASSERT_TRUE(clock.waitForSleepers(1));
    clock.advanceSeconds(300); // past midnight
    EXPECT_EQ(dialogs.await(1).timeout, 18 * hour - 3 * 60);
}

TEST_F(UpdateThreadTest, ADownloadBeforeTheReaderIsFiveMinutesOldHoldsTheDialogBackForFull300Seconds) {
    givenLocalTime(8 * hour);
    agentLink.beginReading();
    clock.advanceSeconds(299);
    startUpdate();
    ASSERT_TRUE(clock.waitForSleepers(1));
    clock.advanceSeconds(299);
    EXPECT_EQ(dialogs.shown(), 0);
    EXPECT_EQ(inFile("UpdateReady"), "(none)");
    clock.advanceSeconds(1);
    EXPECT_EQ(dialogs.await(1).timeout, 10 * hour - 599);
    EXPECT_EQ(clock.sleptMicroseconds(), 300 * 1000000LL);
}

TEST_F(UpdateThreadTest, AReaderThatIsFiveMinutesOldHoldsNothingBack) {
    givenLocalTime(8 * hour);
    agentLink.beginReading();
    clock.advanceSeconds(300);
    startUpdate();
    EXPECT_EQ(dialogs.await(1).timeout, 10 * hour - 300);
    EXPECT_EQ(clock.sleptMicroseconds(), 0);
}

TEST_F(UpdateThreadTest, AReconnectMovesTheReadersStartForwardAndSoHoldsTheDialogBack) {
    givenLocalTime(8 * hour);
    agentLink.beginReading();
    clock.advanceSeconds(1000);
    agentLink.beginReading();
    startUpdate();
    ASSERT_TRUE(clock.waitForSleepers(1));
    EXPECT_EQ(dialogs.shown(), 0);
}

TEST_F(UpdateThreadTest, AnUpdateStoppedWhileSettlingMarksTheMachineButAsksNobody) {
    givenLocalTime(8 * hour);
    agentLink.beginReading();
    startUpdate();
    ASSERT_TRUE(clock.waitForSleepers(1));
    updating = 0;
    clock.advanceSeconds(300);
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(dialogs.shown(), 0);
    EXPECT_FALSE(helperRan());
    EXPECT_EQ(inFile("UpdateReady"), "true");
}

TEST_F(UpdateThreadTest, AnUpdateStoppedWhileAskingEndsWithTheMarkStillSet) {
    givenLocalTime(8 * hour);
    startUpdate();
    dialogs.await(1);
    ASSERT_TRUE(testsupport::comesTrue([] { return notifyUpdatePopUp.load() != nullptr; }));
    updating = 0;
    dialogs.cancel(notifyUpdatePopUp);
    ASSERT_TRUE(hasEnded());
    EXPECT_FALSE(helperRan());
    EXPECT_EQ(inFile("UpdateReady"), "true");
}

TEST_F(UpdateThreadTest, AnUpdateStoppedWhileItWaitsForTheDeadlineEndsAtTheNextPoll) {
    givenLocalTime(8 * hour);
    startUpdate();
    dialogs.await(1);
    dialogs.answer(platform::notificationAlternateResponse);
    ASSERT_TRUE(clock.waitForSleepers(1));
    updating = 0;
    clock.advanceSeconds(10);
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(dialogs.shown(), 1);
    EXPECT_FALSE(helperRan());
    EXPECT_EQ(inFile("UpdateReady"), "true");
}

TEST_F(UpdateThreadTest, AnUpdateStoppedInTheCountdownShowsNoFurtherDialog) {
    givenLocalTime(19 * hour);
    startUpdate();
    dialogs.await(1);
    dialogs.answer(platform::notificationAlternateResponse);
    dialogs.await(2);
    dialogs.timeOut();
    dialogs.await(3);
    updating = 0;
    dialogs.timeOut();
    ASSERT_TRUE(hasEnded());
    EXPECT_EQ(dialogs.shown(), 3);
    EXPECT_FALSE(helperRan());
    EXPECT_EQ(inFile("UpdateReady"), "true");
}

TEST_F(UpdateThreadTest, AnUpdateStoppedInTheLastCountdownDialogDoesNotRun) {
    givenLocalTime(19 * hour);
    startUpdate();
    dialogs.await(1);
    dialogs.answer(platform::notificationAlternateResponse);
    for (int shown = 2; shown <= 11; ++shown) {
        dialogs.await(shown);
        if (shown == 11) updating = 0;
        dialogs.timeOut();
    }
    ASSERT_TRUE(hasEnded());
    EXPECT_FALSE(helperRan());
}

TEST_F(UpdateThreadTest, APressCountsEvenWhenTheUpdateWasStoppedMeanwhile) {
    givenLocalTime(8 * hour);
    startUpdate();
    dialogs.await(1);
    updating = 0;
    dialogs.answer(platform::notificationDefaultResponse);
    ASSERT_TRUE(hasEnded());
    EXPECT_TRUE(helperRan());
}

TEST_F(UpdateThreadTest, AnUpdateLeavesNoObjectButTheHeadersOfItsCountdown) {
    const auto update = [] { updateThread(new THREADPARAMETERS("http://host/OstlerUpdate.dmg")); };
    dialogs.answerAll(platform::notificationDefaultResponse);
    EXPECT_EQ(testsupport::objectsLeftBy(update), 0);
    // At seven the first dialog ends without a press, and so does every one of the countdown.
    givenLocalTime(19 * hour);
    dialogs.answerAll(platform::notificationCancelResponse);
    EXPECT_EQ(testsupport::objectsLeftBy(update), 10);
    session.endAll({{}, 404, {}});
    EXPECT_EQ(testsupport::objectsLeftBy(update), 0);
}

TEST_F(UpdateThreadTest, UpdateNowThreadClearsTheMarkAndRunsTheProgram) {
    Configuration::setUpdateReady(true);
    testing::internal::CaptureStdout();
    EXPECT_EQ(updateNowThread(nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "cmd is " + root.path() + "/usr/local/bin/fernhillupdate");
    EXPECT_TRUE(helperRan());
    EXPECT_EQ(markSeenByHelper(), "false");
    EXPECT_EQ(dialogs.shown(), 0);
}

TEST_F(UpdateThreadTest, UpdateNowThreadClearsTheMarkBeforeItNamesTheProgram) {
    Configuration::setUpdateReady(true);
    setLogEcho(true);
    testing::internal::CaptureStdout();
    updateNowThread(nullptr);
    setLogEcho(false);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_LT(output.find("UpdateReady set to: false"), output.find("cmd is "));
}
