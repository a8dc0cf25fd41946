// The locks around the list of servers and their addresses: what is done under them, and what behind.

#include "config/CheckinReply.h"
#include "config/FilterCheck.h"
#include "config/FilterIPAddresses.h"
#include "support/ManualClock.h"
#include "support/ProgramSymbols.h"
#include "support/SettingsLocksWorld.h"
#include "support/ThreadStarts.h"

#include <algorithm>

namespace {

using testsupport::BeforeRelease;
using testsupport::firstLockOf;
using testsupport::holdsLock;
using testsupport::ManualClock;
using testsupport::StoppedAtLock;
using testsupport::WatchedLock;
using Lines = std::vector<std::string>;

class ServerLocks : public testsupport::SettingsLocksWorld {};

class AddressLocks : public testsupport::SettingsLocksWorld {
protected:
    AddressLocks() { givenServers({"a.example"}); }

    GPMutex* buildmutex = *reinterpret_cast<GPMutex**>(testsupport::programVariable("buildmutex"));
};

} // namespace

TEST_F(ServerLocks, TheLocalServerIsListedSavedAndMadeCurrentUnderTheServerLock) {
    givenServers({"old.example"});
    Configuration::setVerboseMode(true);
    EXPECT_STREQ(Configuration::serverName(), "old.example");
    removeFile();
    {
        StoppedAtLock stopped(serverLock(), [] { FilterCheck::setServerToLocalhost(); });
        ASSERT_TRUE(stopped.waits());
        EXPECT_EQ(listedServers(), Lines{"old.example"});
        stopped.letGo();
    }
    const BeforeRelease released(serverLock(), [this] {
        EXPECT_EQ(listedServers(), Lines{"localhost"});
        EXPECT_EQ(inFile("ServerName"), "localhost");
        EXPECT_EQ(Configuration::getCurrentServer(), Configuration::getFilterServer("localhost"));
    });
    FilterCheck::setServerToLocalhost();
    EXPECT_EQ(released.count(), 1);
    EXPECT_FALSE(serverLock()->isLocked());
}

TEST_F(ServerLocks, TheLocalServerIsSavedBeforeTheCurrentOneIsForgotten) {
    givenServers({"old.example"});
    Configuration::serverName();
    Configuration::setVerboseMode(true);
    FilterCheck::setServerToLocalhost();
    // It is the save that finds the old one no longer listed.
    EXPECT_TRUE(log.holds("Removing current server: old.example from the config."));
}

TEST_F(ServerLocks, AReplysServersAreListedSavedAndMadeCurrentUnderTheServerLock) {
    givenServers({"old.example", "x"});
    EXPECT_STREQ(Configuration::nextServer()->getUrl(), "x");
    const GPMutex* lock = serverLock();
    removeFile();
    const BeforeRelease released(lock, [this] {
        EXPECT_EQ(listedServers(), (Lines{"w", "x"}));
        EXPECT_NE(file(), "");
        EXPECT_STREQ(Configuration::serverName(), "w");
    });
    CheckinReply reply;
    reply.serverNames = {"w", "x"};
    applyCheckinReply(reply);
    EXPECT_EQ(released.count(), 1);
    // Saved while the one before, which is listed again, was still current.
    EXPECT_EQ(inFile("ServerName"), "x");
    EXPECT_FALSE(lock->isLocked());
}

TEST_F(ServerLocks, AReplysServersAreSavedUnderTheServerLock) {
    const GPMutex* lock = serverLock();
    CheckinReply reply;
    reply.serverNames = {"w", "x"};
    const BeforeRelease released(mutex, [lock] { EXPECT_TRUE(holdsLock(lock)); });
    applyCheckinReply(reply);
    EXPECT_EQ(released.count(), 1);
}

TEST_F(ServerLocks, NewServersAreLookedUpBehindTheServerLock) {
    static const GPMutex* lock = serverLock();
    static std::vector<bool> held;
    testsupport::playThreadStarts([](auto* thread, auto* attributes, auto* function, auto* argument) {
        held.push_back(holdsLock(lock));
        return testsupport::startNothing(thread, attributes, function, argument);
    });
    CheckinReply reply;
    reply.serverNames = {"w.example"};
    applyCheckinReply(reply);
    FilterCheck::setServerToLocalhost();
    testsupport::playThreadStarts(nullptr);
    EXPECT_EQ(held, (std::vector<bool>{false, false}));
}

