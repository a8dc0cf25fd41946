#include "agent/UpdatePrompts.h"

#include "support/Await.h"
#include "support/CapturedLog.h"
#include "support/PlayedDialogs.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

using platform::NotificationKey;
using testsupport::PlayedDialogs;

namespace {

constexpr char updateMessage[] =
    "Your device needs to be updated with the latest features and performance improvements.";

class UpdateDialogsTest : public testing::Test {
protected:
    // What a press, or whatever ends the dialog with these flags, is taken for.
    template <class Dialog>
    bool answered(Dialog dialog, unsigned long flags) {
        auto shown = std::async(std::launch::async, dialog);
        dialogs.await(++count_);
        dialogs.answer(flags);
        return shown.get();
    }

    testsupport::CapturedLog log;
    PlayedDialogs& dialogs = PlayedDialogs::install();

private:
    int count_ = 0;
};

bool oneMinute() { return updatingPopUp(1); }
bool oneHour() { return updatePopUp(3600); }

} // namespace

TEST(UpdatePrompts, TheParametersHoldACopyOfTheAddress) {
    std::string address = "http://localhost/p.dmg";
    auto* parameters = new THREADPARAMETERS(address.c_str());
    address[0] = 'X';
    EXPECT_STREQ(parameters->url, "http://localhost/p.dmg");
    delete[] parameters->url;
    parameters->release();
}

TEST(UpdatePrompts, NothingIsUnderWayAtTheStart) {
    EXPECT_EQ(updating, 0);
    EXPECT_EQ(runTask, 1);
    EXPECT_EQ(notifyUpdatePopUp.load(), nullptr);
    EXPECT_EQ(notifyUpdatingPopUp.load(), nullptr);
}

TEST(UpdatePrompts, TheTablesHoldTheTextsOfTheDialogs) {
    for (const NotificationKey* table : {keys, updatedKeys, updatingKeys}) {
        EXPECT_EQ(table[0], NotificationKey::alertHeader);
        EXPECT_EQ(table[1], NotificationKey::alertMessage);
        EXPECT_EQ(table[2], NotificationKey::defaultButtonTitle);
    }
    EXPECT_EQ(keys[3], NotificationKey::alternateButtonTitle);
    EXPECT_STREQ(values[0], "Ostler has an update for you");
    EXPECT_STREQ(values[1], updateMessage);
    EXPECT_STREQ(values[2], "Update Now");
    EXPECT_STREQ(values[3], "Update Later");
    EXPECT_STREQ(updatedValues[0], "Ostler has been updated");
    EXPECT_STREQ(updatedValues[1], "Your device has been updated with the latest improvements.");
    EXPECT_STREQ(updatedValues[2], "Ok");
    EXPECT_STREQ(updatingValues[0], "Ostler has an update for you in %d minutes");
    EXPECT_STREQ(updatingValues[1], updateMessage);
    EXPECT_STREQ(updatingValues[2], "Update Now");
}

TEST_F(UpdateDialogsTest, TheUpdateDialogHasTwoButtonsAndTheGivenTime) {
    dialogs.answerAll(platform::notificationCancelResponse);
    updatePopUp(3600);
    const auto shown = dialogs.await(1);
    EXPECT_EQ(shown.timeout, 3600);
    EXPECT_EQ(shown.flags, 1u);
    EXPECT_EQ(shown.dictionary.size(), 4u);
    EXPECT_EQ(shown.header(), "Ostler has an update for you");
    EXPECT_EQ(shown.text(NotificationKey::alertMessage), updateMessage);
    EXPECT_EQ(shown.text(NotificationKey::defaultButtonTitle), "Update Now");
    EXPECT_EQ(shown.text(NotificationKey::alternateButtonTitle), "Update Later");
}

TEST_F(UpdateDialogsTest, ANegativeTimeIsPassedOnAsItStands) {
    dialogs.answerAll(platform::notificationCancelResponse);
    updatePopUp(-5);
    EXPECT_EQ(dialogs.await(1).timeout, -5);
}

