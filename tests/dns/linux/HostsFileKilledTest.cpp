// The process is killed between any two system calls of a change of the hosts file.

#include "dns/DNSPacket.h"

#include "gp/GPFilesystem.h"
#include "platform/HostPaths.h"
#include "support/DnsWorld.h"
#include "support/TestChild.h"
#include "support/TracedCalls.h"

#include <set>

using platform::HostPaths;
using testsupport::beginCalls;
using testsupport::endCalls;

namespace {

constexpr char ownLines[] = "127.0.0.1 localhost\n192.0.2.9 intranet.example\n";
constexpr char pinned[] = "127.0.0.1 localhost\n192.0.2.1 a\n192.0.2.9 intranet.example\n";

class HostsFileKilled : public testsupport::KilledIn<testsupport::DnsWorld> {
protected:
    // A new process removes a host that is not there.
    static void removeInANewProcess() {
        EXPECT_TRUE(testsupport::passesInChild([] { removeHostEntry("nobody.example"); }));
        EXPECT_FALSE(ifExist(HostPaths::hostsUnfinishedFile()));
    }
};

TEST_F(HostsFileKilled, InAPinLeavesNothingALineOrALineAndItsRecord) {
    std::set<std::string> seen;
    const std::string line = "192.0.2.1 a\n";
    const long kills = testsupport::killAtEachCall(
        [] {
            givenHostsAtRest(ownLines);
            beginCalls();
            hostExistsCheck("a", "192.0.2.1");
            endCalls();
        },
        [&](const testsupport::TracedEnd&) {
            EXPECT_TRUE(hosts() == ownLines || hosts() == ownLines + line) << hosts();
            seen.insert((hosts() == ownLines ? "" : "line ") + record());
        });
    EXPECT_GE(kills, 10);
    // The line alone stays: nothing tells that it was added.
    EXPECT_EQ(seen, (std::set<std::string>{"", "line ", "line a\n"}));
}

TEST_F(HostsFileKilled, InARemovalIsMadeUpForByTheNextProcess) {
    long inPart = 0;
    const long kills = testsupport::killAtEachCall(
        [] {
            givenHostsAtRest(pinned);
            beginCalls();
            removeHostEntry("a");
            endCalls();
        },
        [&](const testsupport::TracedEnd&) {
            inPart += hosts() != pinned && hosts() != ownLines;
            removeInANewProcess();
            EXPECT_TRUE(hosts() == pinned || hosts() == ownLines) << hosts();
        });
    EXPECT_GE(kills, 20);
    EXPECT_GT(inPart, 0) << "between the emptying and the copy";
}

// Killed again while it makes up for the first.
TEST_F(HostsFileKilled, TwiceInARowIsMadeUpForByTheThird) {
    const long kills = testsupport::killAtEachCall(
        [] {
            givenHostsAtRest("");
            testsupport::writeAll(HostPaths::hostsWorkFile(), ownLines);
            createNewFile(HostPaths::hostsUnfinishedFile());
            beginCalls();
            removeHostEntry("nobody.example");
            endCalls();
        },
        [&](const testsupport::TracedEnd&) {
            removeInANewProcess();
            EXPECT_EQ(hosts(), ownLines);
        });
    EXPECT_GE(kills, 30);
}

} // namespace
