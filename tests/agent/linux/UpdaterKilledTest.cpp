// The process is killed between any two system calls of an update that the check-in names, and of the last step of one,
// which puts the new program in the place of the old one.

#include "agent/Updater.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/FileServer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedNames.h"
#include "support/SettingsWorld.h"
#include "support/TestChild.h"
#include "support/TracedCalls.h"

#include <sys/socket.h>

#include <filesystem>
#include <set>
#include <string>

using testsupport::readAll;
using testsupport::writeAll;

namespace fs = std::filesystem;

namespace {

class UpdaterKilled : public testsupport::KilledIn<testsupport::SettingsWorld> {
protected:
    using Names = std::set<std::string>;
};

TEST_F(UpdaterKilled, InAFetchLeavesNoPackageAPartOrTheWholeAndTheNextFetchesItAnew) {
    const std::string content(40000, 'p');
    fs::create_directories(fs::path(platform::HostPaths::packageDirectory()).parent_path());
    const testsupport::FileServer server(content);
    const std::string package = platform::HostPaths::packageDirectory() + std::string("/package");
    const auto fetch = [&] {
        testsupport::PlayedNames& names = *new testsupport::PlayedNames;
        names.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
        names.install();
        testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
        const auto url = Owned<GPString>::adopt(new GPString(server.url("package").c_str()));
        testsupport::beginCalls();
        EXPECT_TRUE(Updater::processZip(url.get()));
        testsupport::endCalls();
    };
    Names found;
    testsupport::killAtEachCall(
        [&] {
            fs::remove_all(platform::HostPaths::packageDirectory());
            fetch();
        },
        [&](const testsupport::TracedEnd&) {
            const std::string left = readAll(package);
            found.insert(!fs::exists(package) ? "none" : left == content ? "whole" : "a part");
            EXPECT_TRUE(testsupport::passesInChild(fetch));
            EXPECT_EQ(readAll(package), content);
        });
    EXPECT_EQ(found, (Names{"none", "a part", "whole"}));
}

// By rule the old one goes first.
TEST_F(UpdaterKilled, InTheLastStepCanLeaveNoProgramAndTheNewOneStillWaiting) {
    const std::string program = root.path() + "/fernhill", waiting = root.path() + "/twupdate";
    Updater::setPath(program.c_str());
    Names found;
    testsupport::killAtEachCall(
        [&] {
            writeAll(program, "old");
            writeAll(waiting, "new");
            testsupport::beginCalls();
            Updater::finishUpdate("fernhill");
            testsupport::endCalls();
        },
        [&](const testsupport::TracedEnd&) {
            found.insert(readAll(program) + ", waiting: " + readAll(waiting));
            if (!fs::exists(waiting)) return;
            EXPECT_TRUE(Updater::finishUpdate("fernhill"));
            EXPECT_EQ(readAll(program), "new");
        });
    EXPECT_EQ(found, (Names{"old, waiting: new", ", waiting: new", "new, waiting: "}));
}

} // namespace
