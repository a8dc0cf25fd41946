#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "filter/FilterQuery.h"
#include "gp/Owned.h"
#include "support/CapturedLog.h"
#include "support/ManualClock.h"
#include "support/PlayedNames.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>

using testsupport::ManualClock;

namespace {

constexpr unsigned serverAddress = 0x0a000001;

class FilterQuerySwitchTest : public testing::Test {
protected:
    // A snapshot with two addresses.
    static Owned<FilterIPAddresses> snapshot() {
        auto* made = new FilterIPAddresses;
        made->addresses = new std::atomic<std::uint32_t>[2];
        made->addresses[0] = serverAddress;
        made->addresses[1] = serverAddress + 1;
        made->count = 2;
        return Owned<FilterIPAddresses>::adopt(made);
    }

    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
};

} // namespace

TEST_F(FilterQuerySwitchTest, AnAddressOfTheSnapshotIsAFilterServers) {
    const auto given = snapshot();
    EXPECT_TRUE(FilterQuery::isFilteringIP(given.get(), serverAddress));
    EXPECT_TRUE(FilterQuery::isFilteringIP(given.get(), serverAddress + 1));
    EXPECT_FALSE(FilterQuery::isFilteringIP(given.get(), serverAddress + 2));
}

TEST_F(FilterQuerySwitchTest, AddressZeroIsNoFilterServerEvenWhereAnEntryIsUnresolved) {
    const auto given = snapshot();
    given->addresses[0] = 0;
    EXPECT_FALSE(FilterQuery::isFilteringIP(given.get(), 0));
}

TEST_F(FilterQuerySwitchTest, ASnapshotThatWasPassedInStaysTheCallers) {
    const auto given = snapshot();
    FilterQuery::isFilteringIP(given.get(), serverAddress);
    EXPECT_EQ(given->retainonly(), 2);
    EXPECT_EQ(given->releaseonly(), 1);
}

TEST_F(FilterQuerySwitchTest, WithoutASnapshotAtHandNothingIsAFilterServers) {
    EXPECT_FALSE(FilterQuery::isFilteringIP(nullptr, serverAddress));
}

TEST_F(FilterQuerySwitchTest, ASnapshotWithoutAnArrayHoldsNothingAndIsNoDamagedOne) {
    const auto given = Owned<FilterIPAddresses>::adopt(new FilterIPAddresses);
    given->count = 1;
    EXPECT_FALSE(FilterQuery::isFilteringIP(given.get(), serverAddress));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FilterQuerySwitchTest, ASnapshotDamagedInMemoryIsLoggedAndNotRead) {
    const auto given = Owned<FilterIPAddresses>::adopt(new FilterIPAddresses);
    given->addresses = reinterpret_cast<std::atomic<std::uint32_t>*>(999);
    given->count = 3;
    EXPECT_FALSE(FilterQuery::isFilteringIP(given.get(), serverAddress));
    EXPECT_TRUE(log.holds("!!!Warning!!! IP integrity error! *ip=a000001 addrs=3e7"));
    given->addresses = nullptr;
}

TEST_F(FilterQuerySwitchTest, AnArrayAtThePlaceBehindThoseOfADamagedSnapshotIsNoneOfThem) {
    const auto given = Owned<FilterIPAddresses>::adopt(new FilterIPAddresses);
    given->addresses = reinterpret_cast<std::atomic<std::uint32_t>*>(1000);
    EXPECT_FALSE(FilterQuery::isFilteringIP(given.get(), serverAddress));
    EXPECT_TRUE(log.messages().empty());
    given->addresses = nullptr;
}

TEST_F(FilterQuerySwitchTest, WithANullSnapshotArgumentItFetchesAndReleasesItsOwn) {
    // Used by the manager's thread after the test's end.
    auto& names = *new testsupport::PlayedNames;
    names.install();
    names.answer("server.example.org", AF_INET, {"10.0.0.1"});
    Configuration::removeAllServers(false);
    Configuration::addServerName("server.example.org", false);
    FilterIPAddresses::startIPAddressManager();
    // Now the snapshot is there, and the manager's thread holds no reference of its own to it any more.
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    const auto current = Owned<FilterIPAddresses>::adopt(FilterIPAddresses::getCurrentIPAddresses());
    ASSERT_TRUE(current);
    const int count = current->retainonly();
    EXPECT_TRUE(FilterQuery::isFilteringIP(nullptr, serverAddress));
    EXPECT_FALSE(FilterQuery::isFilteringIP(nullptr, serverAddress + 1));
    EXPECT_FALSE(FilterQuery::isFilteringIP(nullptr, 0));
    EXPECT_EQ(current->releaseonly(), count - 1);
}

TEST_F(FilterQuerySwitchTest, AChangeOfTheSwitchIsLogged) {
    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
    FilterQuery::setFilteringDisabled(true);
    EXPECT_TRUE(FilterQuery::isFilteringDisabled());
    EXPECT_TRUE(log.holds("filtering is disabled, fernhill is inside the network."));
    FilterQuery::setFilteringDisabled(false);
    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
    EXPECT_TRUE(log.holds("filtering is enabled, fernhill is outside the network"));
}

TEST_F(FilterQuerySwitchTest, TheSwitchFallsAfterTenMinutesAndOneMicrosecond) {
    Configuration::setVerboseMode(true);
    FilterQuery::setFilteringDisabled(true);
    ManualClock::installed().advance(600000000);
    EXPECT_TRUE(FilterQuery::isFilteringDisabled());
    ManualClock::installed().advance(1);
    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
    EXPECT_TRUE(log.holds("filtering is enabled, ip has changed or time has elapsed."));
}

TEST_F(FilterQuerySwitchTest, TheSameValueAgainNeitherLogsNorRestartsTheTimer) {
    FilterQuery::setFilteringDisabled(true);
    ManualClock::installed().advanceSeconds(599);
    FilterQuery::setFilteringDisabled(true);
    EXPECT_EQ(log.countContaining("filtering is"), 1);
    ManualClock::installed().advanceSeconds(2);
    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
}

TEST_F(FilterQuerySwitchTest, FalseWhileFalseElevenMinutesLaterLeavesTheTimerToTheNextLook) {
    FilterQuery::isFilteringDisabled(); // the timer is older than the played clock
    Configuration::setVerboseMode(true);
    FilterQuery::setFilteringDisabled(true);
    FilterQuery::setFilteringDisabled(false);
    ManualClock::installed().advanceSeconds(660);
    FilterQuery::setFilteringDisabled(false);
    EXPECT_EQ(log.countContaining("filtering is"), 2);
    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
    EXPECT_EQ(log.countContaining("time has elapsed"), 1);
    // That look restarted the timer, though the switch was off.
    ManualClock::installed().advanceSeconds(599);
    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
    EXPECT_EQ(log.countContaining("time has elapsed"), 1);
}

TEST_F(FilterQuerySwitchTest, ASwitchThatFallsIsLoggedWhenVerboseAlone) {
    FilterQuery::setFilteringDisabled(true);
    ManualClock::installed().advance(600000001);
    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
    EXPECT_EQ(log.countContaining("filtering is enabled"), 0);
}

TEST_F(FilterQuerySwitchTest, ChangingTheSwitchRestartsItsTenMinutes) {
    FilterQuery::isFilteringDisabled();
    ManualClock::installed().advanceSeconds(599);
    FilterQuery::setFilteringDisabled(true);
    ManualClock::installed().advanceSeconds(600);
    EXPECT_TRUE(FilterQuery::isFilteringDisabled());
    ManualClock::installed().advance(1);
    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
}
