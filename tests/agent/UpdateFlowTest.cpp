// Whole updates, from the agent's push to the update program.

#include "agent/OstComm.h"
#include "agent/UpdatePrompts.h"
#include "support/AnswerServer.h"
#include "support/Await.h"
#include "support/LoopbackPeer.h"
#include "support/TemporaryFolder.h"
#include "support/UpdateWorld.h"
#include "support/WebServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using testsupport::comesTrue;
using testsupport::readAll;
using testsupport::writeAll;

namespace fs = std::filesystem;

namespace {

class UpdateFlowTest : public testing::Test {
protected:
    std::string url(const std::string& name) const {
        return "http://127.0.0.1:" + std::to_string(port) + "/updates/" + name;
    }

    // Answers the update dialog, which must be the only one, with "Update Now".
    void pressUpdateNow() {
        world.dialogs.await(1);
        world.dialogs.answer(platform::notificationDefaultResponse);
    }

    // Pushes an address whose download fails, and checks that nothing else comes of it.
    void expectFailedDownload(const std::string& address, const std::string& logged) {
        world.push(address);
        ASSERT_TRUE(world.hasEnded());
        EXPECT_TRUE(world.link.log.holds("downloadFileFromUrl server error: " + logged));
        EXPECT_EQ(world.link.log.countContaining("updateThread unable to download the file: " + address), 1);
        EXPECT_EQ(world.dialogs.shown(), 0);
        EXPECT_EQ(world.updateRuns(), 0);
        EXPECT_EQ(world.readyMark(), "false");
    }

    testsupport::UpdateWorld world;
    const int port = testsupport::freePort();
};

// The same with a web server that has a package.
class ServedUpdateFlowTest : public UpdateFlowTest {
protected:
    ServedUpdateFlowTest() { server.put("updates/OstlerUpdate.dmg", "the package"); }

    int requestsFor(const std::string& name) const {
        const std::string log = server.accessLog();
        int count = 0;
        for (auto at = log.find("GET /updates/" + name); at != std::string::npos;
             at = log.find("GET /updates/" + name, at + 1))
            ++count;
        return count;
    }

    testsupport::Certificate unused{"localhost"};
    testsupport::WebServer server{port, 0, unused};
};

} // namespace

TEST_F(ServedUpdateFlowTest, APushedUpdateIsFetchedMarkedAskedAboutAndRun) {
    world.push(url("OstlerUpdate.dmg"));
    world.settle();
    EXPECT_EQ(world.dialogs.await(1).timeout, world.secondsUntilSix());
    EXPECT_EQ(readAll(world.package("OstlerUpdate.dmg")), "the package");
    EXPECT_EQ(world.readyMark(), "true");
    EXPECT_EQ(world.updateRuns(), 0);
    pressUpdateNow();
    ASSERT_TRUE(world.hasEnded());
    EXPECT_EQ(world.updateRuns(), 1);
    EXPECT_EQ(world.updateCopyRuns(), 0);
    EXPECT_EQ(world.markSeen(), "false");
    EXPECT_EQ(world.readyMark(), "false");
    EXPECT_EQ(requestsFor("OstlerUpdate.dmg"), 1);
    EXPECT_EQ(readAll(world.package("OstlerUpdate.dmg")), "the package");
}

TEST_F(ServedUpdateFlowTest, AUserWhoSaysNothingIsCountedDownAfterSixAndUpdated) {
    world.push(url("OstlerUpdate.dmg"));
    world.settle();
    world.dialogs.await(1);
    world.dialogs.timeOut();
    ASSERT_TRUE(world.clock.waitForSleepers(1));
    world.clock.advanceSeconds(10);
    for (int shown = 2; shown <= 11; ++shown) {
        world.dialogs.await(shown);
        EXPECT_EQ(world.updateRuns(), 0);
        world.dialogs.timeOut();
    }
    ASSERT_TRUE(world.hasEnded());
    EXPECT_EQ(world.updateRuns(), 1);
    EXPECT_EQ(world.secondsUntilSix(), -610);
}

TEST_F(ServedUpdateFlowTest, AFileAlreadyAtTheDestinationIsReplaced) {
    writeAll(world.package("OstlerUpdate.dmg"), "a longer package of an earlier update");
    writeAll(world.package("another"), "kept");
    world.push(url("OstlerUpdate.dmg"));
    world.settle();
    world.dialogs.await(1);
    EXPECT_EQ(readAll(world.package("OstlerUpdate.dmg")), "the package");
    EXPECT_EQ(readAll(world.package("another")), "kept");
    pressUpdateNow();
    ASSERT_TRUE(world.hasEnded());
}

TEST_F(ServedUpdateFlowTest, ThePackageIsNamedAfterTheUrlWhateverTheLogSays) {
    server.put("updates/other.pkg", "another package");
    world.push(url("other.pkg"));
    world.settle();
    world.dialogs.await(1);
    EXPECT_EQ(readAll(world.package("other.pkg")), "another package");
    EXPECT_FALSE(fs::exists(world.package("OstlerUpdate.dmg")));
    EXPECT_TRUE(world.link.log.holds("updateThread downloading the file: " + url("other.pkg") +
                                     " to: " + world.package("OstlerUpdate.dmg") + "\n"));
    pressUpdateNow();
    ASSERT_TRUE(world.hasEnded());
}

