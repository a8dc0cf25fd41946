// A transfer whose memory runs out at each allocation in turn.

#include "platform/linux/UrlTransfer.h"

#include "support/FailedAllocations.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using platform::UrlTaskResult;
using platform::UrlTransfer;

namespace {

class UrlTransferMemory : public testing::Test {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checkers have an allocator of their own";
        setenv("TMPDIR", folder_.path().c_str(), 1);
        testsupport::ManualClock::installed().setEventWait(1000000, false);
        const UrlTransfer first(
            "http://127.0.0.1:1/"); // has the library made ready, which allocates the most
    }

    testsupport::TemporaryFolder folder_;
};

TEST_F(UrlTransferMemory, ThatRunsOutInADownloadEndsTheProcessOrGivesAnErrorAndNoFile) {
    testsupport::LoopbackListener listener;
    const testsupport::EndlessChild server([&] {
        for (;;) {
            testsupport::Peer peer = listener.accept();
            peer.readUntil("\r\n\r\n");
            peer.send("HTTP/1.1 200 OK\r\nContent-Length: 7\r\nConnection: close\r\n\r\npackage");
        }
    });
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/p.dmg";
    UrlTaskResult result;
    const auto runs =
        testsupport::failEachAllocation([] {}, [&] { result = UrlTransfer(url.c_str()).download(); },
                                        [&] {
                                            if (result.localizedDescription.empty())
                                                EXPECT_EQ(testsupport::readAll(result.location), "package");
                                            else
                                                EXPECT_EQ(result.location, "");
                                        },
                                        [] { return std::string(); });
    EXPECT_GT(runs.survived, 10);
}

TEST_F(UrlTransferMemory, ThatRunsOutEndsTheProcessOrGivesNoLastPathComponent) {
    std::string name;
    const auto runs = testsupport::failEachAllocation(
        [] {},
        [&] {
            name = platform::lastPathComponent("http://host/a%20name%20that%20is%20longer%20than%20short");
        },
        [&] { EXPECT_EQ(name, ""); }, [] { return std::string(); });
    EXPECT_GT(runs.survived, 2);
}

} // namespace
