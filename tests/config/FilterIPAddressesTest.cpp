#include "config/FilterIPAddresses.h"

#include "config/Configuration.h"
#include "gp/Owned.h"
#include "support/ManualClock.h"
#include "support/PlayedNames.h"
#include "support/SettingsTest.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sys/socket.h>
#include <thread>

using testsupport::ManualClock;
using Names = std::vector<std::string>;

namespace {

// Played names behind a gate: while it is shut, look-ups wait at it.
class GatedNames final : public platform::NameLookup {
public:
    testsupport::PlayedNames played;

    void shut() {
        std::lock_guard lock(mutex_);
        open_ = false;
    }

    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        moved_.notify_all();
    }

    // Blocks until that many look-ups have come to the gate in all; false after five real seconds.
    bool waitForArrivals(int count) {
        std::unique_lock lock(mutex_);
        return moved_.wait_for(lock, std::chrono::seconds(5), [&] { return arrived_ >= count; });
    }

    bool gethostbyname2(const char* name, int family, platform::HostEntry& entry) override {
        {
            std::unique_lock lock(mutex_);
            ++arrived_;
            moved_.notify_all();
            moved_.wait(lock, [this] { return open_; });
        }
        return played.gethostbyname2(name, family, entry);
    }

    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }

private:
    std::mutex mutex_;
    std::condition_variable moved_;
    bool open_ = true;
    int arrived_ = 0;
};

class FilterIPAddressesTest : public testsupport::SettingsTest {
protected:
    FilterIPAddressesTest() { platform::nameLookupService.install(gate); }

    void resolves(const std::string& name, const std::string& address) {
        gate.played.answer(name, AF_INET, {address});
    }

    void stopsResolving(const std::string& name) { gate.played.forget(name, AF_INET); }

    std::size_t lookups() const { return gate.played.asked().size(); }

    static Owned<FilterIPAddresses> build() { return Owned<FilterIPAddresses>::adopt(buildIPaddresses()); }

    static Owned<FilterIPAddresses> current() {
        return Owned<FilterIPAddresses>::adopt(FilterIPAddresses::getCurrentIPAddresses());
    }

    // Blocks until the threads have begun sleeps of that many seconds in all; false after five real seconds.
    static bool waitUntilSlept(std::int64_t seconds) {
        return waitUntil([=] { return ManualClock::installed().sleptMicroseconds() >= seconds * 1000000; });
    }

    // Blocks until the condition holds; false after five real seconds.
    template <class Condition>
    static bool waitUntil(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }

    static std::int64_t sleptSeconds() { return ManualClock::installed().sleptMicroseconds() / 1000000; }

    // One notice and the one pass that it starts, up to the second that its task sleeps because a server of
    // the list does not resolve.
    static bool rebuildOnce() {
        const std::int64_t before = sleptSeconds();
        FilterIPAddresses::notifyIPchanges();
        return waitUntilSlept(before + 1);
    }

    // References that exist on a snapshot.
    static int references(FilterIPAddresses* snapshot) {
        const int count = snapshot->retainonly() - 1;
        snapshot->releaseonly();
        return count;
    }

    // Threads of the system under test look names up for the rest of the process.
    GatedNames& gate = *new GatedNames;
};

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
    EXPECT_TRUE(log.holds("unable to resolve IP for server a.example (0)"));
    EXPECT_TRUE(log.holds(std::string("Resolved IP addresses in ") + place + " (servers:2 unresolved:1)"));
    EXPECT_TRUE(log.holds(std::string("--- IPAddresses 0x") + place +
                          " missing=yes: Servers(2):0x0;0xc0000202; ---"));
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

TEST_F(FilterIPAddressesTest, ThereIsNoSnapshotBeforeTheManagersFirstBuild) {
    gate.shut();
    givenServers({"a.example"});
    EXPECT_EQ(FilterIPAddresses::getCurrentIPAddresses(), nullptr);
    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(gate.waitForArrivals(1));
    EXPECT_EQ(FilterIPAddresses::getCurrentIPAddresses(), nullptr);
    gate.open();
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    EXPECT_EQ(current()->count, 1);
}

