#include "platform/UserDialog.h"

#include "platform/DialogSlots.h"
#include "platform/EndSignals.h"
#include "platform/linux/DialogProgram.h"
#include "support/Await.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/ProcessDescriptors.h"
#include "support/Sanitizers.h"
#include "support/SystemCallFailure.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <iterator>
#include <set>
#include <string>
#include <vector>

using platform::NotificationDictionary;
using platform::NotificationKey;
using testsupport::ManualClock;
using Words = std::vector<std::string>;

namespace {

const NotificationDictionary question = {{NotificationKey::alertHeader, "Header"},
                                         {NotificationKey::alertMessage, "Message"},
                                         {NotificationKey::defaultButtonTitle, "Yes"},
                                         {NotificationKey::alternateButtonTitle, "No"}};

rlim_t ownThreads() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return static_cast<rlim_t>(std::distance(begin(threads), end(threads)));
}

// A desktop whose dialog programs are scripts of the test's own.
class UserDialogTest : public testing::Test {
protected:
    UserDialogTest() : dialogs(platform::userDialogService.backend()) {
        setenv("PATH", (folder.path() + ":/usr/bin:/bin").c_str(), 1);
        setenv("DISPLAY", ":played", 1);
        ManualClock::installed().setEventWait(10 * testsupport::patienceMicroseconds, false);
    }

    void installProgram(const std::string& name, const std::string& script) {
        testsupport::writeAll(folder.file(name), "#!/bin/sh\n" + script);
        chmod(folder.file(name).c_str(), 0755);
    }

    unsigned long showAndWait(double timeout) {
        platform::UserNotification* dialog =
            dialogs.create(timeout, platform::notificationNoteAlertLevel, question);
        unsigned long flags = 99;
        EXPECT_TRUE(dialogs.receiveResponse(dialog, flags));
        dialogs.release(dialog);
        return flags;
    }

    // The process between this one and the program, once a program that begins with `tellsItsHelper` runs.
    pid_t awaitHelper() const {
        std::string number;
        EXPECT_TRUE(testsupport::comesTrue([&] {
            number = testsupport::readAll(folder.file("helper"));
            return !number.empty();
        }));
        return number.empty() ? -1 : std::stoi(number);
    }

    testsupport::TemporaryFolder folder;
    const std::string tellsItsHelper = "cd " + folder.path() + "; echo $PPID > new; mv new helper\n";
    platform::UserDialog& dialogs;
};

} // namespace

TEST_F(UserDialogTest, TheProgramsExitStatusIsTheButton) {
    installProgram("zenity", "exit 0\n");
    EXPECT_EQ(showAndWait(60), platform::notificationDefaultResponse);
    installProgram("zenity", "exit 1\n");
    EXPECT_EQ(showAndWait(60), platform::notificationAlternateResponse);
    installProgram("zenity", "exit 5\n");
    EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
}

