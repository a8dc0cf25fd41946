#include "platform/UrlSession.h"

#include "support/AnswerServer.h"
#include "support/Await.h"
#include "support/LockCounter.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/NetworkNamespace.h"
#include "support/Patience.h"
#include "support/ProcessDescriptors.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"
#include "support/TlsServer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using platform::UrlTaskResult;
using testsupport::AnswerServer;
using testsupport::ManualClock;
using testsupport::readAll;

namespace fs = std::filesystem;

namespace {

constexpr char systemStore[] = "/etc/ssl/certs/ca-certificates.crt";

std::string answer(const std::string& status, const std::string& headers, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

class UrlSessionTest : public testing::Test {
protected:
    // What a completion was told, and what it found at the location.
    struct Ended {
        UrlTaskResult result;
        std::string content;
        std::thread::id thread;
    };

    UrlSessionTest() {
        signal(SIGPIPE, SIG_IGN);
        setenv("TMPDIR", temporary.path().c_str(), 1);
        ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    }

    platform::UrlSession& session = platform::urlSessionService.backend();

    Ended download(const std::string& url) {
        return await([&](platform::UrlSession::Completion told) { session.downloadTask(url.c_str(), told); });
    }

    Ended upload(const std::string& url, const char* method, const std::string& data) {
        return await([&](platform::UrlSession::Completion told) {
            session.uploadTask(url.c_str(), method, data, told);
        });
    }

    // A transfer that was given up before any response.
    static void expectNoResponse(const Ended& ended) {
        EXPECT_EQ(ended.result.statusCode, 0);
        EXPECT_EQ(ended.result.location, "");
        EXPECT_NE(ended.result.localizedDescription, "");
    }

    testsupport::TemporaryFolder temporary;

private:
    template <class Start>
    static Ended await(Start start) {
        auto promise = std::make_shared<std::promise<Ended>>();
        auto future = promise->get_future();
        start([promise](const UrlTaskResult& result) {
            promise->set_value({result, readAll(result.location), std::this_thread::get_id()});
        });
        if (future.wait_for(testsupport::patience) != std::future_status::ready) {
            ADD_FAILURE() << "the task does not end";
            std::abort();
        }
        return future.get();
    }
};

} // namespace

TEST_F(UrlSessionTest, AFileIsFetchedIntoATemporaryFileOnAnotherThread) {
    AnswerServer server({answer("200 OK", "", "the package")});
    const Ended ended = download(server.url("/a/p.dmg"));
    EXPECT_EQ(ended.result.statusCode, 200);
    EXPECT_EQ(ended.result.localizedDescription, "");
    EXPECT_EQ(ended.content, "the package");
    EXPECT_EQ(ended.result.location.rfind(temporary.path() + "/", 0), 0u);
    EXPECT_NE(ended.thread, std::this_thread::get_id());
    EXPECT_EQ(server.request().rfind("GET /a/p.dmg HTTP/1.1\r\n", 0), 0u);
}

TEST_F(UrlSessionTest, TheTemporaryFileIsGoneAfterTheCompletion) {
    AnswerServer server({answer("200 OK", "", "the package")});
    download(server.url("/p.dmg"));
    EXPECT_TRUE(testsupport::comesTrue([this] { return fs::is_empty(temporary.path()); }));
}

TEST_F(UrlSessionTest, TheTemporaryFileIsNotInheritedByAProgram) {
    testsupport::LoopbackListener listener;
    std::thread serving([&] {
        testsupport::Peer peer = listener.accept();
        peer.readUntil("\r\n\r\n");
        peer.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf ");
        EXPECT_TRUE(testsupport::comesTrue([this] { return !fs::is_empty(temporary.path()); }));
        for (const auto& [number, target] : testsupport::handedDown())
            EXPECT_NE(fs::path(target).parent_path(), temporary.path());
        peer.send("whole");
    });
    const Ended ended = download("http://127.0.0.1:" + std::to_string(listener.port()) + "/p.dmg");
    serving.join();
    EXPECT_EQ(ended.content, "half whole");
}

TEST_F(UrlSessionTest, AnEmptyFileIsFetchedToo) {
    AnswerServer server({answer("200 OK", "", "")});
    const Ended ended = download(server.url("/p.dmg"));
    EXPECT_EQ(ended.result.statusCode, 200);
    EXPECT_NE(ended.result.location, "");
    EXPECT_EQ(ended.content, "");
}

TEST_F(UrlSessionTest, AnErrorPageComesWithItsStatusAndNoError) {
    AnswerServer server({answer("404 Not Found", "", "not here")});
    const Ended ended = download(server.url("/p.dmg"));
    EXPECT_EQ(ended.result.statusCode, 404);
    EXPECT_EQ(ended.result.localizedDescription, "");
    EXPECT_EQ(ended.content, "not here");
}

TEST_F(UrlSessionTest, NobodyListeningGivesNoResponse) {
    expectNoResponse(download("http://127.0.0.1:" + std::to_string(testsupport::freePort()) + "/p.dmg"));
}

TEST_F(UrlSessionTest, ATransferLeavesNoDescriptorBehind) {
    const std::string nobody = "http://127.0.0.1:" + std::to_string(testsupport::freePort()) + "/x";
    download(nobody); // loads the library
    const auto before = testsupport::descriptorsOf(getpid()).size();
    download(nobody);
    upload(nobody, "PUT", "data");
    EXPECT_EQ(testsupport::descriptorsOf(getpid()).size(), before);
}

TEST_F(UrlSessionTest, ATextThatIsNoUrlOfTheWebGivesNoResponse) {
    for (const char* url : {"ul", "", "http://", "ftp://127.0.0.1/p.dmg", "file:///etc/hostname"})
        expectNoResponse(download(url));
}

TEST_F(UrlSessionTest, AConnectionCutInTheMiddleGivesTheStatusAndAnErrorButNoFile) {
    AnswerServer server({"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nthe beginning"});
    const Ended ended = download(server.url("/p.dmg"));
    EXPECT_EQ(ended.result.statusCode, 200);
    EXPECT_EQ(ended.result.location, "");
    EXPECT_NE(ended.result.localizedDescription, "");
    EXPECT_TRUE(testsupport::comesTrue([this] { return fs::is_empty(temporary.path()); }));
}

TEST_F(UrlSessionTest, AServerThatFallsSilentIsGivenUp) {
    ManualClock::installed().setEventWait(50000, false);
    AnswerServer server({"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n"},
                        AnswerServer::Afterwards::stalls);
    const Ended ended = download(server.url("/p.dmg"));
    EXPECT_EQ(ended.result.location, "");
    EXPECT_NE(ended.result.localizedDescription, "");
}

TEST_F(UrlSessionTest, ARedirectIsFollowed) {
    AnswerServer server({answer("302 Found", "Location: /there\r\nConnection: close\r\n", ""),
                         answer("200 OK", "", "the package")});
    const Ended ended = download(server.url("/here"));
    EXPECT_EQ(ended.result.statusCode, 200);
    EXPECT_EQ(ended.content, "the package");
    EXPECT_EQ(server.requests().at(1).rfind("GET /there ", 0), 0u);
}

TEST_F(UrlSessionTest, ARedirectToAFileOfTheMachineIsNotFollowed) {
    AnswerServer server({answer("302 Found", "Location: file:///etc/hostname\r\n", "")});
    const Ended ended = download(server.url("/here"));
    EXPECT_EQ(ended.result.location, "");
    EXPECT_NE(ended.result.localizedDescription, "");
}

TEST_F(UrlSessionTest, EndlessRedirectsEnd) {
    const std::string again = answer("302 Found", "Location: /again\r\nConnection: close\r\n", "");
    AnswerServer server(std::vector<std::string>(17, again));
    const Ended ended = download(server.url("/again"));
    EXPECT_EQ(ended.result.location, "");
    EXPECT_NE(ended.result.localizedDescription, "");
}

TEST_F(UrlSessionTest, ACertificateThatNobodyTrustsIsRefused) {
    const testsupport::Certificate certificate("localhost");
    testsupport::TlsServer server(certificate, [](SSL*) {});
    expectNoResponse(download("https://127.0.0.1:" + std::to_string(server.port()) + "/p.dmg"));
    EXPECT_FALSE(server.finish());
}

TEST_F(UrlSessionTest, ACertificateOfTheSystemsStoreIsAcceptedForItsOwnHostNameAlone) {
    const testsupport::Certificate certificate("localhost");
    const auto result = testsupport::runWithPlayedFile(systemStore, certificate.certificateFile(), [&] {
        testsupport::TlsServer trusted(certificate, [](SSL* connection) {
            testsupport::tlsReadUntil(connection, "\r\n\r\n");
            testsupport::tlsSend(connection, answer("200 OK", "", "the package"));
        });
        EXPECT_EQ(download("https://localhost:" + std::to_string(trusted.port()) + "/p.dmg").content,
                  "the package");
        testsupport::TlsServer misnamed(certificate, [](SSL* connection) {
            EXPECT_EQ(testsupport::tlsReadUntil(connection, "\r\n\r\n"), "");
        });
        expectNoResponse(download("https://127.0.0.1:" + std::to_string(misnamed.port()) + "/p.dmg"));
    });
    if (result == testsupport::NamespaceResult::unavailable) GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(result, testsupport::NamespaceResult::passed);
}

TEST_F(UrlSessionTest, ATaskThatNoThreadCanBeMadeForEndsWithoutAResponse) {
    if (getuid() != 0) GTEST_SKIP() << "needs a user of its own to count threads for";
    EXPECT_TRUE(testsupport::passesInChild([this] {
        const auto lonelyUser = static_cast<uid_t>(60000 + getpid() % 5000);
        const rlimit one = {1, 1};
        ASSERT_EQ(setgid(lonelyUser), 0);
        ASSERT_EQ(setuid(lonelyUser), 0);
        ASSERT_EQ(setrlimit(RLIMIT_NPROC, &one), 0);
        const Ended ended = download("http://127.0.0.1:1/p.dmg");
        expectNoResponse(ended);
        EXPECT_EQ(ended.thread, std::this_thread::get_id());
        expectNoResponse(upload("http://127.0.0.1:1/", "POST", "x"));
    }));
}

TEST_F(UrlSessionTest, ALibraryThatCannotBeLoadedIsNamedAndAskedForAgain) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need descriptors of their own";
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const Ended refused = download("http://127.0.0.1:1/p.dmg");
    expectNoResponse(refused);
    EXPECT_NE(refused.result.localizedDescription.find("libcurl"), std::string::npos)
        << refused.result.localizedDescription;
    EXPECT_NE(upload("http://127.0.0.1:1/", "POST", "x").result.localizedDescription.find("libcurl"),
              std::string::npos);
    EXPECT_EQ(platform::lastPathComponent("http://host/a"), "");

    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    AnswerServer server({answer("200 OK", "", "the package")});
    EXPECT_EQ(download(server.url("/p.dmg")).content, "the package");
}

