// A line of the log and an HTTP exchange whose memory runs out at each allocation in turn.

#include "gp/GPLog.h"

#include "support/FailedAllocations.h"
#include "support/HTTPRequestWorld.h"
#include "support/Sanitizers.h"
#include "support/TestChild.h"

namespace {

class FoundationMemory : public testsupport::HTTPRequestWorld {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checker has the allocator";
    }
};

TEST_F(FoundationMemory, ThatRunsOutInALineOfTheLogEndsTheProcess) {
    const std::string before = "kept\n";
    const std::string file = log_.folder() + "/captured0-1.log";
    testsupport::writeAll(file, before);
    const auto runs = testsupport::failEachAllocation(
        [] {}, [] { logf("%s", std::string(1000, 'x').c_str()); }, [] {},
        [&] {
            return testsupport::readAll(file).compare(0, before.size(), before) == 0 ? "" : "a line is lost";
        });
    EXPECT_GT(runs.ended, 2);
}

TEST_F(FoundationMemory, ThatRunsOutInTheFirstLineOfAProcessWithoutALogNameEndsIt) {
    const auto runs = testsupport::failEachAllocation([] { setLogName(nullptr); }, [] { logs("line"); },
                                                      [] {}, [] { return std::string(); });
    EXPECT_GT(runs.ended, 2);
}

TEST_F(FoundationMemory, ThatRunsOutInAnHttpExchangeEndsTheProcess) {
    testsupport::LoopbackListener listener;
    const testsupport::EndlessChild server([&] {
        for (;;) {
            testsupport::Peer peer = listener.accept();
            peer.readUntil("\r\n\r\n");
            peer.send("HTTP/1.1 200 OK\r\nX-Header: value\r\n\r\nbody");
        }
    });
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/path";
    const auto runs = testsupport::failEachAllocation(
        [] {}, [&] { testsupport::textOf(GPHTTP::getTextRequest(url.c_str())); }, [] {},
        [] { return std::string(); });
    EXPECT_GT(runs.ended, 20);
}

} // namespace