TEST_F(UserDialogTest, TheAnswerArrivesWhereTheEndOfChildrenIsIgnored) {
    signal(SIGCHLD, SIG_IGN);
    installProgram("zenity", "exit 1\n");
    EXPECT_EQ(showAndWait(60), platform::notificationAlternateResponse);
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(UserDialogTest, TheProgramIsEndedByTheSignalsThatItsCallerKeepsAway) {
    for (const char* signal : {"TERM", "INT"}) {
        installProgram("zenity", std::string("kill -") + signal + " $$; exit 0");
        EXPECT_TRUE(testsupport::passesInChild([this] {
            platform::handleEndSignals([](int) {});
            EXPECT_EQ(showAndWait(0), platform::notificationCancelResponse);
        }));
    }
}

TEST_F(UserDialogTest, TheProgramHasNoSignalBlocked) {
    // Perl, since a shell lets all signals in by itself.
    testsupport::writeAll(folder.file("zenity"),
                          "#!/usr/bin/perl\nopen(my $in, '<', '/proc/self/status'); open(my $out, '>', '" +
                              folder.file("mask") + "');\nwhile (<$in>) { print $out $_ if /^SigBlk/ }\n");
    chmod(folder.file("zenity").c_str(), 0755);
    EXPECT_EQ(showAndWait(60), platform::notificationDefaultResponse);
    EXPECT_EQ(testsupport::readAll(folder.file("mask")), "SigBlk:\t0000000000000000\n");
}

TEST_F(UserDialogTest, TheProgramIsGivenTheTextsOfTheDictionary) {
    EXPECT_EQ(platform::dialogCommand("/bin/zenity", question),
              (Words{"/bin/zenity", "--question", "--no-markup", "--title=Header", "--text=Message",
                     "--ok-label=Yes", "--cancel-label=No"}));
    EXPECT_EQ(platform::dialogCommand("/bin/kdialog", question),
              (Words{"/bin/kdialog", "--title", "Header", "--yes-label", "Yes", "--no-label", "No", "--yesno",
                     "Message"}));
}

TEST_F(UserDialogTest, WithoutAnAlternateButtonTheDialogHasOne) {
    NotificationDictionary notice(question.begin(), question.begin() + 3);
    EXPECT_EQ(platform::dialogCommand("/bin/zenity", notice)[1], "--info");
    EXPECT_EQ(platform::dialogCommand("/bin/kdialog", notice),
              (Words{"/bin/kdialog", "--title", "Header", "--ok-label", "Yes", "--msgbox", "Message"}));
}

TEST_F(UserDialogTest, KdialogIsTakenWhereThereIsNoZenity) {
    setenv("PATH", folder.path().c_str(), 1);
    EXPECT_EQ(platform::findDialogProgram(), "");
    installProgram("kdialog", "exit 0\n");
    EXPECT_EQ(platform::findDialogProgram(), folder.file("kdialog"));
    installProgram("zenity", "exit 0\n");
    EXPECT_EQ(platform::findDialogProgram(), folder.file("zenity"));
}

TEST_F(UserDialogTest, WithoutADisplayThereIsNoProgram) {
    installProgram("zenity", "exit 0\n");
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    EXPECT_EQ(platform::findDialogProgram(), "");
}

TEST_F(UserDialogTest, WithoutAProgramTheDialogAnswersAsTimedOutAfterItsTimeout) {
    setenv("PATH", folder.path().c_str(), 1);
    ManualClock::installed().setEventWait(20000, false);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST_F(UserDialogTest, WithoutAProgramATimeoutThatHasPassedEndsTheDialogAtOnce) {
    setenv("PATH", folder.path().c_str(), 1);
    EXPECT_EQ(showAndWait(-5), platform::notificationCancelResponse);
    EXPECT_EQ(showAndWait(0), platform::notificationCancelResponse);
}

TEST_F(UserDialogTest, WithoutAProgramACancelEndsTheDialogBeforeItsTimeout) {
    setenv("PATH", folder.path().c_str(), 1);
    platform::UserNotification* dialog = dialogs.create(60, 1, question);
    auto waiter = std::async(std::launch::async, [&] {
        unsigned long flags = 99;
        dialogs.receiveResponse(dialog, flags);
        return flags;
    });
    dialogs.cancel(dialog);
    EXPECT_EQ(waiter.get(), platform::notificationCancelResponse);
    dialogs.release(dialog);
}

TEST_F(UserDialogTest, TheHelperOfADialogKeepsItsOwnEndsAlone) {
    installProgram("zenity", tellsItsHelper + "exec sleep 60\n");
    const auto before = testsupport::descriptorsOf(getpid());
    platform::UserNotification* dialog = dialogs.create(0, 1, question);

    std::multiset<std::string> ends;
    for (const auto& [number, what] : testsupport::descriptorsOf(awaitHelper())) {
        const std::string kind = what.substr(0, what.find(':'));
        const bool isOld = before.count(number) > 0 && before.at(number) == what;
        if (!isOld && kind != "anon_inode") ends.insert(kind);
    }
    EXPECT_EQ(ends, (std::multiset<std::string>{"pipe", "socket"}));

    dialogs.cancel(dialog);
    unsigned long flags = 99;
    dialogs.receiveResponse(dialog, flags);
    dialogs.release(dialog);
}

TEST_F(UserDialogTest, TheHelperOfADialogOutlivesTheSignalsThatEndTheDaemon) {
    installProgram("zenity",
                   tellsItsHelper + "while [ ! -e " + folder.file("go") + " ]; do sleep 0.01; done\n");
    platform::UserNotification* dialog = dialogs.create(0, 1, question);
    const pid_t helper = awaitHelper();
    kill(helper, SIGTERM);
    kill(helper, SIGINT);
    testsupport::writeAll(folder.file("go"), "");
    unsigned long flags = 99;
    dialogs.receiveResponse(dialog, flags);
    EXPECT_EQ(flags, platform::notificationDefaultResponse);
    dialogs.release(dialog);
}

TEST_F(UserDialogTest, ACancelTakesTheProgramAway) {
    installProgram("zenity", "trap 'echo gone >" + folder.file("end") + "; exit 0' TERM\n" + "echo up >" +
                                 folder.file("up") + "\nwhile :; do sleep 0.01; done\n");
    platform::UserNotification* dialog = dialogs.create(0, 1, question);
    ASSERT_TRUE(testsupport::comesTrue([this] { return !testsupport::readAll(folder.file("up")).empty(); }));
    dialogs.cancel(dialog);
    unsigned long flags = 99;
    dialogs.receiveResponse(dialog, flags);
    EXPECT_EQ(flags, platform::notificationCancelResponse);
    EXPECT_EQ(testsupport::readAll(folder.file("end")), "gone\n");
    dialogs.release(dialog);
}

TEST_F(UserDialogTest, WhereTheProgramsProcessCannotBeMadeTheDialogEndsAndNoOtherProcessIsSignalled) {
    if (getuid() != 0) GTEST_SKIP() << "needs a user of its own to count processes for";
    installProgram("zenity", "exit 0\n");
    chmod(folder.path().c_str(), 0755);
    EXPECT_TRUE(testsupport::passesInChild([this] {
        // This process and the dialog's helper, no third one; a signal to all would reach these two. Threads count
        // too, and a checker may have one in each.
        const auto lonelyUser = static_cast<uid_t>(60000 + getpid() % 5000);
        const rlim_t count = 2 * ownThreads();
        const rlimit two = {count, count};
        ASSERT_EQ(setgid(lonelyUser), 0);
        ASSERT_EQ(setuid(lonelyUser), 0);
        ASSERT_EQ(setrlimit(RLIMIT_NPROC, &two), 0);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
        EXPECT_LT(std::chrono::steady_clock::now() - start, testsupport::patience);
    }));
}

TEST_F(UserDialogTest, ATimeoutTakesTheProgramAway) {
    ManualClock::installed().setEventWait(50000, false);
    installProgram("zenity", "exec sleep 60\n");
    EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
}

TEST_F(UserDialogTest, ACancelOfAReleasedDialogDoesNotEndTheNextOne) {
    installProgram("zenity", "exit 0\n");
    platform::UserNotification* first = dialogs.create(60, 1, question);
    dialogs.release(first);
    dialogs.cancel(first);
    EXPECT_EQ(showAndWait(60), platform::notificationDefaultResponse);
}

TEST_F(UserDialogTest, WithoutAnEventToCancelItADialogIsNotMadeAndItsPlaceStaysFree) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checker lives on descriptors";
    EXPECT_TRUE(testsupport::passesInChild([this] {
        rlimit descriptors;
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &descriptors), 0);
        const rlimit none = {0, descriptors.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        for (int tries = 0; tries < 2 * platform::dialogSlotCount; ++tries)
            EXPECT_EQ(dialogs.create(1, platform::notificationNoteAlertLevel, question), nullptr);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
        EXPECT_NE(dialogs.create(1, platform::notificationNoteAlertLevel, question), nullptr);
    }));
}

