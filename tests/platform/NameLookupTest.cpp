// The look-up of this system, of names that need no server.

#include "platform/NameLookup.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <algorithm>
#include <string>

namespace {

using platform::HostEntry;

platform::NameLookup& systemLookup() { return platform::nameLookupService.backend(); }

const std::string loopback4("\x7f\0\0\1", 4);
const std::string loopback6 = std::string(15, '\0') + '\1';

bool holds(const HostEntry& entry, const std::string& address) {
    return std::find(entry.addresses.begin(), entry.addresses.end(), address) != entry.addresses.end();
}

TEST(SystemNameLookup, GivesTheRawBytesOfANumericIPv4Name) {
    HostEntry entry;
    ASSERT_TRUE(systemLookup().gethostbyname2("192.0.2.7", AF_INET, entry));
    EXPECT_EQ(entry.addresses, std::vector<std::string>{std::string("\xc0\0\2\7", 4)});
    EXPECT_EQ(entry.officialName, "192.0.2.7");
    EXPECT_TRUE(entry.aliases.empty());
}

TEST(SystemNameLookup, GivesTheRawBytesOfANumericIPv6Name) {
    HostEntry entry;
    ASSERT_TRUE(systemLookup().gethostbyname2("::1", AF_INET6, entry));
    EXPECT_EQ(entry.addresses, std::vector<std::string>{loopback6});
}

TEST(SystemNameLookup, KnowsTheLoopback) {
    HostEntry entry;
    ASSERT_TRUE(systemLookup().gethostbyname2("localhost", AF_INET, entry));
    EXPECT_TRUE(holds(entry, loopback4));
    EXPECT_FALSE(entry.officialName.empty());
    for (const std::string& address : entry.addresses)
        EXPECT_EQ(address.size(), 4u);
}

TEST(SystemNameLookup, ThePlainFormIsThatOfIPv4) {
    HostEntry entry;
    ASSERT_TRUE(systemLookup().gethostbyname("localhost", entry));
    EXPECT_TRUE(holds(entry, loopback4));
    ASSERT_TRUE(systemLookup().gethostbyname("192.0.2.7", entry));
    EXPECT_EQ(entry.addresses, std::vector<std::string>{std::string("\xc0\0\2\7", 4)});
}

TEST(SystemNameLookup, LeavesTheEntryAloneWhereTheNameHasNoAddress) {
    HostEntry entry;
    entry.officialName = "earlier";
    entry.addresses = {"kept"};
    // An address of the other family is a name that no server is asked for.
    EXPECT_FALSE(systemLookup().gethostbyname2("::1", AF_INET, entry));
    EXPECT_FALSE(systemLookup().gethostbyname2("192.0.2.7", AF_INET6, entry));
    EXPECT_FALSE(systemLookup().gethostbyname("::1", entry));
    EXPECT_EQ(entry.officialName, "earlier");
    EXPECT_EQ(entry.addresses, std::vector<std::string>{"kept"});
}

} // namespace
