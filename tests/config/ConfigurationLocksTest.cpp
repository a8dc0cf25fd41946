// What the settings' locks cover: an operation that is held up at one has done nothing of what is under it, and looks
// again at what may have changed meanwhile.

#include "config/ConfigurationState.h"
#include "gp/GPTimer.h"
#include "platform/HostPaths.h"
#include "support/LivingObjects.h"
#include "support/ManualClock.h"
#include "support/SettingsLocksWorld.h"

#include <functional>

namespace {

using testsupport::BeforeRelease;
using testsupport::locksTakenBy;
using testsupport::ManualClock;
using testsupport::StoppedAtLock;
using testsupport::WatchedLock;
using Lines = std::vector<std::string>;
using Locks = std::vector<const GPMutex*>;

class ConfigurationLocks : public testsupport::SettingsLocksWorld {};

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
