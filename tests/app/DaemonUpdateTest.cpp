// Signals that reach the daemon while an update is under way. The handler ends the process, so each scenario
// runs in a forked child, and its marks are looked at afterwards.

#include "app/Daemon.h"

#include "agent/UpdatePrompts.h"
#include "support/AnswerServer.h"
#include "support/Await.h"
#include "support/TemporaryFolder.h"
#include "support/UpdateWorld.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

using testsupport::UpdateWorld;

namespace {

// The marks that a scenario leaves behind.
class DaemonUpdateTest : public testing::Test {
protected:
    // Runs the scenario, whose process must end with status 0, and answers what it printed at its end.
    template <class Scenario>
    std::string outputOf(Scenario scenario) const {
        const std::string output = folder.file("output");
        EXPECT_EXIT(
            {
                if (!std::freopen(output.c_str(), "w", stdout)) std::_Exit(97);
                scenario();
            },
            testing::ExitedWithCode(0), "");
        std::string text = testsupport::readAll(output);
        // The link's socket tells of each wait that ran out.
        const std::string timeout = "Timeout\n";
        for (auto at = text.find(timeout); at != std::string::npos; at = text.find(timeout))
            text.erase(at, timeout.size());
        return text;
    }

    // Brings an update to its first dialog.
    static void bringUpDialog(UpdateWorld& world) {
        static testsupport::AnswerServer server({"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx"});
        world.push(server.url("/OstlerUpdate.dmg"));
        world.settle();
        world.dialogs.await(1);
        if (!testsupport::comesTrue([] { return notifyUpdatePopUp.load() != nullptr; })) std::_Exit(98);
    }

    // Has the process write down, when it exits, what became of the update.
    static void reportAtExit(UpdateWorld& world) {
        static UpdateWorld* reported = nullptr;
        reported = &world;
        std::atexit([] {
            testsupport::comesTrue([] { return reported->dialogs.released() == reported->dialogs.shown(); });
            std::printf("|%d dialogs, %d ended, %d updates, %d copies, mark %s, seen %s",
                        reported->dialogs.shown(), reported->dialogs.released(), reported->updateRuns(),
                        reported->updateCopyRuns(), reported->readyMark().c_str(),
                        reported->markSeen().c_str());
            std::error_code ignored;
            std::filesystem::remove_all(reported->link.root.path(), ignored);
            std::filesystem::remove_all(reported->link.log.folder(), ignored);
        });
    }

    // What a scenario wrote down at its end.
    static std::string marksIn(const std::string& output) {
        const auto at = output.find('|');
        return at == std::string::npos ? "(none)" : output.substr(at);
    }

    testsupport::TemporaryFolder folder;
};

} // namespace

TEST_F(DaemonUpdateTest, SigtermWhileADialogIsUpEndsItAndRunsTheCopyProgramAlone) {
    const std::string output = outputOf([] {
        auto* world = new UpdateWorld;
        reportAtExit(*world);
        bringUpDialog(*world);
        signalHandler(SIGTERM);
    });
    EXPECT_EQ(output.substr(0, 20), "\nSIGTERM: 15\ncmd is ");
    EXPECT_NE(output.find("/usr/local/bin/fernhillupdatecopyExit."), std::string::npos);
    EXPECT_EQ(marksIn(output), "|1 dialogs, 1 ended, 0 updates, 1 copies, mark false, seen false");
}

TEST_F(DaemonUpdateTest, SigintWhileADialogIsUpEndsItAndRunsNoProgram) {
    const std::string output = outputOf([] {
        auto* world = new UpdateWorld;
        reportAtExit(*world);
        bringUpDialog(*world);
        signalHandler(SIGINT);
    });
    EXPECT_EQ(output.substr(0, output.find('|')), " - SIGINT: 2\nExit.");
    EXPECT_EQ(marksIn(output), "|1 dialogs, 1 ended, 0 updates, 0 copies, mark true, seen (none)");
}
