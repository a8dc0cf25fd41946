// How a URL is taken apart.

#include "gp/GPHTTP.h"
#include "gp/GPString.h"
#include "support/AnswerServer.h"
#include "support/HTTPRequestWorld.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using testsupport::AnswerServer;
using testsupport::ManualClock;

class GPHTTPUrl : public testsupport::HTTPRequestWorld {
protected:
    // The host that a request for the URL looks up; nothing listens there.
    std::string hostOf(const char* url) {
        GPHTTP request(url);
        request.setPort(closedPort_);
        request.startSync();
        return names_.asked().empty() ? "(none)" : names_.asked().back();
    }

    // The port that the URL gives.
    static int portOf(const char* url) { return GPHTTP(url).port(); }
};

TEST_F(GPHTTPUrl, AUrlWithoutASchemeHasPort80AndTheHostBeforeTheFirstSlash) {
    EXPECT_EQ(portOf("server.test/path"), 80);
    EXPECT_EQ(hostOf("server.test/path"), "server.test");
}

TEST_F(GPHTTPUrl, EachKnownSchemeHasItsPort) {
    EXPECT_EQ(portOf("https://server.test/"), 443);
    EXPECT_EQ(portOf("http://server.test/"), 80);
    EXPECT_EQ(portOf("ftp://server.test/"), 22);
    EXPECT_EQ(portOf("smtp://server.test/"), 25);
    EXPECT_EQ(portOf("imap://server.test/"), 142);
    EXPECT_EQ(portOf("pop://server.test/"), 110);
    EXPECT_EQ(portOf("ssh://server.test/"), 22);
}

TEST_F(GPHTTPUrl, AnUnknownSchemeLeavesPort80) {
    EXPECT_EQ(portOf("gopher://server.test/"), 80);
    EXPECT_EQ(portOf("HTTPS://server.test/"), 80);
    EXPECT_EQ(hostOf("gopher://server.test/"), "server.test");
}

TEST_F(GPHTTPUrl, APortInTheUrlCountsOverTheSchemes) {
    EXPECT_EQ(portOf("https://server.test:8443/x"), 8443);
    EXPECT_EQ(portOf("server.test:8080/x"), 8080);
    EXPECT_EQ(hostOf("server.test:8080/x"), "server.test");
    EXPECT_EQ(portOf("http://server.test:abc/x"), -1);
}

TEST_F(GPHTTPUrl, APortWithoutAPathStaysInsideTheHost) {
    EXPECT_EQ(portOf("http://server.test:8080"), 80);
    EXPECT_EQ(hostOf("http://server.test:8080"), "server.test:8080");
}

TEST_F(GPHTTPUrl, AQueryWithoutASlashBehindTheSchemeIsAllHost) {
    EXPECT_EQ(hostOf("http://server.test?q=1"), "server.test?q=1");
}

TEST_F(GPHTTPUrl, TextsThatAreHardlyUrlsAreTakenApartToo) {
    const std::vector<std::pair<const char*, const char*>> hosts = {
        {"", ""},       {"/", "/"},      {":", ":"},   {":/", ""},   {"a:/", ""},    {"a:/x", ""},
        {"http:/", ""}, {"http://", ""}, {"//", "//"}, {"a:", "a:"}, {"a:b", "a:b"}, {"http:///x", "/x"}};
    for (const auto& [url, host] : hosts)
        EXPECT_EQ(hostOf(url), host) << url;
    EXPECT_EQ(hostOf(nullptr), "");
}

TEST_F(GPHTTPUrl, WithoutAPathASlashIsAskedFor) {
    AnswerServer server({"x"});
    GPHTTP request("http://127.0.0.1");
    request.setPort(server.port());
    request.startSync();
    EXPECT_EQ(server.request(), get("/"));
}

TEST_F(GPHTTPUrl, ANewUrlPutsEverythingElseBackToItsStart) {
    AnswerServer server({"HTTP/1.1 404 No\r\nName: value\r\n\r\nold", "no answer to read"});
    GPHTTP request(server.url("/old").c_str());
    request.setUserAgent("agent");
    request.addPostValue("field", "value");
    request.addHeader("Extra", "value");
    request.setTimeout(33);
    request.startSync();
    ASSERT_EQ(request.responseCode(), 404);
    ASSERT_STREQ(request.IPAddress(), "127.0.0.1");

    request.setURL("http://127.0.0.1/new");

    EXPECT_EQ(request.port(), 80);
    EXPECT_EQ(request.responseLength(), 0);
    EXPECT_EQ(request.responseString(), nullptr);
    EXPECT_EQ(request.responseCode(), 0);
    EXPECT_EQ(request.responseHeader("Name"), nullptr);
    EXPECT_EQ(request.IPAddress(), nullptr);
    request.setPort(server.port());
    request.startSync();
    EXPECT_EQ(server.requests().back(), get("/new"));
    EXPECT_EQ(request.responseCode(), 0);
    EXPECT_EQ(request.responseHeader("Name"), nullptr);
}

TEST_F(GPHTTPUrl, ANewUrlWaitsFiveSecondsAgain) {
    ManualClock::installed().setEventWait(0, true);
    AnswerServer server({""}, AnswerServer::Afterwards::stalls);
    GPHTTP request(server.url("/").c_str());
    request.setTimeout(33);
    request.setURL(server.url("/").c_str());
    ManualClock::installed().setEventWait(200000, true);
    const auto before = ManualClock::installed().seconds();
    request.startSync();
    EXPECT_EQ((ManualClock::installed().seconds() - before) % 5, 0);
    EXPECT_GT(ManualClock::installed().seconds(), before);
    EXPECT_LE(ManualClock::installed().seconds() - before, 10) << "one wait to send, one to read";
}

TEST_F(GPHTTPUrl, CanBeATextOfTheAnswerThatItReplaces) {
    AnswerServer server({"HTTP/1.1 302 Found\r\nLocation: http://server.test:8080/a/place\r\n\r\nmoved"});
    GPHTTP request(server.url("/").c_str());
    request.startSync();
    request.setURL(request.responseHeader("Location")->cstr());
    EXPECT_EQ(request.port(), 8080);
    request.setPort(closedPort_);
    request.startSync();
    EXPECT_EQ(names_.asked().back(), "server.test");
}

} // namespace
