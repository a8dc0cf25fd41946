// What the settings' locks cover: an operation that is held up at one has done nothing of what is under it, and looks
// again at what may have changed meanwhile.

#include "config/CheckinReply.h"
#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "config/FilterCheck.h"
#include "config/FilterIPAddresses.h"
#include "filter/FilterQuery.h"
#include "gp/GPDate.h"
#include "gp/GPFilesystem.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPTimer.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/HeldLocks.h"
#include "support/LivingObjects.h"
#include "support/ManualClock.h"
#include "support/PlayedInterfaces.h"
#include "support/PlayedNames.h"
#include "support/ProgramSymbols.h"
#include "support/SettingsWorld.h"
#include "support/ThreadStarts.h"

#include <algorithm>
#include <functional>
#include <future>

namespace {

using testsupport::BeforeRelease;
using testsupport::firstLockOf;
using testsupport::holdsLock;
using testsupport::locksTakenBy;
using testsupport::ManualClock;
using testsupport::StoppedAtLock;
using testsupport::WatchedLock;
using Lines = std::vector<std::string>;
using Locks = std::vector<const GPMutex*>;

class ConfigurationLocks : public testsupport::SettingsWorld {
protected:
    ConfigurationLocks() {
        names_.install();
        interfaces_.install();
        interfaces_.show(
            testsupport::EntryBuilder().link("en0", "\x02\x11\x22\x33\x44\x55").ipv4("en0", "192.0.2.1"));
    }

    // Runs the same on two threads that both wait at a lock before the first of them gets it.
    template <class Operation>
    static auto bothAt(const GPMutex* lock, Operation operation) {
        const_cast<GPMutex*>(lock)->lock();
        const WatchedLock watched(lock);
        auto one = std::async(std::launch::async, operation);
        auto other = std::async(std::launch::async, operation);
        EXPECT_TRUE(watched.awaitWaiters(2));
        const_cast<GPMutex*>(lock)->unlock();
        return std::pair(one.get(), other.get());
    }

    static const GPMutex* lockOf(FilterServer* server) {
        return firstLockOf([server] {
            server->lock();
            server->unlock();
        });
    }

    static const GPMutex* serverLock() {
        return firstLockOf([] {
            FilterQuery::lockServers();
            FilterQuery::unlockServers();
        });
    }

    static void setTime(const char* text) {
        Configuration::setCheckInTimeStamp(Owned<GPString>::adopt(new GPString(text)).get());
    }

    static bool hasTime() { return bool(Owned<GPDate>::adopt(Configuration::checkInTimeStamp())); }

    const GPMutex* mutex = firstLockOf([] { Configuration::saveConfig(true); });
    const GPMutex* valuesMutex = firstLockOf([] { hasTime(); });

private:
    // Both outlive the test, as a background thread may.
    testsupport::PlayedNames& names_ = *new testsupport::PlayedNames;
    testsupport::PlayedInterfaces& interfaces_ = *new testsupport::PlayedInterfaces;
};

} // namespace

TEST_F(ConfigurationLocks, TheFileIsReadUnderTheLock) {
    StoppedAtLock stopped(mutex, [] { EXPECT_TRUE(Configuration::loadConfig()); });
    ASSERT_TRUE(stopped.waits());
    givenFile("<Fernhill><LogLevel>16</LogLevel></Fernhill>");
    stopped.letGo();
    EXPECT_EQ(Configuration::getLogLevel(), 16);
}

TEST_F(ConfigurationLocks, OfTwoLoadsThatMetAtTheLockOneIsMade) {
    const auto [one, other] = bothAt(mutex, [] { return Configuration::loadConfig(); });
    EXPECT_NE(one, other);
}

