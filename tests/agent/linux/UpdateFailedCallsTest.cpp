// An update that the agent pushes, from its thread's start to the update program, with one system call of its threads
// failing, or the process killed at one: each call in turn.

#include "agent/UpdatePrompts.h"
#include "config/Configuration.h"
#include "platform/FileManager.h"
#include "platform/HostPaths.h"
#include "platform/UrlSession.h"
#include "platform/UserDialog.h"
#include "support/ChildNotes.h"
#include "support/Eventually.h"
#include "support/FileServer.h"
#include "support/ManualClock.h"
#include "support/PlayedDialogs.h"
#include "support/ProcessDescriptors.h"
#include "support/SettingsWorld.h"
#include "support/TestChild.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

using platform::HostPaths;
using testsupport::eventually;
using testsupport::readAll;
using testsupport::writeAll;

namespace fs = std::filesystem;

namespace {

const std::string package(40000, 'n');
const std::string former = "the former package";

class UpdateWithServer : public testsupport::SettingsWorld {
protected:
    using Names = std::set<std::string>;

    UpdateWithServer() {
        fs::create_directories(HostPaths::updateDirectory());
        fs::create_directories(temporary_);
        setenv("TMPDIR", temporary_.c_str(), 1);
        writeAll(HostPaths::updateHelper(), "#!/bin/sh\necho run >> '" + root.path() + "/runs'\n");
        fs::permissions(HostPaths::updateHelper(), fs::perms::owner_all);
        // The library is loaded once, and its loading is not what is tried here.
        std::atomic<bool> loaded{false};
        platform::urlSessionService.backend().downloadTask(server_.url("first").c_str(),
                                                           [&](const auto&) { loaded = true; });
        EXPECT_TRUE(eventually([&] { return loaded.load(); }));
    }

    // A machine with the package of a former update, whose user presses "Update Now".
    void prepare() const {
        fs::remove(root.path() + "/runs");
        writeAll(HostPaths::updatePackage(), former);
        removeFile();
        Configuration::loadConfig();
        Configuration::setLogLevel(1);
        Configuration::setUpdateReady(false);
        testsupport::ManualClock::installed().letSleepsPass(true);
        testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
        platform::urlSessionService.install(platform::urlSessionService.backend());
        platform::fileManagerService.install(platform::fileManagerService.backend());
        testsupport::PlayedDialogs::install().answerAll(platform::notificationDefaultResponse);
    }

    // One whole update, as the thread of a configuration frame starts it.
    void update() const { updateThread(new THREADPARAMETERS(server_.url("OstlerUpdate.dmg").c_str())); }

    int runs() const { return static_cast<int>(readAll(root.path() + "/runs").size() / 4); }

    // What lies in the package's place.
    static std::string packageLeft() {
        if (!fs::exists(HostPaths::updatePackage())) return "none";
        const std::string left = readAll(HostPaths::updatePackage());
        if (left == former) return "the former";
        return left == package ? "the new one" : "a part";
    }

    std::string readyMark() const { return file().empty() ? "no file" : inFile("UpdateReady"); }

    std::string leftBehind() const {
        return std::to_string(std::distance(fs::directory_iterator(temporary_), fs::directory_iterator()));
    }

    const std::string temporary_ = root.path() + "/fetched";
    const testsupport::FileServer server_{package};
    const testsupport::ChildNotes notes_{};
};

using UpdateFailedCalls = testsupport::CallsFailIn<UpdateWithServer>;
using UpdateKilled = testsupport::CallsFailIn<UpdateWithServer>; // a checker lets no child start threads

TEST_F(UpdateFailedCalls, LeaveTheFormerPackageNoneOrTheNewOneAndTheNextPushMakesItWhole) {
    testsupport::failEachCall([this] {
        prepare();
        const auto before = testsupport::descriptorsOf(getpid());
        testsupport::beginCalls(testsupport::CallsOf::everyThread);
        update();
        testsupport::endCalls();
        notes_.add(packageLeft() + ", " + (runs() == 1 ? "run" : "not run"));
        EXPECT_EQ(updating, 0);
        EXPECT_TRUE(eventually([&] { return testsupport::descriptorsOf(getpid()) == before; }));
        update();
        EXPECT_EQ(packageLeft(), "the new one");
        EXPECT_GE(runs(), 1);
        EXPECT_EQ(readyMark(), "false");
    });
    EXPECT_EQ(notes_.seen(),
              (Names{"the former, not run", "none, not run", "the new one, run", "the new one, not run"}));
}

TEST_F(UpdateKilled, LeavesThePackageAndTheReadyMarkThatTheNextStartFinds) {
    Names found;
    testsupport::killAtEachCall(
        [this] {
            prepare();
            fs::remove_all(temporary_);
            fs::create_directories(temporary_);
            testsupport::beginCalls(testsupport::CallsOf::everyThread);
            update();
            testsupport::endCalls();
        },
        [&](const testsupport::TracedEnd&) {
            found.insert(packageLeft() + ", marked " + readyMark() + ", left over " + leftBehind());
            EXPECT_TRUE(testsupport::passesInChild([this] {
                Configuration::loadConfig();
                EXPECT_EQ(Configuration::isUpdateReady(), readyMark() == "true");
            }));
        });
    // The threads take turns as they like, so that not every run of this test meets each of them.
    const Names possible = {
        "the former, marked false, left over 0",    "the former, marked false, left over 1",
        "none, marked false, left over 1",          "the new one, marked false, left over 0",
        "the new one, marked no file, left over 0", "the new one, marked true, left over 0"};
    for (const std::string& state : found)
        EXPECT_EQ(possible.count(state), 1u) << state;
    EXPECT_GE(found.size(), 4u);
}

} // namespace
