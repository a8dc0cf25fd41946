#include "config/FilterIPAddresses.h"

#include "config/Configuration.h"
#include "support/AddressesWorld.h"
#include "support/LivingObjects.h"

#include <atomic>
#include <thread>

namespace {

class FilterIPAddressesTest : public testsupport::AddressesWorld {};

TEST_F(FilterIPAddressesTest, ANewObjectHasNoEntriesAndCountsAsMissing) {
    auto fresh = Owned<FilterIPAddresses>::adopt(new FilterIPAddresses);
    EXPECT_EQ(fresh->count, 0);
    EXPECT_EQ(fresh->addresses, nullptr);
    EXPECT_TRUE(fresh->isMissingIPs());
    fresh->setMissingIPs();
    EXPECT_FALSE(fresh->isMissingIPs());
}

TEST_F(FilterIPAddressesTest, AnEmptyServerListGivesNoEntriesAndNothingMissing) {
    auto built = build();
    EXPECT_EQ(built->count, 0);
    EXPECT_FALSE(built->isMissingIPs());
    EXPECT_EQ(references(built.get()), 1);
    EXPECT_EQ(built->addresses, nullptr);
}

TEST_F(FilterIPAddressesTest, EachServerHasItsAddressInListOrder) {
    givenServers({"a.example", "b.example"});
    resolves("b.example", "192.0.2.2");
    resolves("a.example", "192.0.2.1");
    auto built = build();
    ASSERT_EQ(built->count, 2);
    EXPECT_EQ(built->addresses[0], 0xc0000201u);
    EXPECT_EQ(built->addresses[1], 0xc0000202u);
    EXPECT_FALSE(built->isMissingIPs());
    EXPECT_EQ(Configuration::getFilterServer("b.example")->getIPAddr(), 0xc0000202u);
}

TEST_F(FilterIPAddressesTest, AServerThatDoesNotResolveStaysZeroAndIsMissing) {
    givenServers({"a.example", "b.example"});
    resolves("b.example", "192.0.2.2");
    auto built = build();
    EXPECT_EQ(built->addresses[0], 0u);
    EXPECT_EQ(built->addresses[1], 0xc0000202u);
    EXPECT_TRUE(built->isMissingIPs());
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FilterIPAddressesTest, AServerThatStopsResolvingKeepsItsAddressInTheNextBuildAndIsNotMissing) {
    givenServers({"a.example"});
    resolves("a.example", "192.0.2.1");
    build();
    stopsResolving("a.example");
    auto rebuilt = build();
    EXPECT_EQ(rebuilt->addresses[0], 0xc0000201u);
    EXPECT_FALSE(rebuilt->isMissingIPs());
}

TEST_F(FilterIPAddressesTest, ABuildIsLoggedWhenVerbose) {
    Configuration::setLogLevel(1);
    givenServers({"a.example", "b.example"});
    resolves("b.example", "192.0.2.2");
    auto built = build();
    char place[16];
    std::snprintf(place, sizeof place, "%x",
                  static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(built.get())));
    const auto lines = log.messages();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(
        std::vector<std::string>(lines.end() - 3, lines.end()),
        (std::vector<std::string>{
            "unable to resolve IP for server a.example (0)",
            std::string("Resolved IP addresses in ") + place + " (servers:2 unresolved:1)",
            std::string("--- IPAddresses 0x") + place + " missing=yes: Servers(2):0x0;0xc0000202; ---"}));
}

TEST_F(FilterIPAddressesTest, ARefreshFillsWhatIsMissingInPlace) {
    givenServers({"a.example", "b.example"});
    resolves("b.example", "192.0.2.2");
    auto built = build();
    resolves("a.example", "192.0.2.1");
    refreshServerAddresses(built.get());
    EXPECT_EQ(built->addresses[0], 0xc0000201u);
    EXPECT_FALSE(built->isMissingIPs());
    EXPECT_EQ(Configuration::getFilterServer("a.example")->getIPAddr(), 0xc0000201u);
}