TEST_F(UpdateDialogsTest, OnlyUpdateNowCountsAsYes) {
    EXPECT_TRUE(answered(oneHour, platform::notificationDefaultResponse));
    EXPECT_EQ(log.messages(), std::vector<std::string>{"updatePopUp seeing Update Now click"});
    EXPECT_FALSE(answered(oneHour, platform::notificationAlternateResponse));
    EXPECT_FALSE(answered(oneHour, 2));
    EXPECT_FALSE(answered(oneHour, platform::notificationCancelResponse));
    EXPECT_EQ(log.messages().size(), 1u);
}

TEST_F(UpdateDialogsTest, OnlyTheTwoLowBitsOfTheAnswerAreRead) {
    EXPECT_TRUE(answered(oneHour, 0x104));
    EXPECT_FALSE(answered(oneHour, 0x101));
    EXPECT_TRUE(answered(oneMinute, 0x104));
}

TEST_F(UpdateDialogsTest, ADialogThatCannotBeMadeCountsAsNo) {
    dialogs.makeNone();
    EXPECT_FALSE(updatePopUp(10));
    EXPECT_FALSE(updatingPopUp(10));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(UpdateDialogsTest, TheHandleOfTheUpdateDialogStandsAsLongAsTheDialogIsThere) {
    auto shown = std::async(std::launch::async, oneHour);
    dialogs.await(1);
    EXPECT_TRUE(testsupport::comesTrue([] { return notifyUpdatePopUp.load() != nullptr; }));
    EXPECT_EQ(notifyUpdatingPopUp.load(), nullptr);
    dialogs.answer(platform::notificationAlternateResponse);
    shown.wait();
    EXPECT_EQ(notifyUpdatePopUp.load(), nullptr);
    EXPECT_EQ(dialogs.released(), 1);
}

TEST_F(UpdateDialogsTest, TheHandleOfTheCountdownDialogStandsAsLongAsTheDialogIsThere) {
    auto shown = std::async(std::launch::async, oneMinute);
    dialogs.await(1);
    EXPECT_TRUE(testsupport::comesTrue([] { return notifyUpdatingPopUp.load() != nullptr; }));
    EXPECT_EQ(notifyUpdatePopUp.load(), nullptr);
    dialogs.answer(platform::notificationDefaultResponse);
    shown.wait();
    EXPECT_EQ(notifyUpdatingPopUp.load(), nullptr);
    EXPECT_EQ(dialogs.released(), 1);
}

TEST_F(UpdateDialogsTest, TheCountdownDialogHasOneButtonAMessageOfItsOwnAndOneMinute) {
    dialogs.answerAll(platform::notificationCancelResponse);
    updatingPopUp(10);
    const auto shown = dialogs.await(1);
    EXPECT_EQ(shown.timeout, 60);
    EXPECT_EQ(shown.flags, 1u);
    EXPECT_EQ(shown.dictionary.size(), 3u);
    EXPECT_EQ(
        shown.text(NotificationKey::alertMessage),
        "Your device needs to be updated with the latest improvements and to avoid potential performance "
        "issues. A system restart may be required.");
    EXPECT_EQ(shown.text(NotificationKey::defaultButtonTitle), "Update Now");
    EXPECT_EQ(shown.text(NotificationKey::alternateButtonTitle), "(none)");
}

TEST_F(UpdateDialogsTest, TheCountdownHeaderSaysMinuteForOneAndMinutesForTwoAndAbove) {
    dialogs.answerAll(platform::notificationCancelResponse);
    updatingPopUp(1);
    EXPECT_EQ(dialogs.await(1).header(), "Ostler has an update for you in 1 minute");
    updatingPopUp(2);
    EXPECT_EQ(dialogs.await(2).header(), "Ostler has an update for you in 2 minutes");
    updatingPopUp(10);
    EXPECT_EQ(dialogs.await(3).header(), "Ostler has an update for you in 10 minutes");
}

TEST_F(UpdateDialogsTest, APressInTheCountdownIsLoggedAndSilenceIsNot) {
    EXPECT_FALSE(answered(oneMinute, platform::notificationCancelResponse));
    EXPECT_TRUE(log.messages().empty());
    EXPECT_TRUE(answered(oneMinute, platform::notificationDefaultResponse));
    EXPECT_EQ(log.messages(), std::vector<std::string>{"updatingPopUp seeing Update Now click"});
}