TEST_F(UrlSessionTest, ProxiesOfTheEnvironmentAreNotUsed) {
    setenv("http_proxy", "http://127.0.0.1:1", 1);
    setenv("all_proxy", "http://127.0.0.1:1", 1);
    AnswerServer server({answer("200 OK", "", "the package")});
    EXPECT_EQ(download(server.url("/p.dmg")).content, "the package");
}

TEST_F(UrlSessionTest, WithoutATemporaryDirectoryThereIsNoFile) {
    setenv("TMPDIR", temporary.file("none").c_str(), 1);
    expectNoResponse(download("http://127.0.0.1:1/p.dmg"));
}

TEST_F(UrlSessionTest, WithoutATemporaryDirectoryOfTheEnvironmentTheFileLiesInTheSystems) {
    for (const char* set : {"", static_cast<const char*>(nullptr)}) {
        if (set)
            setenv("TMPDIR", set, 1);
        else
            unsetenv("TMPDIR");
        AnswerServer server({answer("200 OK", "", "the package")});
        const Ended ended = download(server.url("/p.dmg"));
        EXPECT_EQ(ended.result.location.rfind("/tmp/fernhill-download-", 0), 0u) << ended.result.location;
        EXPECT_EQ(ended.content, "the package");
    }
}

TEST_F(UrlSessionTest, AFullDiskGivesTheStatusAndAnErrorButNoFile) {
    // The first body breaks off at a write, the second only when the file is closed.
    for (const std::size_t size : {200000u, 5000u}) {
        const auto result = testsupport::runOnSmallDisk(temporary.path(), 4096, [&] {
            AnswerServer server({answer("200 OK", "", std::string(size, 'x'))});
            const Ended ended = download(server.url("/p.dmg"));
            EXPECT_EQ(ended.result.statusCode, 200);
            EXPECT_EQ(ended.result.location, "");
            EXPECT_NE(ended.result.localizedDescription, "");
            EXPECT_TRUE(fs::is_empty(temporary.path()));
        });
        if (result == testsupport::NamespaceResult::unavailable) GTEST_SKIP() << "no mount namespace here";
        EXPECT_EQ(result, testsupport::NamespaceResult::passed) << size;
    }
}

