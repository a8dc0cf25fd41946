#include "gp/GPHTTP.h"

#include "gp/GPAutoReleasePool.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "support/AnswerServer.h"
#include "support/HTTPRequestWorld.h"
#include "support/ManualClock.h"
#include "support/NetworkNamespace.h"
#include "support/TemporaryFolder.h"
#include "support/WebServer.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

namespace {

using testsupport::AnswerServer;
using testsupport::bytesOf;
using testsupport::defaultAgent;
using testsupport::headerOf;
using testsupport::ManualClock;
using testsupport::NamespaceResult;
using testsupport::textOf;

class GPHTTPRequest : public testsupport::HTTPRequestWorld {};

TEST_F(GPHTTPRequest, AGetIsWrittenFromItsTemplate) {
    AnswerServer server({"HTTP/1.1 200 OK\r\n\r\nbody"});
    GPHTTP request(server.url("/a/b?c=d").c_str());
    request.startSync();
    EXPECT_EQ(server.request(), get("/a/b?c=d"));
    EXPECT_STREQ(request.IPAddress(), "127.0.0.1");
}

TEST_F(GPHTTPRequest, TheOtherMethodsHaveTheirTemplates) {
    AnswerServer server({"x", "x"});
    GPHTTP request(server.url("/p").c_str());
    request.setHTTPMethod(GPHTTPMethodHead);
    request.startSync();
    request.setHTTPMethod(GPHTTPMethodDelete);
    request.startSync();
    const std::string rest =
        " /p HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: " + defaultAgent + "\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(server.requests(), (std::vector<std::string>{"HEAD" + rest, "DELETE" + rest}));
}

TEST_F(GPHTTPRequest, MethodsHaveTheirNumbers) {
    EXPECT_EQ(GPHTTPMethodGet, 0);
    EXPECT_EQ(GPHTTPMethodPost, 1);
    EXPECT_EQ(GPHTTPMethodPut, 2);
    EXPECT_EQ(GPHTTPMethodHead, 3);
    EXPECT_EQ(GPHTTPMethodDelete, 4);
}

TEST_F(GPHTTPRequest, HeadersGoOutWithABlankBeforeTheColon) {
    AnswerServer server({"x"});
    GPHTTP request(server.url("/").c_str());
    request.addHeader("X-One", "first");
    request.addHeader("X-One", "second");
    request.startSync();
    EXPECT_EQ(server.request(), get("/", "X-One : second\r\n"));
}

TEST_F(GPHTTPRequest, AFormFieldMakesAPostWithItsLength) {
    AnswerServer server({"x"});
    GPHTTP request(server.url("/form").c_str());
    request.addPostValue("name", "a b&c");
    request.startSync();
    EXPECT_EQ(server.request(), "POST /form HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: " + defaultAgent +
                                    "\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                                    "Content-Length: 10\r\nConnection: close\r\n\r\nname=a b&c");
}

TEST_F(GPHTTPRequest, APostWithoutFieldsHasAnEmptyBody) {
    AnswerServer server({"x"});
    GPHTTP request(server.url("/form").c_str());
    request.setHTTPMethod(GPHTTPMethodPost);
    request.startSync();
    const std::string sent = server.request();
    EXPECT_EQ(sent.substr(0, 11), "POST /form ");
    EXPECT_NE(sent.find("\r\nContent-Length: 0\r\n"), std::string::npos);
    EXPECT_EQ(sent.substr(sent.find("\r\n\r\n")), "\r\n\r\n");
}

TEST_F(GPHTTPRequest, OfAFormWithMoreFieldsOnlyTheFirstKeyOfTheMapGoesOut) {
    AnswerServer server({"x"});
    GPHTTP request(server.url("/form").c_str());
    GPMap sameFields;
    for (const char* name : {"one", "two"}) {
        request.addPostValue(name, "v");
        request.addHeader(name, "h");
        sameFields.setObject(new GPString("v"), name);
    }
    const std::string first = sameFields.firstKey();
    request.startSync();
    const std::string& sent = server.request();
    EXPECT_EQ(sent.substr(sent.find("\r\n\r\n")), "\r\n\r\n" + first + "=v");
}

TEST_F(GPHTTPRequest, APutSendsNothingAndSaysSoInTheLog) {
    AnswerServer server({"never read"});
    GPHTTP request(server.url("/").c_str());
    request.uploadFile("name", "/no/file");
    request.addPostValue("name", "value");
    request.startSync();
    EXPECT_EQ(server.request(), "");
    EXPECT_TRUE(log_.holds("ERROR: GPHTTP PUT request not supported."));
    EXPECT_EQ(request.responseLength(), 0);
}

TEST_F(GPHTTPRequest, MissingNamesAndValuesAreIgnored) {
    AnswerServer server({"x"});
    GPHTTP request(server.url("/").c_str());
    request.addHeader(nullptr, "v");
    request.addHeader("n", nullptr);
    request.startSync();
    EXPECT_EQ(server.request(), get("/"));
}

TEST_F(GPHTTPRequest, AUserAgentOfItsOwnReplacesTheDefault) {
    AnswerServer server({"x", "x", "x"});
    GPHTTP request(server.url("/").c_str());
    request.setUserAgent("mine/1");
    request.startSync();
    request.setUserAgent(nullptr);
    GPHTTP::setDefaultUserAgent("ours/2");
    request.startSync();
    GPHTTP::setDefaultUserAgent(defaultAgent.c_str());
    request.startSync();
    EXPECT_NE(server.requests()[0].find("User-Agent: mine/1\r\n"), std::string::npos);
    EXPECT_NE(server.requests()[1].find("User-Agent: ours/2\r\n"), std::string::npos);
    EXPECT_EQ(server.requests()[2], get("/"));
}

TEST_F(GPHTTPRequest, WithoutAnAnswerEveryAccessorIsEmpty) {
    GPHTTP request("http://nobody.test/");
    request.startSync();
    EXPECT_TRUE(log_.holds("WARNING: Socket open error in GPHTTP."));
    EXPECT_EQ(request.responseCode(), 0);
    EXPECT_EQ(textOf(request.responseString()), "(null)");
    EXPECT_EQ(bytesOf(request.responseData()), "(null)");
    EXPECT_EQ(request.responseLength(), 0);
    EXPECT_EQ(request.responseHeader("Server"), nullptr);
    EXPECT_EQ(request.IPAddress(), nullptr);
    EXPECT_FALSE(request.parseResponse());
}

TEST_F(GPHTTPRequest, ARefusedConnectionIsLoggedAsAFailedSend) {
    GPHTTP request("http://server.test/");
    request.setPort(closedPort_);
    request.startSync();
    EXPECT_TRUE(log_.holds("Info: GPHTTP socket send failed."));
    EXPECT_EQ(request.responseCode(), 0);
}

TEST_F(GPHTTPRequest, AFailedConnectionLeavesTheOldAnswer) {
    AnswerServer server({"HTTP/1.1 200 OK\r\n\r\nold"});
    GPHTTP request(server.url("/").c_str());
    request.startSync();
    names_.forget("127.0.0.1", AF_INET);
    request.startSync();
    EXPECT_EQ(textOf(request.responseString()), "old");
}

TEST_F(GPHTTPRequest, ASecondRunReplacesTheAnswerButKeepsCodeAndHeadersUntilSetURL) {
    AnswerServer server(
        {"HTTP/1.1 200 OK\r\nA: 1\r\n\r\nfirst", "HTTP/1.1 404 No\r\nA: 2\r\n\r\nsecond", "none"});
    const std::string url = server.url("/");
    GPHTTP request(url.c_str());
    request.startSync();
    EXPECT_EQ(request.responseCode(), 200);
    request.startSync();
    EXPECT_EQ(textOf(request.responseString()), "second");
    EXPECT_EQ(request.responseCode(), 200);
    EXPECT_EQ(headerOf(request, "A"), "1");
    request.setURL(url.c_str());
    EXPECT_EQ(request.responseCode(), 0);
    EXPECT_EQ(request.responseLength(), 0);
    EXPECT_EQ(request.IPAddress(), nullptr);
    request.startSync();
    EXPECT_EQ(request.responseCode(), 0);
}

// The wait for room for the request and the one for the answer end with what they wait for; any other plays its whole
// limit in no time.
void keepWaitingForOneAnswer() {
    ManualClock::installed().setEventWait(0, true);
    ManualClock::installed().keepWaiting(2);
}

TEST_F(GPHTTPRequest, ASilentServerEndsTheReadingWithWhatHasCome) {
    const auto before = ManualClock::installed().seconds();
    AnswerServer server({"HTTP/1.1 200 OK\r\n\r\npart"}, AnswerServer::Afterwards::stalls);
    keepWaitingForOneAnswer();
    GPHTTP request(server.url("/").c_str());
    request.setTimeout(7);
    request.startSync();
    EXPECT_EQ(textOf(request.responseString()), "part");
    EXPECT_GE(ManualClock::installed().seconds() - before, 7);
    EXPECT_EQ((ManualClock::installed().seconds() - before) % 7, 0) << "7 seconds for each wait";
}

TEST_F(GPHTTPRequest, HttpsWithAnotherPortGoesOutInPlainText) {
    AnswerServer server({"HTTP/1.1 200 OK\r\n\r\nplain"});
    GPHTTP request(("https://127.0.0.1:" + std::to_string(server.port()) + "/").c_str());
    EXPECT_EQ(request.port(), server.port());
    request.startSync();
    EXPECT_EQ(server.request(), get("/"));
}

TEST_F(GPHTTPRequest, HttpsWithoutAPortUsesPort443AndTls) {
    const auto result = testsupport::runInNetworkNamespace([] {
        const testsupport::Certificate certificate("server.test");
        certificate.trust();
        testsupport::WebServer server(80, 443, certificate);
        GPHTTP request("https://server.test/index.html");
        EXPECT_EQ(request.port(), 443);
        request.startSync();
        EXPECT_EQ(request.responseCode(), 200);
        EXPECT_EQ(textOf(request.responseString()), "<p>index</p>\n");
        EXPECT_EQ(server.accessLog(), "GET /index.html 200 " + defaultAgent + " https\n");
    });
    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no network namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

TEST_F(GPHTTPRequest, HttpsToAnUntrustedServerGivesNoAnswer) {
    const auto result = testsupport::runInNetworkNamespace([] {
        const testsupport::Certificate certificate("server.test");
        testsupport::trustNobody();
        testsupport::WebServer server(80, 443, certificate);
        EXPECT_FALSE(GPHTTP::checkIfExist("https://server.test/index.html"));
        EXPECT_TRUE(GPHTTP::checkIfExist("http://server.test/index.html"));
        EXPECT_EQ(server.accessLog(), "HEAD /index.html 200 " + defaultAgent + " http\n");
    });
    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no network namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

struct Completed {
    int code;
    int referencesLeft;
};
std::promise<Completed> completed;

// Gives the caller's reference back; the exchange must still have its own.
void* tellAndRelease(GPHTTP* request) {
    const int code = request->responseCode();
    completed.set_value({code, request->release()});
    return nullptr;
}

TEST_F(GPHTTPRequest, StartAsyncRunsOnAnotherThreadAndKeepsTheRequestAlive) {
    completed = std::promise<Completed>();
    AnswerServer server({"HTTP/1.1 204 No Content\r\n\r\n"});
    auto* request = new GPHTTP(server.url("/").c_str());
    request->startAsync(tellAndRelease);
    const Completed end = completed.get_future().get();
    EXPECT_EQ(end.code, 204);
    EXPECT_EQ(end.referencesLeft, 1);
}

TEST_F(GPHTTPRequest, RequestWithURLIsTheCallersOrThePools) {
    auto* mine = GPHTTP::requestWithURL("http://server.test/", false);
    EXPECT_EQ(mine->release(), GPObject::destroyedMark) << "the count was 1";
    auto* pool = new GPAutoReleasePool;
    auto* pooled = GPHTTP::requestWithURL("http://server.test/", true);
    EXPECT_EQ(pooled->retainonly(), 3);
    EXPECT_EQ(pooled->release(), 2);
    pool->drain();
}

TEST_F(GPHTTPRequest, CheckIfExistIsTrueForStatus200Alone) {
    AnswerServer server({"HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 204 No\r\n\r\n", "HTTP/1.1 404 No\r\n\r\n"});
    const std::string url = server.url("/ping");
    EXPECT_TRUE(GPHTTP::checkIfExist(url.c_str()));
    EXPECT_FALSE(GPHTTP::checkIfExist(url.c_str()));
    EXPECT_FALSE(GPHTTP::checkIfExist(url.c_str()));
    EXPECT_EQ(server.requests()[0].substr(0, 10), "HEAD /ping");
    EXPECT_FALSE(GPHTTP::checkIfExist("http://nobody.test/"));
}

TEST_F(GPHTTPRequest, GetTextRequestGivesTheBody) {
    AnswerServer server({"HTTP/1.1 200 OK\r\n\r\nthe text"});
    EXPECT_EQ(textOf(GPHTTP::getTextRequest(server.url("/").c_str())), "the text");
    EXPECT_EQ(textOf(GPHTTP::getTextRequest("http://nobody.test/")), "(null)");
}

TEST_F(GPHTTPRequest, DownloadFileReplacesTheFileWithTheBodysBytes) {
    const testsupport::TemporaryFolder folder;
    const std::string path = folder.file("download");
    testsupport::writeAll(path, "something longer that was there before");
    const std::string body("zip\0bytes", 9);
    AnswerServer server({"HTTP/1.1 200 OK\r\n\r\n" + body});
    auto* pool = new GPAutoReleasePool;
    EXPECT_TRUE(GPHTTP::downloadFile(server.url("/").c_str(), path.c_str()));
    EXPECT_EQ(testsupport::readAll(path), body);
    EXPECT_FALSE(GPHTTP::downloadFile("http://nobody.test/", path.c_str()));
    EXPECT_EQ(testsupport::readAll(path), body);
    pool->drain();
}

TEST_F(GPHTTPRequest, DownloadFileWaitsTwentySeconds) {
    const testsupport::TemporaryFolder folder;
    AnswerServer server({"HTTP/1.1 200 OK\r\n\r\npart"}, AnswerServer::Afterwards::stalls);
    keepWaitingForOneAnswer();
    auto* pool = new GPAutoReleasePool;
    const auto before = ManualClock::installed().seconds();
    EXPECT_TRUE(GPHTTP::downloadFile(server.url("/").c_str(), folder.file("f").c_str()));
    EXPECT_GE(ManualClock::installed().seconds() - before, 20);
    EXPECT_EQ((ManualClock::installed().seconds() - before) % 20, 0);
    pool->drain();
}

} // namespace
