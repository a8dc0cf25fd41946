// Changes of the hosts file of which one system call fails, each call in turn.

#include "dns/DNSPacket.h"

#include "gp/GPFilesystem.h"
#include "platform/HostPaths.h"
#include "support/DnsWorld.h"
#include "support/TracedCalls.h"

using platform::HostPaths;
using testsupport::writeAll;

namespace {

constexpr char ownLines[] = "127.0.0.1 localhost\n192.0.2.9 intranet.example\n";
constexpr char pinned[] = "127.0.0.1 localhost\n192.0.2.1 a\n192.0.2.9 intranet.example\n";

class HostsFileFailedCalls : public testsupport::CallsFailIn<testsupport::DnsWorld> {
protected:
    // The copy back was interrupted.
    static void startUnfinished(const std::string& content) {
        givenHostsAtRest(content);
        writeAll(HostPaths::hostsWorkFile(), ownLines);
        createNewFile(HostPaths::hostsUnfinishedFile());
    }

    // What a later change makes of it: one that itself takes nothing out.
    static std::string hostsBehindTheNextRemoval() {
        removeHostEntry("nobody.example");
        EXPECT_FALSE(ifExist(HostPaths::hostsUnfinishedFile()));
        return hosts();
    }
};

TEST_F(HostsFileFailedCalls, OfAPinLeaveItWrittenAndRecordedOrNeither) {
    const long failures = testsupport::failEachCallOf(
        [] { givenHostsAtRest(ownLines); }, [] { hostExistsCheck("a", "192.0.2.1"); },
        [] {
            const bool isRecorded = record() == "a\n";
            EXPECT_EQ(hosts(), isRecorded ? std::string(ownLines) + "192.0.2.1 a\n" : ownLines);
            if (!isRecorded) {
                EXPECT_EQ(record(), "");
            }
        });
    EXPECT_GE(failures, 10);
}

TEST_F(HostsFileFailedCalls, OfARemovalAreMadeUpForByTheNext) {
    const long failures =
        testsupport::failEachCallOf([] { givenHostsAtRest(pinned); }, [] { removeHostEntry("a"); },
                                    [] {
                                        const std::string left = hostsBehindTheNextRemoval();
                                        EXPECT_TRUE(left == pinned || left == ownLines) << left;
                                    });
    EXPECT_GE(failures, 20);
}

TEST_F(HostsFileFailedCalls, OfAnotherTryToCopyBackAreMadeUpForByTheNext) {
    const long failures =
        testsupport::failEachCallOf([] { startUnfinished(""); }, [] { removeHostEntry("b"); },
                                    [] { EXPECT_EQ(hostsBehindTheNextRemoval(), ownLines); });
    EXPECT_GE(failures, 20);
}

TEST_F(HostsFileFailedCalls, OfAnotherTryKeepLinesThatWereAddedToAWholeFileMeanwhile) {
    const std::string withMore = std::string(ownLines) + "192.0.2.10 added.example\n";
    const long failures =
        testsupport::failEachCallOf([&] { startUnfinished(withMore); }, [] { removeHostEntry("b"); },
                                    [&] { EXPECT_EQ(hostsBehindTheNextRemoval(), withMore); });
    EXPECT_GE(failures, 20);
}

} // namespace
