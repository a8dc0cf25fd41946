// The hosts file and its record while they are open: no program that is started meanwhile gets them.

#include "dns/DNSPacket.h"
#include "support/DnsWorld.h"
#include "support/FileCalls.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

namespace {

using HostsFileInheritance = testsupport::DnsWorld;

} // namespace

TEST_F(HostsFileInheritance, AHostIsPinnedInFilesThatAreClosedToPrograms) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of these calls";
    const testsupport::FileCalls calls;
    EXPECT_TRUE(hostExistsCheck("www.alder.test", "192.0.2.1"));
    EXPECT_EQ(calls.byDescriptor(), 2) << "the hosts file and the record";
    EXPECT_TRUE(calls.allClosedOnExec());
    EXPECT_EQ(hosts(), "192.0.2.1 www.alder.test\n");
}