TEST_F(ConfigurationLocks, ALoadCountsAsMadeOnlyWhenTheFileHasBeenRead) {
    givenFile("<Fernhill><CheckInTimeStamp>2027-01-02T03:04:05Z</CheckInTimeStamp><LogLevel>16</LogLevel></"
              "Fernhill>");
    StoppedAtLock reading(valuesMutex, [] { EXPECT_TRUE(Configuration::loadConfig()); });
    ASSERT_TRUE(reading.waits());
    const WatchedLock watched(mutex);
    auto second = std::async(std::launch::async, [] {
        EXPECT_FALSE(Configuration::loadConfig());
        return Configuration::getLogLevel();
    });
    EXPECT_TRUE(watched.awaitWaiters(1));
    reading.letGo();
    EXPECT_EQ(second.get(), 16);
}

TEST_F(ConfigurationLocks, ALoadThatWasMadeBeforeTakesNoLock) {
    Configuration::loadConfig();
    EXPECT_EQ(locksTakenBy([] { EXPECT_FALSE(Configuration::loadConfig()); }), Locks{});
}

TEST_F(ConfigurationLocks, TheFileIsWrittenUnderTheLockWithTheValuesOfThatMoment) {
    removeFile();
    StoppedAtLock stopped(mutex, [] { Configuration::setBOF(true); });
    ASSERT_TRUE(stopped.waits());
    EXPECT_EQ(file(), "");
    configurationState.logLevel = 64;
    stopped.letGo();
    EXPECT_EQ(inFile("BlockOnFailure"), "true");
    EXPECT_EQ(inFile("LogLevel"), "64");
}

TEST_F(ConfigurationLocks, TheLockIsStillHeldWhenTheFileIsWritten) {
    removeFile();
    const BeforeRelease released(mutex, [this] { EXPECT_EQ(inFile("BlockOnFailure"), "true"); });
    Configuration::setBOF(true);
    EXPECT_EQ(released.count(), 1);
}

TEST_F(ConfigurationLocks, ASaveThatFindsTheSettingsSavedWhenItGetsTheLockWritesNothing) {
    Configuration::addServerName("a.example", false);
    removeFile();
    StoppedAtLock stopped(mutex, [] { EXPECT_TRUE(Configuration::saveConfig(false)); });
    ASSERT_TRUE(stopped.waits());
    configurationState.bIsDirty = false;
    stopped.letGo();
    EXPECT_EQ(file(), "");
}

TEST_F(ConfigurationLocks, AForcedSaveWritesWhateverItFinds) {
    Configuration::addServerName("a.example", false);
    removeFile();
    StoppedAtLock stopped(mutex, [] { EXPECT_TRUE(Configuration::saveConfig(true)); });
    configurationState.bIsDirty = false;
    stopped.letGo();
    EXPECT_NE(file(), "");
}

TEST_F(ConfigurationLocks, ASaveWithNothingToDoTakesNoLock) {
    EXPECT_EQ(locksTakenBy([] { EXPECT_TRUE(Configuration::saveConfig(false)); }), Locks{});
}

TEST_F(ConfigurationLocks, TheIdentifierIsGeneratedUnderTheLockAndSavedBehindIt) {
    removeFile();
    StoppedAtLock stopped(mutex, [] { Configuration::loadUUID(); });
    ASSERT_TRUE(stopped.waits());
    EXPECT_EQ(log.countContaining("Generated UUID"), 0);
    stopped.letGo();
    EXPECT_EQ(log.countContaining("Generated UUID"), 1);
    EXPECT_EQ(inFile("MachineUUID"), Configuration::machineGUID());
}

TEST_F(ConfigurationLocks, OfTwoThreadsThatMetAtTheLockOneGeneratesTheIdentifier) {
    bothAt(mutex, [] {
        Configuration::loadUUID();
        return 0;
    });
    EXPECT_EQ(log.countContaining("Generated UUID"), 1);
}

TEST_F(ConfigurationLocks, AStoredIdentifierTakesNoLock) {
    Configuration::loadUUID();
    EXPECT_EQ(locksTakenBy([] { Configuration::loadUUID(); }), Locks{});
}

TEST_F(ConfigurationLocks, TheRotationStepsUnderTheLock) {
    givenServers({"a.example", "b.example"});
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    StoppedAtLock stopped(mutex, [] { Configuration::nextServer(); });
    ASSERT_TRUE(stopped.waits());
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    stopped.letGo();
    EXPECT_STREQ(Configuration::serverName(), "b.example");
}