TEST_F(UrlSessionTest, AnUploadSendsItsDataAndTellsTheStatus) {
    AnswerServer server({answer("201 Created", "", "thanks")});
    const Ended ended = upload(server.url("/report"), "POST", std::string("one\0two", 7));
    EXPECT_EQ(ended.result.statusCode, 201);
    EXPECT_EQ(ended.result.location, "");
    EXPECT_EQ(ended.result.localizedDescription, "");
    const std::string& request = server.request();
    EXPECT_EQ(request.rfind("POST /report HTTP/1.1\r\n", 0), 0u);
    EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), std::string("one\0two", 7));
    EXPECT_TRUE(fs::is_empty(temporary.path()));
}

TEST_F(UrlSessionTest, AnUploadOfNothingIsARequestWithAnEmptyBody) {
    AnswerServer server({answer("200 OK", "", "")});
    EXPECT_EQ(upload(server.url("/report"), "POST", "").result.statusCode, 200);
    EXPECT_NE(server.request().find("Content-Length: 0\r\n"), std::string::npos);
}

TEST_F(UrlSessionTest, AnUploadTakesTheMethodThatItIsGiven) {
    AnswerServer server({answer("200 OK", "", "")});
    upload(server.url("/report"), "PUT", "data");
    EXPECT_EQ(server.request().rfind("PUT /report HTTP/1.1\r\n", 0), 0u);
}