TEST_F(ServerLocks, AReplyIsDoneInItsOrder) {
    Configuration::setVerboseMode(true);
    const std::size_t before = log.messages().size();
    CheckinReply reply;
    reply.dormant = true;
    reply.nextCheckIn = "2027-01-02T03:04:05Z";
    reply.serverNames = {"x.example"};
    reply.zip = "http://nobody.example/agent.zip";
    applyCheckinReply(reply);
    const Lines all = log.messages();
    Lines lines(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
    // What other threads tell of addresses stands between.
    const auto foreign = [](const std::string& line) {
        return line.find("IP address") != std::string::npos ||
               line.find("IPAddresses") != std::string::npos || line.find("resolve") != std::string::npos ||
               line.find("Resolved") != std::string::npos;
    };
    lines.erase(std::remove_if(lines.begin(), lines.end(), foreign), lines.end());
    ASSERT_GE(lines.size(), 7u);
    lines.resize(7);
    lines[6] = lines[6].substr(0, lines[6].find(" to: "));
    EXPECT_EQ(lines, (Lines{"filtering mode from api server is: true", "Disable-Filter set to: true",
                            "next checkin time is: 2027-01-02T03:04:05Z", "checkin setting 1 servers",
                            "Added server: x.example to the config.", "checkin added 1 servers",
                            "downloading the file: http://nobody.example/agent.zip"}));
}

TEST_F(ServerLocks, ASnapshotsReferencesAreCountedUnderALockOfItsOwn) {
    class Watching final : public FilterIPAddresses {
    public:
        explicit Watching(bool& held) : held_(held) {
            lock = firstLockOf([this] { retain(); });
            release();
        }
        ~Watching() override { held_ = holdsLock(lock); }
        const GPMutex* lock;

    private:
        bool& held_;
    };
    bool held = true;
    auto* snapshot = new Watching(held);
    ASSERT_TRUE(snapshot->lock);
    {
        StoppedAtLock stopped(snapshot->lock, [&] { snapshot->retain(); });
        ASSERT_TRUE(stopped.waits());
    }
    {
        StoppedAtLock stopped(snapshot->lock, [&] { snapshot->release(); });
        ASSERT_TRUE(stopped.waits());
    }
    snapshot->release();
    EXPECT_FALSE(held) << "destroyed outside of the lock";
}

TEST_F(ServerLocks, TwoThreadsThatMeetWithTheLastTwoReferencesDestroyASnapshotOnce) {
    auto* snapshot = new FilterIPAddresses;
    const GPMutex* lock = firstLockOf([snapshot] { snapshot->retain(); });
    const auto [one, other] = bothAt(lock, [snapshot] { return snapshot->release(); });
    EXPECT_EQ(std::min(one, other), GPObject::destroyedMark);
    EXPECT_EQ(std::max(one, other), 1);
}

TEST_F(AddressLocks, TheManagersFirstBuildWaitsForItsTurn) {
    Configuration::setVerboseMode(true);
    buildmutex->lock();
    {
        const WatchedLock watched(buildmutex);
        FilterIPAddresses::startIPAddressManager();
        EXPECT_TRUE(watched.awaitWaiters(1));
        EXPECT_EQ(log.countContaining("IP"), 0);
    }
    buildmutex->unlock();
    EXPECT_TRUE(ManualClock::installed().waitForSleepers(1));
    EXPECT_EQ(log.countContaining("Resolved IP addresses in"), 1);
}

TEST_F(AddressLocks, TheManagersLaterPassesWaitForTheirTurn) {
    Configuration::setVerboseMode(true);
    FilterIPAddresses::startIPAddressManager();
    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    buildmutex->lock();
    {
        const WatchedLock watched(buildmutex);
        ManualClock::installed().advanceSeconds(10);
        EXPECT_TRUE(watched.awaitWaiters(1));
        EXPECT_EQ(log.countContaining("Refreshing IP addresses"), 0);
        // A pass is under way: a notice starts no task, and the pass serves it.
        FilterIPAddresses::notifyIPchanges();
    }
    buildmutex->unlock();
    EXPECT_TRUE(ManualClock::installed().waitForSleepers(1));
    EXPECT_EQ(log.countContaining("Recreating"), 0);
    EXPECT_EQ(log.countContaining("Resolved IP addresses in"), 2);
}

TEST_F(AddressLocks, TheTasksPassesWaitForTheirTurn) {
    Configuration::setVerboseMode(true);
    buildmutex->lock();
    {
        const WatchedLock watched(buildmutex);
        FilterIPAddresses::notifyIPchanges();
        EXPECT_TRUE(watched.awaitWaiters(1));
        EXPECT_EQ(log.countContaining("IP"), 0);
    }
    buildmutex->unlock();
    EXPECT_TRUE(ManualClock::installed().waitForSleepers(1));
    EXPECT_EQ(log.countContaining("Recreating IP address references..."), 1);
}