TEST_F(UserDialogTest, WithoutAConnectionToItsHelperThereIsNoProgram) {
    installProgram("zenity", "touch " + folder.file("run") + "\n");
    EXPECT_TRUE(testsupport::passesInChild([this] {
        ASSERT_TRUE(testsupport::failSystemCall(SYS_socketpair, EMFILE, AF_UNIX));
        ManualClock::installed().setEventWait(100000, false);
        EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
    }));
    EXPECT_FALSE(std::filesystem::exists(folder.file("run")));
}

TEST_F(UserDialogTest, WithoutAWayForTheAnswerThereIsNoProgramNorADescriptorLeft) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checker makes calls and descriptors of its own";
    installProgram("zenity", "touch " + folder.file("run") + "\n");
    EXPECT_TRUE(testsupport::passesInChild([this] {
        ASSERT_TRUE(testsupport::failSystemCall(SYS_pipe2, EMFILE, O_CLOEXEC, 1));
        ManualClock::installed().setEventWait(20000, false);
        EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
        const auto before = testsupport::descriptorsOf(getpid());
        EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
        EXPECT_EQ(testsupport::descriptorsOf(getpid()).size(), before.size());
    }));
    EXPECT_FALSE(std::filesystem::exists(folder.file("run")));
}

TEST_F(UserDialogTest, AProgramThatCannotBeRunIsADialogThatWasCancelled) {
    testsupport::writeAll(folder.file("zenity"), "#!" + folder.file("nothing") + "\n");
    chmod(folder.file("zenity").c_str(), 0755);
    EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
}

TEST_F(UserDialogTest, WithAllPlacesTakenADialogIsNotMadeUntilOneIsReleased) {
    setenv("PATH", folder.path().c_str(), 1);
    std::set<platform::UserNotification*> shown;
    for (int i = 0; i < platform::dialogSlotCount; ++i)
        shown.insert(dialogs.create(1, platform::notificationNoteAlertLevel, question));
    ASSERT_EQ(shown.size(), static_cast<std::size_t>(platform::dialogSlotCount));
    EXPECT_EQ(dialogs.create(1, platform::notificationNoteAlertLevel, question), nullptr);
    dialogs.release(*shown.begin());
    EXPECT_EQ(dialogs.create(1, platform::notificationNoteAlertLevel, question), *shown.begin());
}

