// The download of an update, with the session and the files played.

#include "agent/UpdatePrompts.h"

#include "config/Configuration.h"
#include "support/Await.h"
#include "support/PlayedUrlSession.h"
#include "support/SettingsWorld.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

using platform::UrlTaskResult;
using testsupport::PlayedUrlSession;

namespace {

using Lines = std::vector<std::string>;

class UpdateDownloadTest : public testsupport::SettingsWorld {
protected:
    UpdateDownloadTest() { files.install(); }

    // The outcome of a download whose transfer ends like this.
    bool download(const UrlTaskResult& result, const std::string& url = "http://host/OstlerUpdate.dmg") {
        session.endAll(result);
        return downloadFileFromUrl(url.c_str());
    }

    std::string destination(const std::string& name) const { return root.path() + "/usr/local/etc/" + name; }

    PlayedUrlSession& session = PlayedUrlSession::install();
    testsupport::PlayedFileManager files;
};

const UrlTaskResult fetched = {"/tmp/fetched", 200, {}};

} // namespace

TEST_F(UpdateDownloadTest, WhatStandsAtTheDestinationIsRemovedAndTheFetchedFileMovedThere) {
    EXPECT_TRUE(download(fetched));
    const std::string target = destination("OstlerUpdate.dmg");
    EXPECT_EQ(files.operations(), (Lines{"remove " + target, "move /tmp/fetched " + target}));
    EXPECT_EQ(session.await(1).url, "http://host/OstlerUpdate.dmg");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(UpdateDownloadTest, ThatNothingCouldBeRemovedIsIgnored) {
    files.removal = {false, platform::fileNoSuchFileError, {}};
    EXPECT_TRUE(download(fetched));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(UpdateDownloadTest, TheFileTakesItsNameFromTheUrlsLastComponent) {
    EXPECT_TRUE(download(fetched, "http://host/a/b/other%20name.pkg?version=2#part"));
    EXPECT_EQ(files.operations().back(), "move /tmp/fetched " + destination("other name.pkg"));
}

TEST_F(UpdateDownloadTest, EveryStatusFrom200To299IsASuccess) {
    EXPECT_TRUE(download({"/tmp/fetched", 200, {}}));
    EXPECT_TRUE(download({"/tmp/fetched", 299, {}}));
    EXPECT_FALSE(download({"/tmp/fetched", 199, {}}));
    EXPECT_FALSE(download({"/tmp/fetched", 300, {}}));
    EXPECT_EQ(files.operations().size(), 4u);
}

TEST_F(UpdateDownloadTest, AServersRefusalIsLoggedWithoutATextAndTouchesNoFile) {
    EXPECT_FALSE(download({"/tmp/fetched", 404, {}}));
    EXPECT_EQ(log.messages(), Lines{"downloadFileFromUrl server error: (null)"});
    EXPECT_TRUE(files.operations().empty());
}

TEST_F(UpdateDownloadTest, ATransferWithoutAResponseIsLoggedWithTheErrorsText) {
    EXPECT_FALSE(download({{}, 0, "could not connect"}));
    EXPECT_EQ(log.messages(), Lines{"downloadFileFromUrl server error: could not connect"});
    EXPECT_TRUE(files.operations().empty());
}

TEST_F(UpdateDownloadTest, AMoveThatFailsIsLoggedWithItsCode) {
    files.move = {false, 513, {}};
    EXPECT_FALSE(download(fetched));
    EXPECT_EQ(log.messages(), Lines{"downloadFileFromUrl server error: 513"});
}

TEST_F(UpdateDownloadTest, ATransferThatBrokeOffBehindItsStatusRemovesTheOldFileAndFailsAtTheMove) {
    files.move = {false, platform::fileNoSuchFileError, {}};
    EXPECT_FALSE(download({{}, 200, "connection lost"}));
    EXPECT_EQ(log.messages(), Lines{"downloadFileFromUrl server error: 4"});
    EXPECT_EQ(files.operations().front(), "remove " + destination("OstlerUpdate.dmg"));
}

TEST_F(UpdateDownloadTest, AnExceptionOfStringTypeIsLoggedWithItsText) {
    files.move = {false, 512, "raised by the move"};
    EXPECT_FALSE(download(fetched));
    files.removal = {false, 512, "raised by the removal"};
    EXPECT_FALSE(download(fetched));
    EXPECT_EQ(log.messages(), (Lines{"downloadFileFromUrl server error: raised by the move",
                                     "downloadFileFromUrl server error: raised by the removal"}));
    EXPECT_EQ(files.operations().size(), 3u);
}

TEST_F(UpdateDownloadTest, AUrlThatNamesNoFileRemovesNoFolder) {
    for (const char* url : {"http://host", "http://host/", "http://host//", "http://host/a/%2e%2e",
                            "http://host/..%2fbin", "http://host/a%00b", "http://host/%2e"})
        EXPECT_FALSE(download(fetched, url)) << url;
    EXPECT_TRUE(files.operations().empty());
    EXPECT_EQ(log.countContaining("downloadFileFromUrl server error: 514"), 7);
}

TEST_F(UpdateDownloadTest, TheEndIsLoggedAtLogLevelOneEvenAfterAFailure) {
    Configuration::setLogLevel(1);
    EXPECT_TRUE(download(fetched, "http://host/a.dmg"));
    EXPECT_FALSE(download({{}, 0, "gone"}, "http://host/b.dmg"));
    EXPECT_EQ(log.messages(), (Lines{"downloadFileFromUrl downloaded file: http://host/a.dmg",
                                     "downloadFileFromUrl server error: gone",
                                     "downloadFileFromUrl downloaded file: http://host/b.dmg"}));
}

TEST_F(UpdateDownloadTest, TheCallerRunsTheMainLoopASecondAtATimeUntilTheEnd) {
    runTask = 0;
    auto outcome = std::async(std::launch::async, [] { return downloadFileFromUrl("http://host/a.dmg"); });
    session.await(1);
    EXPECT_TRUE(testsupport::comesTrue([this] { return session.loopRuns().size() >= 3; }));
    EXPECT_EQ(runTask, 1);
    EXPECT_TRUE(files.operations().empty());
    session.end(1, fetched);
    EXPECT_TRUE(outcome.get());
    EXPECT_EQ(runTask, 0);
    for (const int seconds : session.loopRuns())
        EXPECT_EQ(seconds, 1);
}

TEST_F(UpdateDownloadTest, TheWaiterIsLetGoOnlyWhenTheFileIsInItsPlace) {
    static std::vector<int> running;
    class Watching final : public platform::FileManager {
        platform::FileResult removeItem(const char*) override { return note(true); }
        platform::FileResult moveItem(const char*, const char*) override { return note(false); }
        static platform::FileResult note(bool done) {
            running.push_back(runTask);
            return {done, 512, {}};
        }
    };
    static Watching watching;
    platform::fileManagerService.install(watching);
    EXPECT_FALSE(download(fetched));
    EXPECT_EQ(running, (std::vector<int>{1, 1}));
    EXPECT_EQ(runTask, 0);
}

TEST_F(UpdateDownloadTest, TheEndOfOneOfTwoDownloadsLetsBothWaitersGo) {
    auto first = std::async(std::launch::async, [] { return downloadFileFromUrl("http://host/a.dmg"); });
    session.await(1);
    auto second = std::async(std::launch::async, [] { return downloadFileFromUrl("http://host/b.dmg"); });
    session.await(2);
    session.end(2, fetched);
    EXPECT_TRUE(second.get());
    EXPECT_TRUE(first.get());
    session.end(1, {{}, 0, "too late"});
    EXPECT_TRUE(log.holds("downloadFileFromUrl server error: too late"));
}
