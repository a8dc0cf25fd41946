// The manager thread, the rebuild task and the readers of what they install.

#include "config/FilterIPAddresses.h"

#include "config/Configuration.h"
#include "gp/GPMutex.h"
#include "support/AddressesWorld.h"
#include "support/ProgramSymbols.h"

#include <atomic>
#include <thread>

using testsupport::ManualClock;

namespace {

class FilterIPAddressesThreads : public testsupport::AddressesWorld {};

TEST_F(FilterIPAddressesThreads, ThereIsNoSnapshotBeforeTheManagersFirstBuild) {
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

TEST_F(FilterIPAddressesThreads, TheManagerSleepsTenMinutesWithAllAddresses) {
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

TEST_F(FilterIPAddressesThreads, TheManagerSleepsTenSecondsWhileAnAddressIsMissingAndRefreshesThen) {
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

TEST_F(FilterIPAddressesThreads, ANoticeHasANewSnapshotBuiltAtOnce) {
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

TEST_F(FilterIPAddressesThreads, TheTaskRetriesAfterOneTwoThreeSecondsUntilNothingIsMissing) {
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

TEST_F(FilterIPAddressesThreads, AnotherNoticeStartsTheSeriesAtOneSecondAgain) {
    givenServers({"a.example"});
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(waitUntilSlept(1));
    ManualClock::installed().advanceSeconds(1);
    ASSERT_TRUE(waitUntilSlept(1 + 2));
    FilterIPAddresses::notifyIPchanges();
    ASSERT_TRUE(waitUntilSlept(1 + 2 + 1));
    EXPECT_EQ(sleptSeconds(), 1 + 2 + 1);
}

TEST_F(FilterIPAddressesThreads, ANoticeDuringAPassThatEndsWithAnAddressMissingIsServedWithoutASleep) {
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

TEST_F(FilterIPAddressesThreads, PassesOfTheTaskAreLoggedWhenVerbose) {
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

TEST_F(FilterIPAddressesThreads, TheLockOfABuildIsHeldAcrossItsLookUps) {
    const GPMutex* lock = *reinterpret_cast<GPMutex**>(testsupport::programVariable("buildmutex"));
    givenServers({"a.example"});
    resolves("a.example", "192.0.2.1");
    gate.shut();
    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(gate.waitForArrivals(1));
    EXPECT_TRUE(lock->isLocked());
    gate.open();
    ASSERT_TRUE(waitUntilSlept(600));
    EXPECT_FALSE(lock->isLocked());
}

TEST_F(FilterIPAddressesThreads, ANoticeDuringAPassIsServedByTheManagersNextPass) {
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

TEST_F(FilterIPAddressesThreads, AChangeDuringTheManagersOwnBuildIsFirstSeenAfterTheNextNotice) {
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
    givenServers({"a.example", "b.example"}); // the build has read the list already
    resolves("b.example", "192.0.2.2");
    FilterIPAddresses::notifyIPchanges();
    gate.open();
    ASSERT_TRUE(waitUntilSlept(1200));
    ManualClock::installed().advanceSeconds(600);
    ASSERT_TRUE(waitUntilSlept(1800));
    EXPECT_EQ(current()->count, 1) << "the notice was cleared behind the build";
    EXPECT_EQ(lookups(), 3u);

    FilterIPAddresses::notifyIPchanges();
    EXPECT_TRUE(waitUntil([] { return current()->count == 2; }));
}

TEST_F(FilterIPAddressesThreads, TheManagersFirstBuildForgetsWhatATaskInstalledBeforeIt) {
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

TEST_F(FilterIPAddressesThreads, AReplacedSnapshotIsKeptForOneMoreGeneration) {
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

TEST_F(FilterIPAddressesThreads, ReadersNeverMeetADestroyedSnapshotHoweverFastTheyAreReplaced) {
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
