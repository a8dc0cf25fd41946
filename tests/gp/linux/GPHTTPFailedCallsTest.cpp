// HTTP exchanges of which one system call of the client fails, each call in turn.

#include "support/HTTPRequestWorld.h"
#include "support/ProcessDescriptors.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"
#include "support/TracedCalls.h"

#include <unistd.h>

#include <filesystem>

using testsupport::beginCalls;
using testsupport::descriptorsOf;
using testsupport::endCalls;
using testsupport::readAll;
using testsupport::writeAll;

namespace {

const std::string body(5000, 'b');

class GPHTTPFailedCalls : public testsupport::HTTPRequestWorld {
protected:
    void SetUp() override {
        if (!testsupport::canFailCalls())
            GTEST_SKIP() << "no child can be traced here, or a checker needs its calls";
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(listener_.port()) + "/file"; }

    // Runs `exchange` with each of its calls failing in turn, and `lookAt` behind it. The server has a process of its
    // own. No descriptor is left over, and the same exchange works when nothing fails.
    long failEachCallOf(const std::function<bool()>& exchange, const std::function<void(bool)>& lookAt) {
        const testsupport::EndlessChild server([this] { serve(); });
        return testsupport::failEachCall([&] {
            const auto descriptors = descriptorsOf(getpid());
            beginCalls();
            const bool done = exchange();
            endCalls();
            EXPECT_EQ(descriptorsOf(getpid()), descriptors);
            lookAt(done);
            EXPECT_TRUE(exchange());
        });
    }

    testsupport::LoopbackListener listener_;
    testsupport::TemporaryFolder folder_;

private:
    void serve() {
        for (;;) {
            testsupport::Peer peer = listener_.accept();
            peer.readUntil("\r\n\r\n");
            peer.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                      body);
        }
    }
};

TEST_F(GPHTTPFailedCalls, OfAGetGiveTheWholeBodyAPartOfItOrNone) {
    std::string text;
    const long failures = failEachCallOf(
        [&] {
            GPHTTP request(url().c_str());
            request.startSync();
            text = testsupport::textOf(request.responseString());
            return text != "(null)";
        },
        [&](bool done) { EXPECT_TRUE(!done || body.compare(0, text.size(), text) == 0) << text; });
    EXPECT_GE(failures, 8);
}

TEST_F(GPHTTPFailedCalls, OfADownloadNeverLetAPartOfTheFilePassForTheWhole) {
    const std::string file = folder_.file("file");
    const long failures = failEachCallOf([&] { return GPHTTP::downloadFile(url().c_str(), file.c_str()); },
                                         [&](bool done) {
                                             EXPECT_TRUE(!done || readAll(file) == body)
                                                 << readAll(file).size();
                                             std::filesystem::remove(file);
                                         });
    EXPECT_GE(failures, 10);
}

} // namespace
