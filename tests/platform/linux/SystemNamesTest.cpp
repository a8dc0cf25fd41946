// The look-up of this system with a file of hosts that the test plays, and with no server to be had.

#include "platform/NameLookup.h"

#include "support/NetworkNamespace.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <string>
#include <vector>

namespace {

using platform::HostEntry;
using testsupport::NamespaceResult;

platform::NameLookup& systemLookup() { return platform::nameLookupService.backend(); }

TEST(SystemNames, OfThisSystemComeWithTheirAliasesHoweverManyThereAre) {
    const testsupport::TemporaryFolder folder;
    std::vector<std::string> aliases;
    std::string line = "192.0.2.1 official.test";
    for (int number = 0; number < 200; ++number) {
        aliases.push_back("alias-number-" + std::to_string(number) + ".test");
        line += " " + aliases.back();
    }
    testsupport::writeAll(folder.file("hosts"), line + "\n");

    const auto result = testsupport::runWithPlayedFile("/etc/hosts", folder.file("hosts"), [&] {
        HostEntry entry;
        ASSERT_TRUE(systemLookup().gethostbyname2("alias-number-7.test", AF_INET, entry));
        EXPECT_EQ(entry.officialName, "official.test");
        EXPECT_EQ(entry.aliases, aliases);
        EXPECT_EQ(entry.addresses, std::vector<std::string>{std::string("\xc0\0\2\1", 4)});
    });

    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

TEST(SystemNames, OfThisSystemThatNobodyKnowsLeaveTheEntryAlone) {
    const auto result = testsupport::runInNetworkNamespace([] {
        HostEntry entry;
        entry.officialName = "earlier";
        EXPECT_FALSE(systemLookup().gethostbyname2("nobody.invalid", AF_INET, entry));
        EXPECT_FALSE(systemLookup().gethostbyname2("nobody.invalid", AF_INET6, entry));
        EXPECT_FALSE(systemLookup().gethostbyname("nobody.invalid", entry));
        EXPECT_EQ(entry.officialName, "earlier");
    });

    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no network namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

} // namespace