TEST_F(UrlSessionTest, APostThatIsSentElsewhereBecomesAGet) {
    AnswerServer server(
        {answer("302 Found", "Location: /there\r\nConnection: close\r\n", ""), answer("200 OK", "", "")});
    EXPECT_EQ(upload(server.url("/report"), "POST", "data").result.statusCode, 200);
    EXPECT_EQ(server.requests().at(1).rfind("GET /there ", 0), 0u);
}

TEST_F(UrlSessionTest, AnUploadThatReachesNobodyTellsAnError) {
    expectNoResponse(
        upload("http://127.0.0.1:" + std::to_string(testsupport::freePort()) + "/", "POST", "x"));
}

TEST_F(UrlSessionTest, TheMainLoopRunsUntilATaskHasEnded) {
    ManualClock::installed().setEventWait(10 * testsupport::patienceMicroseconds, false);
    auto run = std::async(std::launch::async, [this] {
        const auto begin = std::chrono::steady_clock::now();
        session.runMainLoop(1);
        return std::chrono::steady_clock::now() - begin;
    });
    while (run.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
        download("ul");
    EXPECT_LT(run.get(), testsupport::patience);
}

TEST_F(UrlSessionTest, ATextWithoutASchemeIsNotTakenForAHost) {
    const int port = testsupport::freePort();
    EXPECT_EQ(download("127.0.0.1:" + std::to_string(port) + "/p.dmg").result.localizedDescription,
              "unsupported URL");
    EXPECT_EQ(download("ul").result.localizedDescription, "unsupported URL");
}

TEST_F(UrlSessionTest, TheMainLoopSeesATaskThatEndedJustBefore) {
    ManualClock::installed().setEventWait(10 * testsupport::patienceMicroseconds, false);
    download("ul");
    const auto begin = std::chrono::steady_clock::now();
    session.runMainLoop(1);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, testsupport::patience);
}

TEST_F(UrlSessionTest, ATaskTellsOfItsEndUnderALockSoThatNoMainLoopMissesIt) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the lock functions";
    ManualClock::installed().setEventWait(10 * testsupport::patienceMicroseconds, false);
    static std::atomic<int> locked{0};
    // Made on the task's thread, which counts until its end.
    session.downloadTask("ul", [](const UrlTaskResult&) {
        auto* locks = new testsupport::LockCounter;
        locks->behindEachLock([] { ++locked; });
    });

    session.runMainLoop(1);

    EXPECT_EQ(locked, 1);
}

TEST_F(UrlSessionTest, TheMainLoopRunsNoLongerThanItIsToldTo) {
    ManualClock::installed().setEventWait(20000, false);
    const auto begin = std::chrono::steady_clock::now();
    session.runMainLoop(1);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
}

TEST(LastPathComponent, IsTheUnescapedNameBehindTheLastSlashOfThePath) {
    EXPECT_EQ(platform::lastPathComponent("http://host/OstlerUpdate.dmg"), "OstlerUpdate.dmg");
    EXPECT_EQ(platform::lastPathComponent("https://host:8443/a/b%20c.pkg?x=/y#z/w"), "b c.pkg");
    EXPECT_EQ(platform::lastPathComponent("http://host/a/b/"), "b");
    EXPECT_EQ(platform::lastPathComponent("http://host/a%2Fb"), "a/b");
    EXPECT_EQ(platform::lastPathComponent("http://host/a%00b"), std::string("a\0b", 3));
}

TEST(LastPathComponent, NamesNothingForTheRootAndForNoUrl) {
    EXPECT_EQ(platform::lastPathComponent("http://host/"), "/");
    EXPECT_EQ(platform::lastPathComponent("http://host//"), "/");
    EXPECT_EQ(platform::lastPathComponent(""), "");
    EXPECT_EQ(platform::lastPathComponent("ul"), "");
}
