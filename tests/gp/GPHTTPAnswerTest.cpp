// What the accessors make of an answer.

#include "gp/GPData.h"
#include "gp/GPHTTP.h"
#include "support/AnswerServer.h"
#include "support/HTTPRequestWorld.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testsupport::AnswerServer;
using testsupport::bytesOf;
using testsupport::headerOf;
using testsupport::textOf;

// A finished exchange whose answer the test chose.
class GPHTTPAnswer : public testsupport::HTTPRequestWorld {
protected:
    GPHTTP& answeredWith(const std::string& answer) {
        AnswerServer server({answer});
        request_.setURL(server.url("/").c_str());
        request_.startSync();
        return request_;
    }

    GPHTTP request_{""};
};

TEST_F(GPHTTPAnswer, ARedirectIsNotFollowed) {
    GPHTTP& request = answeredWith("HTTP/1.1 302 Found\r\nLocation: http://server.test/\r\n\r\nmoved");
    EXPECT_EQ(request.responseCode(), 302);
    EXPECT_EQ(headerOf(request, "Location"), "http://server.test/");
    EXPECT_EQ(names_.asked(), std::vector<std::string>{"127.0.0.1"}) << "nobody was asked again";
}

TEST_F(GPHTTPAnswer, AChunkedAnswerIsPutTogetherInTheTextButNotInTheData) {
    const std::string framed = "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n";
    GPHTTP& request = answeredWith("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + framed);
    EXPECT_EQ(textOf(request.responseString()), "hello world");
    EXPECT_EQ(bytesOf(request.responseData()), framed);
}

TEST_F(GPHTTPAnswer, AnEmptyBodyGivesTheWholeAnswerAsText) {
    const std::string answer = "HTTP/1.1 200 OK\r\nServer: x\r\n\r\n";
    GPHTTP& request = answeredWith(answer);
    EXPECT_EQ(textOf(request.responseString()), answer);
    EXPECT_EQ(bytesOf(request.responseData()), "");
    EXPECT_EQ(request.responseLength(), static_cast<int>(answer.size()));
}

TEST_F(GPHTTPAnswer, AnAnswerWithoutAHeaderBlockIsAllText) {
    GPHTTP& request = answeredWith("HTTP/1.1 200 OK\r\nServer: x\r\n");
    EXPECT_EQ(request.responseCode(), 200) << "the status is read all the same";
    EXPECT_FALSE(answeredWith("HTTP/1.1 200 OK\r\nServer: x\r\n").parseResponse());
    EXPECT_TRUE(request.parseResponse()) << "the headers have been made, if empty";
    EXPECT_EQ(textOf(request.responseString()), "HTTP/1.1 200 OK\r\nServer: x\r\n");
    EXPECT_EQ(bytesOf(request.responseData()), "HTTP/1.1 200 OK\r\nServer: x\r\n");
}

TEST_F(GPHTTPAnswer, DataThatDoesNotBeginAsHttpIsGivenWhole) {
    EXPECT_EQ(bytesOf(answeredWith("ICY 200 OK\r\n\r\nmusic").responseData()), "ICY 200 OK\r\n\r\nmusic");
    EXPECT_EQ(bytesOf(answeredWith("HTTP/1.0 200 OK\r\n\r\nmusic").responseData()), "music");
}

TEST_F(GPHTTPAnswer, TheDataOutlivesTheRequest) {
    auto* request = new GPHTTP("");
    AnswerServer server({"raw"});
    request->setURL(server.url("/").c_str());
    request->startSync();
    GPData* raw = request->responseData();
    request->release();
    EXPECT_EQ(bytesOf(raw), "raw");
}

TEST_F(GPHTTPAnswer, PiecesOfALargeAnswerArePutTogether) {
    std::string body;
    while (body.size() < 3000000)
        body += "line " + std::to_string(body.size()) + "\n";
    EXPECT_TRUE(bytesOf(answeredWith("HTTP/1.1 200 OK\r\n\r\n" + body).responseData()) == body);
}

} // namespace