TEST_F(FilterIPAddressesTest, TheManagerSleepsTenMinutesWithAllAddresses) {
    givenServers({"a.example"});
    resolves("a.example", "192.0.2.1");
    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    EXPECT_EQ(sleptSeconds(), 600);
    EXPECT_EQ(current()->addresses[0], 0xc0000201u);
    ManualClock::installed().advanceSeconds(600);
    ASSERT_TRUE(waitUntilSlept(1200));
    EXPECT_EQ(lookups(), 1u) << "a complete snapshot is not looked up again";
}

TEST_F(FilterIPAddressesTest, TheManagerSleepsTenSecondsWhileAnAddressIsMissingAndRefreshesThen) {
    givenServers({"a.example"});
    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    EXPECT_EQ(sleptSeconds(), 10);
    auto first = current();
    resolves("a.example", "192.0.2.1");
    ManualClock::installed().advanceSeconds(10);
    ASSERT_TRUE(waitUntilSlept(610));
    EXPECT_EQ(first->addresses[0], 0xc0000201u) << "the refresh works on the snapshot in place";
    EXPECT_EQ(current().get(), first.get());
}

TEST_F(FilterIPAddressesTest, ANoticeHasANewSnapshotBuiltAtOnce) {
    givenServers({"a.example"});
    resolves("a.example", "192.0.2.1");
    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    auto first = current();
    givenServers({"b.example"});
    resolves("b.example", "192.0.2.2");
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(waitUntil([&] { return current().get() != first.get(); }));
    EXPECT_EQ(current()->count, 2);
    EXPECT_EQ(first->count, 1);
    EXPECT_EQ(sleptSeconds(), 600) << "the task ends without a sleep";
}

TEST_F(FilterIPAddressesTest, TheTaskRetriesAfterOneTwoThreeSecondsUntilNothingIsMissing) {
    givenServers({"a.example"});
    FilterIPAddresses::notifyIPchanges();
    std::int64_t total = 0;
    for (int delay = 1; delay <= 4; ++delay) {
        total += delay;
        ASSERT_TRUE(waitUntilSlept(total));
        EXPECT_EQ(sleptSeconds(), total);
        if (delay == 4) resolves("a.example", "192.0.2.1");
        ManualClock::installed().advanceSeconds(delay);
    }
    ASSERT_TRUE(waitUntil([] { return !current()->isMissingIPs(); }));
    EXPECT_EQ(current()->addresses[0], 0xc0000201u);
    EXPECT_EQ(lookups(), 5u);
}

TEST_F(FilterIPAddressesTest, AnotherNoticeStartsTheSeriesAtOneSecondAgain) {
    givenServers({"a.example"});
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(waitUntilSlept(1));
    ManualClock::installed().advanceSeconds(1);
    ASSERT_TRUE(waitUntilSlept(1 + 2));
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(waitUntilSlept(1 + 2 + 1));
    EXPECT_EQ(sleptSeconds(), 1 + 2 + 1);
}

TEST_F(FilterIPAddressesTest, ANoticeDuringAPassThatEndsWithAnAddressMissingIsServedWithoutASleep) {
    givenServers({"a.example"});
    gate.shut();
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(gate.waitForArrivals(1));
    FilterIPAddresses::notifyIPchanges();
    gate.open();
    ASSERT_TRUE(waitUntilSlept(1));
    EXPECT_EQ(lookups(), 2u);
    EXPECT_EQ(sleptSeconds(), 1);
}

TEST_F(FilterIPAddressesTest, PassesOfTheTaskAreLoggedWhenVerbose) {
    Configuration::setLogLevel(1);
    givenServers({"a.example"});
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(waitUntilSlept(1));
    EXPECT_EQ(log.countContaining("Recreating IP address references..."), 1);
    EXPECT_EQ(log.countContaining("Checking IP address references..."), 0);
    ManualClock::installed().advanceSeconds(1);
    ASSERT_TRUE(waitUntilSlept(3));
    EXPECT_EQ(log.countContaining("Recreating IP address references..."), 1);
    EXPECT_EQ(log.countContaining("Checking IP address references..."), 1);
}