TEST_F(ConfigurationLocks, ARotationThatStaysTakesNoLock) {
    givenServers({"a.example", "b.example"});
    Configuration::getFilterServer("b.example")->setActive(false);
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    StoppedAtLock running(mutex, [] { Configuration::nextServer(); });
    EXPECT_FALSE(running.waits());
}

TEST_F(ConfigurationLocks, AServersTimerIsReplacedUnderTheServersLock) {
    auto server = Owned<FilterServer>::adopt(new FilterServer("a.example"));
    const GPMutex* lock = lockOf(server.get());
    auto* timer = new GPTimer(true);
    {
        StoppedAtLock stopped(lock, [&] { server->setDownState(timer); });
        ASSERT_TRUE(stopped.waits());
        EXPECT_FALSE(server->isActive());
        EXPECT_EQ(server->getTimer(), nullptr);
    }
    EXPECT_EQ(server->getTimer(), timer);
    {
        StoppedAtLock stopped(lock, [&] { server->removeDownState(); });
        ASSERT_TRUE(stopped.waits());
        EXPECT_FALSE(server->isActive());
        EXPECT_EQ(server->getTimer(), timer);
    }
    EXPECT_TRUE(server->isActive());
    EXPECT_EQ(server->getTimer(), nullptr);
}

TEST_F(ConfigurationLocks, AFurtherFailureIsCountedUnderTheServersLock) {
    givenServers({"a.example"});
    FilterServer* server = Configuration::getCurrentServer();
    Configuration::addDownServer("a.example");
    ManualClock::installed().advanceSeconds(4);
    StoppedAtLock stopped(lockOf(server), [] { Configuration::addDownServer("a.example"); });
    ASSERT_TRUE(stopped.waits());
    EXPECT_EQ(server->getTimer()->retryCount(), 0);
    stopped.letGo();
    EXPECT_EQ(server->getTimer()->retryCount(), 1);
    EXPECT_EQ(log.messages(), (Lines{"server: a.example is down", "server: a.example is still down"}));
}

TEST_F(ConfigurationLocks, TheTimeOfTheNextCheckInHasALockOfItsOwn) {
    ASSERT_NE(valuesMutex, mutex);
    setTime("2026-11-14T05:56:50Z");
    {
        StoppedAtLock stopped(valuesMutex, [] { setTime("2027-01-02T03:04:05Z"); });
        ASSERT_TRUE(stopped.waits());
        EXPECT_EQ(inFile("CheckInTimeStamp"), "2026-11-14T05:56:50Z");
    }
    EXPECT_EQ(inFile("CheckInTimeStamp"), "2027-01-02T03:04:05Z");
    {
        StoppedAtLock stopped(valuesMutex, [] { EXPECT_TRUE(hasTime()); });
        EXPECT_TRUE(stopped.waits());
    }
    StoppedAtLock saving(valuesMutex, [] { Configuration::saveConfig(true); });
    EXPECT_TRUE(saving.waits());
}

TEST_F(ConfigurationLocks, TheTimeOfTheNextCheckInIsLoadedUnderItsLock) {
    givenFile("<Fernhill><CheckInTimeStamp>2027-01-02T03:04:05Z</CheckInTimeStamp></Fernhill>");
    StoppedAtLock stopped(valuesMutex, [] { Configuration::loadConfig(); });
    EXPECT_TRUE(stopped.waits());
    stopped.letGo();
    EXPECT_TRUE(hasTime());
}