TEST_F(UserDialogTest, AProgramThatHasGoneIsNoneOfTheNextDialogInItsPlace) {
    installProgram("zenity", "exit 0\n");
    EXPECT_EQ(showAndWait(60), platform::notificationDefaultResponse);
    setenv("PATH", folder.path().c_str(), 1);
    unlink(folder.file("zenity").c_str());
    platform::UserNotification* next = dialogs.create(0, platform::notificationNoteAlertLevel, question);
    auto waiter = std::async(std::launch::async, [&] {
        unsigned long flags = 0;
        return dialogs.receiveResponse(next, flags);
    });
    EXPECT_EQ(waiter.wait_for(testsupport::patience), std::future_status::ready) << "nobody can answer it";
    dialogs.cancel(next);
}

TEST_F(UserDialogTest, NullIsAllowedEverywhere) {
    unsigned long flags = 0;
    EXPECT_FALSE(dialogs.receiveResponse(nullptr, flags));
    EXPECT_EQ(flags, platform::notificationCancelResponse);
    dialogs.cancel(nullptr);
    dialogs.release(nullptr);
}

TEST_F(UserDialogTest, AWaylandDisplayAloneIsOneToo) {
    installProgram("zenity", "exit 0\n");
    unsetenv("DISPLAY");
    setenv("WAYLAND_DISPLAY", "wayland-0", 1);
    EXPECT_EQ(platform::findDialogProgram(), folder.file("zenity"));
}

TEST_F(UserDialogTest, WithoutAPathTheProgramIsSoughtInTheSystemsFolders) {
    const auto found = [] { return platform::findDialogProgram(); };
    setenv("PATH", "/usr/bin:/bin", 1);
    const std::string expected = found();
    setenv("PATH", folder.path().c_str(), 1);
    installProgram("zenity", "exit 0\n");
    ASSERT_EQ(found(), folder.file("zenity"));
    unsetenv("PATH");
    EXPECT_EQ(found(), expected);
}

TEST_F(UserDialogTest, AProgramWithAShortNameIsNoKdialog) {
    EXPECT_EQ(platform::dialogCommand("/z", question)[1], "--question");
}

TEST_F(UserDialogTest, ATimeoutIsAtLeastASecondAndAtMostAMillion) {
    setenv("PATH", folder.path().c_str(), 1);
    ManualClock& clock = ManualClock::installed();
    clock.setEventWait(0, true);
    const auto secondsOf = [&](double timeout) {
        const auto start = clock.microseconds();
        EXPECT_EQ(showAndWait(timeout), platform::notificationCancelResponse);
        return (clock.microseconds() - start) / 1000000;
    };
    EXPECT_EQ(secondsOf(0.25), 1);
    EXPECT_EQ(secondsOf(90), 90);
    EXPECT_EQ(secondsOf(2e9), 1000000);
}

TEST_F(UserDialogTest, WithoutAHelperThereIsNoProgramNorADescriptorLeft) {
    if (getuid() != 0) GTEST_SKIP() << "needs a user of its own to count processes for";
    installProgram("zenity", "exit 0\n");
    chmod(folder.path().c_str(), 0755);
    EXPECT_TRUE(testsupport::passesInChild([this] {
        const auto lonelyUser = static_cast<uid_t>(60000 + getpid() % 5000);
        const rlimit own = {ownThreads(), ownThreads()};
        ASSERT_EQ(setgid(lonelyUser), 0);
        ASSERT_EQ(setuid(lonelyUser), 0);
        ASSERT_EQ(setrlimit(RLIMIT_NPROC, &own), 0);
        ManualClock::installed().setEventWait(20000, false);
        EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
        const auto before = testsupport::descriptorsOf(getpid());
        EXPECT_EQ(showAndWait(60), platform::notificationCancelResponse);
        EXPECT_EQ(testsupport::descriptorsOf(getpid()), before);
    }));
}

TEST_F(UserDialogTest, AHelperThatIsKilledIsADialogThatWasCancelled) {
    installProgram("zenity", tellsItsHelper + "exec sleep 60\n");
    platform::UserNotification* dialog = dialogs.create(0, 1, question);
    kill(awaitHelper(), SIGKILL);
    unsigned long flags = 99;
    EXPECT_TRUE(dialogs.receiveResponse(dialog, flags));
    EXPECT_EQ(flags, platform::notificationCancelResponse);
    dialogs.release(dialog);
}
