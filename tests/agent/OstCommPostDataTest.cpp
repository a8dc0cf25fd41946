#include "agent/OstComm.h"

#include "platform/UrlSession.h"
#include "support/AgentLinkWorld.h"
#include "support/AnswerServer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedUrlSession.h"

#include <gtest/gtest.h>

#include <string>

using testsupport::AnswerServer;
using testsupport::PlayedUrlSession;

namespace {

class OstCommPostDataTest : public testing::Test {
protected:
    OstCommPostDataTest() {
        world.startAgent();
        OstComm::Instance();
        testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    }

    static bool post(const std::string& url, std::string body) {
        return OstComm::Instance()->postDataUrl(url.c_str(), body.data());
    }

    testsupport::AgentLinkWorld world;
};

} // namespace

TEST_F(OstCommPostDataTest, TheBodyGoesOutByPost) {
    PlayedUrlSession& session = PlayedUrlSession::install();
    EXPECT_FALSE(post("http://host/report", "{\"a\":1}"));
    const auto task = session.await(1);
    EXPECT_EQ(task.url, "http://host/report");
    EXPECT_EQ(task.method, "POST");
    EXPECT_EQ(task.data, "{\"a\":1}");
    EXPECT_TRUE(world.log.holds("postDataUrl size is 7 body is {\"a\":1} strbody {\"a\":1}"));
}

TEST_F(OstCommPostDataTest, AFailureThatComesLaterIsOnlyLogged) {
    PlayedUrlSession& session = PlayedUrlSession::install();
    EXPECT_FALSE(post("http://host/report", "x"));
    session.end(1, {{}, 500, {}});
    EXPECT_TRUE(world.log.holds("postDataUrl server error: (null)"));
    session.end(1, {{}, 0, "could not connect"});
    EXPECT_TRUE(world.log.holds("postDataUrl server error: could not connect"));
}

TEST_F(OstCommPostDataTest, AFailureThatIsThereAtOnceIsAnswered) {
    PlayedUrlSession::install().endAll({{}, 300, {}});
    EXPECT_TRUE(post("http://host/report", "x"));
}

TEST_F(OstCommPostDataTest, EveryStatusFrom200To299IsASuccess) {
    PlayedUrlSession& session = PlayedUrlSession::install();
    session.endAll({{}, 200, {}});
    EXPECT_FALSE(post("http://host/report", "x"));
    session.endAll({{}, 299, {}});
    EXPECT_FALSE(post("http://host/report", "x"));
    session.endAll({{}, 199, {}});
    EXPECT_TRUE(post("http://host/report", "x"));
    EXPECT_EQ(world.log.countContaining("postDataUrl server error"), 1);
}

TEST_F(OstCommPostDataTest, ABodyThatIsNotAsciiGivesNoData) {
    PlayedUrlSession& session = PlayedUrlSession::install();
    post("http://host/report", "caf\xC3\xA9");
    EXPECT_EQ(session.await(1).data, "");
    EXPECT_TRUE(world.log.holds("postDataUrl size is 0 body is caf\xC3\xA9 strbody (null)"));
}

TEST_F(OstCommPostDataTest, ARealServerGetsTheBody) {
    platform::urlSessionService.install(platform::urlSessionService.backend());
    AnswerServer server({"HTTP/1.1 204 No Content\r\n\r\n"});
    EXPECT_FALSE(post(server.url("/report"), "some text"));
    const std::string& request = server.request();
    EXPECT_EQ(request.rfind("POST /report HTTP/1.1\r\n", 0), 0u);
    EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), "some text");
}