TEST_F(ConfigurationLocks, TheLocalServerIsListedSavedAndMadeCurrentUnderTheServerLock) {
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

TEST_F(ConfigurationLocks, TheLocalServerIsSavedBeforeTheCurrentOneIsForgotten) {
    givenServers({"old.example"});
    Configuration::serverName();
    Configuration::setVerboseMode(true);
    FilterCheck::setServerToLocalhost();
    // It is the save that finds the old one no longer listed.
    EXPECT_TRUE(log.holds("Removing current server: old.example from the config."));
}

TEST_F(ConfigurationLocks, AReplysServersAreListedSavedAndMadeCurrentUnderTheServerLock) {
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

TEST_F(ConfigurationLocks, AReplysServersAreSavedUnderTheServerLock) {
    const GPMutex* lock = serverLock();
    CheckinReply reply;
    reply.serverNames = {"w", "x"};
    const BeforeRelease released(mutex, [lock] { EXPECT_TRUE(holdsLock(lock)); });
    applyCheckinReply(reply);
    EXPECT_EQ(released.count(), 1);
}

TEST_F(ConfigurationLocks, NewServersAreLookedUpBehindTheServerLock) {
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

TEST_F(ConfigurationLocks, EachChangeIsLoggedBeforeItIsSaved) {
    Configuration::setVerboseMode(true);
    const std::vector<std::pair<std::string, std::function<void()>>> changes = {
        {"Block on Failure set to: true", [] { Configuration::setBOF(true); }},
        {"Balanced Mode set to: true", [] { Configuration::setBalancedMode(true); }},
        {"Disable-Filter set to: true", [] { Configuration::setFilteringDisabled(true); }},
        {"Enable Ostler set to: true", [] { Configuration::setOstlerEnabled(true); }},
        {"UpdateReady set to: true", [] { Configuration::setUpdateReady(true); }},
        {"OEM-Mode set to: true", [] { Configuration::setOEMMode(true); }},
        {"setting cacheduser: alice", [] { Configuration::setCachedUserName("alice"); }},
        {"setting localuser: alice", [] { Configuration::setLocalUserName("alice"); }},
        {"Verbose set to: false", [] { Configuration::setVerboseMode(false); }},
    };
    for (const auto& [line, change] : changes) {
        const BeforeRelease saved(mutex, [&, text = line] { EXPECT_TRUE(log.holds(text)) << text; });
        change();
        EXPECT_EQ(saved.count(), 1) << line;
    }
}

TEST_F(ConfigurationLocks, ASaveLeavesNoObjectAndALoadNoneButTheSettings) {
    givenServers({"a.example"});
    Configuration::setLastRelay("alice", "relay", "email");
    setTime("2027-01-02T03:04:05Z");
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::saveConfig(true); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::configString(); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { hasTime(); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { setTime("2027-01-02T03:04:06Z"); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::getLastRelayUser("CORP\\alice"); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::getLastRelay("bob"); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::getLastRelayUserFormat("alice"); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::nextServer(); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::getFilterServer("0"); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::resetCurrentServer(); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::checkCurrentServer(); }), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { Configuration::loadUUID(); }), 0);
}

TEST_F(ConfigurationLocks, TheTwoMarkerFilesLeaveNoObject) {
    testsupport::writeAll(platform::HostPaths::debugFile(), "<a><VerboseLogging>true</VerboseLogging></a>");
    testsupport::writeAll(platform::HostPaths::oemMarkerFile(), "<a><Vendor>Acme</Vendor></a>");
    EXPECT_EQ(testsupport::objectsLeftBy(Configuration::checkDebugConfig), 0);
    EXPECT_EQ(testsupport::objectsLeftBy(Configuration::checkOEMConfig), 0);
}

TEST_F(ConfigurationLocks, AReplyIsDoneInItsOrder) {
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

TEST_F(ConfigurationLocks, ASnapshotsReferencesAreCountedUnderALockOfItsOwn) {
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

TEST_F(ConfigurationLocks, TwoThreadsThatMeetWithTheLastTwoReferencesDestroyASnapshotOnce) {
    auto* snapshot = new FilterIPAddresses;
    const GPMutex* lock = firstLockOf([snapshot] { snapshot->retain(); });
    const auto [one, other] = bothAt(lock, [snapshot] { return snapshot->release(); });
    EXPECT_EQ(std::min(one, other), GPObject::destroyedMark);
    EXPECT_EQ(std::max(one, other), 1);
}

class AddressLocks : public ConfigurationLocks {
protected:
    AddressLocks() { givenServers({"a.example"}); }

    GPMutex* buildmutex = *reinterpret_cast<GPMutex**>(testsupport::programVariable("buildmutex"));
};

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