TEST_F(FilterIPAddressesTest, ANoticeDuringAPassIsServedByTheManagersNextPass) {
    givenServers({"a.example"});
    resolves("a.example", "192.0.2.1");
    gate.shut();
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(gate.waitForArrivals(1));
    FilterIPAddresses::notifyIPchanges();
    gate.open();
    ASSERT_TRUE(waitUntil([] { return static_cast<bool>(current()); }));
    EXPECT_EQ(lookups(), 1u) << "the second notice started no task";
    auto forgotten = Owned<FilterIPAddresses>::adopt(current().get());

    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(waitUntilSlept(600));
    EXPECT_EQ(lookups(), 2u);
    ManualClock::installed().advanceSeconds(600);
    ASSERT_TRUE(waitUntilSlept(1200));
    EXPECT_EQ(lookups(), 3u) << "the flag was still set, so this pass built anew";
}

TEST_F(FilterIPAddressesTest, ANoticeDuringTheManagersOwnBuildIsServedByThatBuild) {
    givenServers({"a.example"});
    resolves("a.example", "192.0.2.1");
    gate.shut();
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(gate.waitForArrivals(1));
    FilterIPAddresses::notifyIPchanges(); // leaves the flag for the manager
    gate.open();
    ASSERT_TRUE(waitUntil([] { return static_cast<bool>(current()); }));
    auto forgotten = Owned<FilterIPAddresses>::adopt(current().get());
    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(waitUntilSlept(600));

    gate.shut();
    ManualClock::installed().advanceSeconds(600);
    ASSERT_TRUE(gate.waitForArrivals(3));
    FilterIPAddresses::notifyIPchanges();
    gate.open();
    ASSERT_TRUE(waitUntilSlept(1200));
    EXPECT_EQ(lookups(), 3u);
    ManualClock::installed().advanceSeconds(600);
    ASSERT_TRUE(waitUntilSlept(1800));
    EXPECT_EQ(lookups(), 3u) << "the flag was cleared behind the build";
}

TEST_F(FilterIPAddressesTest, TheManagersFirstBuildForgetsWhatATaskInstalledBeforeIt) {
    givenServers({"a.example"});
    resolves("a.example", "192.0.2.1");
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(waitUntil([] { return static_cast<bool>(current()); }));
    auto first = current();
    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(waitUntilSlept(600));
    EXPECT_NE(current().get(), first.get());
    EXPECT_EQ(references(first.get()), 2) << "nobody gives the forgotten reference back";
    first->release();
}

TEST_F(FilterIPAddressesTest, AReplacedSnapshotIsKeptForOneMoreGeneration) {
    givenServers({"a.example", "missing.example"});
    resolves("a.example", "192.0.2.1");
    ASSERT_TRUE(rebuildOnce());
    auto first = current();
    EXPECT_EQ(references(first.get()), 2);
    ASSERT_TRUE(rebuildOnce());
    EXPECT_NE(current().get(), first.get());
    EXPECT_EQ(references(first.get()), 2) << "held as the previous one";
    ASSERT_TRUE(rebuildOnce());
    EXPECT_EQ(references(first.get()), 1);
}

TEST_F(FilterIPAddressesTest, ReadersNeverMeetADestroyedSnapshotHoweverFastTheyAreReplaced) {
    givenServers({"a.example", "missing.example"});
    resolves("a.example", "192.0.2.1");
    ASSERT_TRUE(rebuildOnce());
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    const auto readOn = [&] {
        while (!stop) {
            auto snapshot = current();
            if (snapshot->count != 2 || snapshot->addresses[0] != 0xc0000201u) ++wrong;
        }
    };
    std::thread inbound(readOn), outbound(readOn);
    for (int swaps = 0; swaps < 30; ++swaps)
        EXPECT_TRUE(rebuildOnce());
    stop = true;
    inbound.join();
    outbound.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