TEST_F(FilterIPAddressesTest, ARefreshThatStillFailsIsLoggedWhenVerbose) {
    givenServers({"a.example"});
    auto built = build();
    Configuration::setLogLevel(1);
    refreshServerAddresses(built.get());
    EXPECT_TRUE(built->isMissingIPs());
    EXPECT_TRUE(log.holds("still unable to resolve IP for server a.example (0)"));
    EXPECT_TRUE(log.holds("Refreshed IP addresses (servers:1 unresolved:1)"));
    EXPECT_EQ(log.countContaining("Refreshing IP addresses "), 1);
    EXPECT_EQ(log.countContaining("missing=yes: Servers(1):0x0; ---"), 1);
}

TEST_F(FilterIPAddressesTest, ARefreshLooksAllServersUpAgainWhileOneIsMissing) {
    givenServers({"a.example", "b.example"});
    resolves("b.example", "192.0.2.2");
    auto built = build();
    resolves("b.example", "192.0.2.9");
    refreshServerAddresses(built.get());
    EXPECT_EQ(built->addresses[1], 0xc0000209u);
}

TEST_F(FilterIPAddressesTest, ARefreshLeavesACompleteSnapshotAlone) {
    givenServers({"a.example"});
    resolves("a.example", "192.0.2.1");
    auto built = build();
    resolves("a.example", "192.0.2.9");
    const std::size_t before = lookups();
    refreshServerAddresses(built.get());
    EXPECT_EQ(lookups(), before);
    EXPECT_EQ(built->addresses[0], 0xc0000201u);
}

TEST_F(FilterIPAddressesTest, ARefreshOfNothingDoesNothing) {
    Configuration::setLogLevel(1);
    refreshServerAddresses(nullptr);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FilterIPAddressesTest, ARefreshAfterTheListBecameShorterSkipsTheRowsItLacks) {
    givenServers({"a.example", "b.example"});
    auto built = build();
    Configuration::removeServerName("b.example", false);
    resolves("a.example", "192.0.2.1");
    refreshServerAddresses(built.get());
    EXPECT_EQ(built->count, 2);
    EXPECT_EQ(built->addresses[0], 0xc0000201u);
    EXPECT_EQ(built->addresses[1], 0u);
    EXPECT_TRUE(built->isMissingIPs());
}

TEST_F(FilterIPAddressesTest, RetainAndReleaseCount) {
    auto built = build();
    EXPECT_EQ(built->retain(), built.get());
    EXPECT_EQ(references(built.get()), 2);
    EXPECT_EQ(built->release(), 1);
}

std::atomic<int> destroyed{0};

class CountedSnapshot final : public FilterIPAddresses {
public:
    ~CountedSnapshot() override { ++destroyed; }
};

TEST_F(FilterIPAddressesTest, TheLastReleaseDestroysThroughTheVirtualDestructor) {
    auto* snapshot = new CountedSnapshot;
    EXPECT_EQ(snapshot->release(), GPObject::destroyedMark);
    EXPECT_EQ(destroyed, 1);
}

TEST_F(FilterIPAddressesTest, TwoThreadsReleasingTheLastTwoReferencesDestroyTheObjectOnce) {
    constexpr int rounds = 500;
    std::atomic<FilterIPAddresses*> shared{nullptr};
    std::thread other([&shared] {
        for (int i = 0; i < rounds; ++i) {
            FilterIPAddresses* snapshot;
            while (!(snapshot = shared.exchange(nullptr)))
                std::this_thread::yield();
            snapshot->release();
        }
    });
    for (int i = 0; i < rounds; ++i) {
        auto* snapshot = new CountedSnapshot;
        snapshot->retain();
        shared = snapshot;
        snapshot->release();
        while (destroyed < i + 1)
            std::this_thread::yield();
    }
    other.join();
    EXPECT_EQ(destroyed, rounds);
}

TEST_F(FilterIPAddressesTest, NeitherABuildNorARefreshLeavesAnObject) {
    givenServers({"a.example", "b.example"});
    resolves("a.example", "192.0.2.1");
    EXPECT_EQ(testsupport::objectsLeftBy([] { build(); }), 0);
    auto built = build();
    EXPECT_EQ(testsupport::objectsLeftBy([&] { refreshServerAddresses(built.get()); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([&] { FilterIPAddresses::debugDumpIPAddresses(built.get()); }), 0);
}

} // namespace