TEST_F(ServedUpdateFlowTest, ASecondPushWhileAnUpdateRunsStartsNothing) {
    world.push(url("OstlerUpdate.dmg"));
    world.settle();
    world.dialogs.await(1);
    world.push(url("second.dmg"));
    world.link.awaitLog("valueBypassStr is now <" + url("second.dmg") + ">");
    pressUpdateNow();
    ASSERT_TRUE(world.hasEnded());
    EXPECT_EQ(world.link.log.countContaining("updateThread entry"), 1);
    EXPECT_EQ(requestsFor("second.dmg"), 0);
    EXPECT_EQ(world.updateRuns(), 1);
}

TEST_F(ServedUpdateFlowTest, AfterTheEndOfAnUpdateTheNextPushStartsAnother) {
    world.push(url("missing.dmg"));
    ASSERT_TRUE(world.hasEnded());
    world.push(url("OstlerUpdate.dmg"));
    world.settle();
    pressUpdateNow();
    ASSERT_TRUE(comesTrue([this] { return world.updateRuns() == 1; }));
    EXPECT_EQ(world.link.log.countContaining("updateThread entry"), 2);
}

TEST_F(ServedUpdateFlowTest, APackageThatTheServerDoesNotHaveIsAFailure) {
    writeAll(world.package("missing.dmg"), "of an earlier update");
    expectFailedDownload(url("missing.dmg"), "(null)");
    EXPECT_TRUE(comesTrue([this] { return requestsFor("missing.dmg 404") == 1; }));
    EXPECT_EQ(readAll(world.package("missing.dmg")), "of an earlier update");
}

TEST_F(ServedUpdateFlowTest, APackageThatCannotBeStoredIsAFailure) {
    fs::remove_all(world.package(""));
    expectFailedDownload(url("OstlerUpdate.dmg"), "4");
}

TEST_F(ServedUpdateFlowTest, TheSignalsCancelEndsTheDialogAndTheUpdate) {
    world.push(url("OstlerUpdate.dmg"));
    world.settle();
    world.dialogs.await(1);
    ASSERT_TRUE(comesTrue([] { return notifyUpdatePopUp.load() != nullptr; }));
    OstComm::Instance()->clearPopups();
    ASSERT_TRUE(comesTrue([this] { return world.dialogs.released() == 1; }));
    EXPECT_EQ(updating, 0);
    EXPECT_EQ(world.updateRuns(), 0);
    EXPECT_EQ(world.readyMark(), "true");
    EXPECT_EQ(world.link.log.countContaining("updateThread updatingpopup time check"), 0);
}

TEST_F(ServedUpdateFlowTest, TheSignalsCancelInTheCountdownEndsItsDialogAndTheUpdate) {
    world.push(url("OstlerUpdate.dmg"));
    world.settle();
    world.dialogs.await(1);
    world.dialogs.timeOut();
    ASSERT_TRUE(world.clock.waitForSleepers(1));
    world.clock.advanceSeconds(10);
    world.dialogs.await(2);
    ASSERT_TRUE(comesTrue([] { return notifyUpdatingPopUp.load() != nullptr; }));
    OstComm::Instance()->clearPopups();
    ASSERT_TRUE(comesTrue([] { return notifyUpdatingPopUp.load() == nullptr; }));
    EXPECT_EQ(world.dialogs.shown(), 2);
    EXPECT_EQ(world.dialogs.released(), 2);
    EXPECT_EQ(updating, 0);
    EXPECT_EQ(world.updateRuns(), 0);
    EXPECT_EQ(world.readyMark(), "true");
}

TEST_F(UpdateFlowTest, AServerThatIsNotThereIsAFailedDownload) {
    world.push(url("OstlerUpdate.dmg"));
    ASSERT_TRUE(world.hasEnded());
    EXPECT_EQ(world.link.log.countContaining("downloadFileFromUrl server error: "), 1);
    EXPECT_EQ(world.link.log.countContaining("updateThread unable to download the file: "), 1);
    EXPECT_EQ(world.dialogs.shown(), 0);
    EXPECT_FALSE(fs::exists(world.package("OstlerUpdate.dmg")));
}

TEST_F(UpdateFlowTest, AConnectionCutInTheMiddleIsAFailedDownloadAndLeavesNoPackage) {
    writeAll(world.package("OstlerUpdate.dmg"), "of an earlier update");
    testsupport::AnswerServer server({"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nthe beginning"},
                                     testsupport::AnswerServer::Afterwards::closes, port);
    expectFailedDownload(url("OstlerUpdate.dmg"), "4");
    EXPECT_FALSE(fs::exists(world.package("OstlerUpdate.dmg")));
}

TEST_F(UpdateFlowTest, ASecondPushDuringTheDownloadStartsNoSecondDownload) {
    testsupport::LoopbackListener listener(port);
    world.push(url("OstlerUpdate.dmg"));
    testsupport::Peer transfer = listener.accept();
    ASSERT_TRUE(transfer.isOpen());
    EXPECT_EQ(updating, 1);
    world.push(url("second.dmg"));
    world.link.awaitLog("valueBypassStr is now <" + url("second.dmg") + ">");
    transfer.send("HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\nthe package");
    world.settle();
    world.dialogs.await(1);
    EXPECT_EQ(readAll(world.package("OstlerUpdate.dmg")), "the package");
    EXPECT_EQ(world.link.log.countContaining("updateThread entry"), 1);
    pressUpdateNow();
    ASSERT_TRUE(world.hasEnded());
}

TEST_F(UpdateFlowTest, AnUpdateUrlOfNullIsAttemptedAndFails) {
    world.link.agent().push(R"({"update_url":null,"other":1})");
    ASSERT_TRUE(world.hasEnded());
    EXPECT_EQ(world.link.log.countContaining("updateThread unable to download the file: ul to: "), 1);
}
