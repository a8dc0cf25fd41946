#include "config/Configuration.h"

#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/GPTimer.h"
#include "gp/Owned.h"
#include "support/ManualClock.h"
#include "support/SettingsWorld.h"

using Names = std::vector<std::string>;

namespace {

class ConfigurationServers : public testsupport::SettingsWorld {
protected:
    static FilterServer* server(const char* name) { return Configuration::getFilterServer(name); }

    static void makeCurrent(const char* name) { setCurrentServer(server(name)); }

    static std::string current() {
        const char* name = Configuration::serverName();
        return name ? name : "(none)";
    }

    static std::string next() {
        FilterServer* moved = Configuration::nextServer();
        return moved ? moved->getUrl() : "(none)";
    }
};

TEST_F(ConfigurationServers, AnEmptyListHasNoCurrentServer) {
    EXPECT_EQ(Configuration::getCurrentServer(), nullptr);
    EXPECT_EQ(Configuration::nextServer(), nullptr);
    EXPECT_EQ(Configuration::serverName(), nullptr);
    EXPECT_FALSE(Configuration::hasCurrentServer());
    EXPECT_FALSE(Configuration::checkCurrentServer());
}

TEST_F(ConfigurationServers, TheFirstActiveServerIsChosen) {
    givenServers({"aaa", "bbb", "ccc"});
    server("aaa")->setActive(false);
    EXPECT_FALSE(Configuration::hasCurrentServer());
    EXPECT_EQ(current(), "bbb");
    EXPECT_TRUE(Configuration::hasCurrentServer());
}

TEST_F(ConfigurationServers, WithNoneActiveTheFirstServerIsChosen) {
    givenServers({"aaa", "bbb"});
    server("aaa")->setActive(false);
    server("bbb")->setActive(false);
    EXPECT_EQ(current(), "aaa");
}

TEST_F(ConfigurationServers, TheChoiceSticksWhenTheServerGoesDownUntilAReset) {
    givenServers({"aaa", "bbb"});
    EXPECT_EQ(current(), "aaa");
    server("aaa")->setActive(false);
    EXPECT_EQ(current(), "aaa");
    Configuration::resetCurrentServer();
    EXPECT_EQ(current(), "bbb");
}

TEST_F(ConfigurationServers, AServerIsFoundByItsExactName) {
    givenServers({"aaa", "bbb"});
    EXPECT_STREQ(server("bbb")->getUrl(), "bbb");
    EXPECT_EQ(server("BBB"), nullptr);
    EXPECT_EQ(server("bb"), nullptr);
    EXPECT_EQ(server(nullptr), nullptr);
}

TEST_F(ConfigurationServers, AShortNumberIsAnIndexAndALongOneAName) {
    givenServers({"aaa", "bbb", "001"});
    EXPECT_STREQ(server("1")->getUrl(), "bbb");
    EXPECT_STREQ(server("02")->getUrl(), "001");
    EXPECT_STREQ(server("001")->getUrl(), "001");
    EXPECT_EQ(server("3"), nullptr);
}

TEST_F(ConfigurationServers, IndexZeroIsTheFirstServerEvenWithAServerNamedZeroFurtherDown) {
    givenServers({"aaa", "bbb", "ccc"});
    auto named = Owned<GPString>::adopt(new GPString("0"));
    auto earlier = Owned<GPString>::adopt(server("ccc")->getName());
    server("ccc")->setName(named.get());
    EXPECT_STREQ(server("0")->getUrl(), "aaa");
}

TEST_F(ConfigurationServers, AShortNameThatIsNoNumberMatchesByNameAlone) {
    givenServers({"aaa", "b"});
    EXPECT_STREQ(server("b")->getUrl(), "b");
    EXPECT_EQ(server(""), nullptr);
}

TEST_F(ConfigurationServers, TheRotationWrapsFromTheLastToTheFirst) {
    givenServers({"aaa", "bbb", "ccc"});
    makeCurrent("ccc");
    EXPECT_EQ(next(), "aaa");
    EXPECT_EQ(current(), "aaa");
}

TEST_F(ConfigurationServers, TheRotationStaysSilentlyWithTheOnlyActiveServer) {
    Configuration::setLogLevel(1);
    givenServers({"aaa", "bbb", "ccc"});
    makeCurrent("ccc");
    server("aaa")->setActive(false);
    server("bbb")->setActive(false);
    EXPECT_EQ(next(), "ccc");
    EXPECT_EQ(log.countContaining("switched"), 0);
}

TEST_F(ConfigurationServers, TheRotationStaysWhenEverythingIsDown) {
    givenServers({"aaa", "bbb", "ccc"});
    for (const char* name : {"aaa", "bbb", "ccc"})
        server(name)->setActive(false);
    makeCurrent("bbb");
    EXPECT_EQ(next(), "bbb");
    makeCurrent("aaa");
    EXPECT_EQ(next(), "aaa");
}

TEST_F(ConfigurationServers, TheRotationSkipsInactiveServers) {
    givenServers({"aaa", "bbb", "ccc", "ddd"});
    server("bbb")->setActive(false);
    server("aaa")->setActive(false);
    makeCurrent("aaa");
    EXPECT_EQ(next(), "ccc");
    EXPECT_EQ(next(), "ddd");
    EXPECT_EQ(next(), "ccc");
}

TEST_F(ConfigurationServers, TheRotationLogsTheSwitchWhenVerboseAndNotBalanced) {
    Configuration::setVerboseMode(true);
    givenServers({"aaa", "bbb"});
    makeCurrent("aaa");
    EXPECT_EQ(next(), "bbb");
    EXPECT_TRUE(log.holds("switched to backup server: bbb\n"));
}

TEST_F(ConfigurationServers, TheRotationIsSilentInBalancedMode) {
    Configuration::setVerboseMode(true);
    Configuration::setBalancedMode(true);
    givenServers({"aaa", "bbb"});
    EXPECT_EQ(next(), "bbb");
    EXPECT_EQ(log.countContaining("switched"), 0);
}

TEST_F(ConfigurationServers, TheRotationIsSilentWhenNotVerbose) {
    givenServers({"aaa", "bbb"});
    EXPECT_EQ(next(), "bbb");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationServers, ARotationIsNotSavedByItselfButByTheNextSave) {
    givenServers({"aaa", "bbb"});
    EXPECT_FALSE(writesFile([] { Configuration::nextServer(); }));
    Configuration::saveConfig(true);
    EXPECT_EQ(inFile("ServerName"), "bbb");
}

TEST_F(ConfigurationServers, ASingleServerStaysCurrent) {
    givenServers({"aaa"});
    EXPECT_EQ(next(), "aaa");
}

TEST_F(ConfigurationServers, ACurrentServerThatIsNotListedStaysCurrent) {
    givenServers({"aaa", "bbb"});
    auto outsider = Owned<FilterServer>::adopt(new FilterServer("outsider"));
    setCurrentServer(outsider.get());
    EXPECT_EQ(Configuration::nextServer(), outsider.get());
    EXPECT_EQ(current(), "outsider");
    clearCurrentServer();
}

TEST_F(ConfigurationServers, TwoDownReportsWithinASecondLogOnceAndALaterOneCounts) {
    givenServers({"aaa", "bbb"});
    Configuration::addDownServer("aaa");
    testsupport::ManualClock::installed().advance(900000);
    Configuration::addDownServer("aaa");
    EXPECT_EQ(log.messages(), Names{"server: aaa is down"});
    EXPECT_FALSE(server("aaa")->isActive());
    EXPECT_EQ(server("aaa")->getTimer()->retryCount(), 0);

    testsupport::ManualClock::installed().advanceSeconds(4);
    Configuration::addDownServer("aaa");
    EXPECT_EQ(log.messages(), (Names{"server: aaa is down", "server: aaa is still down"}));
    EXPECT_EQ(server("aaa")->getTimer()->retryCount(), 1);
}

TEST_F(ConfigurationServers, ADownReportAtExactlyThreeSecondsDoesNotCount) {
    givenServers({"aaa"});
    Configuration::addDownServer("aaa");
    testsupport::ManualClock::installed().advance(3000000);
    Configuration::addDownServer("aaa");
    EXPECT_EQ(server("aaa")->getTimer()->retryCount(), 0);
    testsupport::ManualClock::installed().advance(1);
    Configuration::addDownServer("aaa");
    EXPECT_EQ(server("aaa")->getTimer()->retryCount(), 1);
}

TEST_F(ConfigurationServers, PastTheFirstThreeSecondsEveryDownReportCounts) {
    givenServers({"aaa"});
    Configuration::addDownServer("aaa");
    testsupport::ManualClock::installed().advanceSeconds(4);
    Configuration::addDownServer("aaa");
    Configuration::addDownServer("aaa");
    EXPECT_EQ(server("aaa")->getTimer()->retryCount(), 2);
    EXPECT_EQ(log.countContaining("is still down"), 2);
}

TEST_F(ConfigurationServers, ADownServerStaysCurrentUntilTheRotationMovesOn) {
    givenServers({"aaa", "bbb"});
    EXPECT_EQ(current(), "aaa");
    Configuration::addDownServer("aaa");
    EXPECT_EQ(current(), "aaa");
    EXPECT_EQ(next(), "bbb");
    EXPECT_EQ(next(), "bbb") << "it is the only one still active";
}

TEST_F(ConfigurationServers, ADownServerComesBackByNameAlone) {
    givenServers({"aaa", "bbb"});
    Configuration::addDownServer("bbb");
    EXPECT_EQ(Configuration::removeDownServers(), 0);
    EXPECT_FALSE(server("bbb")->isActive()) << "nothing brings all servers back at once";
    Configuration::removeDownServer("bbb");
    EXPECT_TRUE(server("bbb")->isActive());
    EXPECT_EQ(server("bbb")->getTimer(), nullptr);
}

TEST_F(ConfigurationServers, DownReportsReachACurrentServerThatIsNotListed) {
    auto outsider = Owned<FilterServer>::adopt(new FilterServer("outsider"));
    setCurrentServer(outsider.get());
    Configuration::addDownServer("outsider");
    EXPECT_FALSE(outsider->isActive());
    Configuration::removeDownServer("outsider");
    EXPECT_TRUE(outsider->isActive());
    clearCurrentServer();
}

TEST_F(ConfigurationServers, DownReportsOfAnUnknownServerDoNothing) {
    givenServers({"aaa"});
    Configuration::addDownServer("xxx");
    Configuration::removeDownServer("xxx");
    EXPECT_TRUE(server("aaa")->isActive());
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationServers, AnAddedServerGoesToTheEndAndIsSavedWhenAsked) {
    EXPECT_FALSE(writesFile([] { EXPECT_TRUE(Configuration::addServerName("aaa", false)); }));
    EXPECT_TRUE(writesFile([] { EXPECT_TRUE(Configuration::addServerName("bbb", true)); }));
    EXPECT_EQ(listedServers(), (Names{"aaa", "bbb"}));
    EXPECT_TRUE(log.messages().empty());
    Configuration::setVerboseMode(true);
    Configuration::addServerName("ccc", false);
    EXPECT_TRUE(log.holds("Added server: ccc to the config."));
}

TEST_F(ConfigurationServers, AnUnsavedServerIsWrittenByTheNextSave) {
    Configuration::addServerName("aaa", false);
    EXPECT_TRUE(writesFile([] { Configuration::saveConfig(false); }));
    EXPECT_NE(file().find("<ServerName ServerType=\"1\">aaa</ServerName>"), std::string::npos);
}

TEST_F(ConfigurationServers, ANullOrEmptyNameIsNeitherAddedNorRemoved) {
    givenServers({"aaa"});
    EXPECT_FALSE(Configuration::addServerName(nullptr, true));
    EXPECT_FALSE(Configuration::addServerName("", true));
    EXPECT_FALSE(Configuration::addServerName("", true, true));
    EXPECT_FALSE(Configuration::removeServerName(nullptr, true));
    EXPECT_FALSE(Configuration::removeServerName("", true));
    EXPECT_EQ(listedServers(), Names{"aaa"});
}

TEST_F(ConfigurationServers, AServerThatIsListedIsNotAddedAgain) {
    givenServers({"aaa"});
    EXPECT_FALSE(Configuration::addServerName("aaa", true));
    EXPECT_TRUE(log.messages().empty());
    Configuration::setVerboseMode(true);
    EXPECT_FALSE(Configuration::addServerName("aaa", true));
    EXPECT_TRUE(log.holds("Server aaa already present; not adding it."));
}

TEST_F(ConfigurationServers, AShortNumberThatIsAValidIndexCountsAsPresent) {
    givenServers({"aaa"});
    EXPECT_FALSE(Configuration::addServerName("0", false));
    EXPECT_TRUE(Configuration::addServerName("1", false));
    EXPECT_EQ(listedServers(), (Names{"aaa", "1"}));
}

TEST_F(ConfigurationServers, ReplacingTheListLeavesOneEntryAndTheOldCurrentServerUntilAReset) {
    givenServers({"aaa", "bbb", "ccc"});
    EXPECT_EQ(current(), "aaa");
    EXPECT_TRUE(Configuration::addServerName("x", false, true));
    EXPECT_EQ(listedServers(), Names{"x"});
    EXPECT_EQ(current(), "aaa");
    Configuration::resetCurrentServer();
    EXPECT_EQ(current(), "x");
}

TEST_F(ConfigurationServers, TheSaveAfterAReplacementRepairsTheCurrentServer) {
    givenServers({"aaa", "bbb", "ccc"});
    EXPECT_EQ(current(), "aaa");
    Configuration::setVerboseMode(true);
    Configuration::addServerName("x", false, true);
    Configuration::saveConfig(true);
    EXPECT_EQ(current(), "x");
    EXPECT_EQ(inFile("ServerName"), "x");
    EXPECT_TRUE(log.holds("Removing current server: aaa from the config."));
}

TEST_F(ConfigurationServers, ARepairLeavesTheSettingsDirtyForOneMoreSave) {
    givenServers({"aaa"});
    EXPECT_EQ(current(), "aaa");
    Configuration::addServerName("x", false, true);
    Configuration::saveConfig(true);
    EXPECT_TRUE(writesFile([] { Configuration::saveConfig(false); }));
    EXPECT_FALSE(writesFile([] { Configuration::saveConfig(false); }));
}

TEST_F(ConfigurationServers, ACurrentServerOfTheSameNameNeedsNoRepair) {
    givenServers({"aaa", "bbb"});
    FilterServer* old = Configuration::getCurrentServer();
    Configuration::addServerName("aaa", false, true);
    EXPECT_FALSE(Configuration::checkCurrentServer());
    EXPECT_EQ(Configuration::getCurrentServer(), old);
}

TEST_F(ConfigurationServers, ARemovedServerLeavesTheListAndIsNoLongerCurrent) {
    givenServers({"aaa", "bbb"});
    EXPECT_EQ(current(), "aaa");
    FilterServer* removed = server("aaa");
    EXPECT_TRUE(writesFile([] { EXPECT_TRUE(Configuration::removeServerName("aaa", true)); }));
    EXPECT_EQ(listedServers(), Names{"bbb"});
    EXPECT_EQ(current(), "bbb");
    EXPECT_STREQ(removed->getUrl(), "aaa") << "another thread may still use the record";
}

TEST_F(ConfigurationServers, ARemovalByIndexTakesThatServer) {
    givenServers({"aaa", "bbb", "ccc"});
    EXPECT_TRUE(Configuration::removeServerName("1", false));
    EXPECT_EQ(listedServers(), (Names{"aaa", "ccc"}));
}

TEST_F(ConfigurationServers, RemovalsAreLoggedWhenVerbose) {
    givenServers({"aaa"});
    EXPECT_FALSE(Configuration::removeServerName("xxx", false));
    EXPECT_TRUE(log.messages().empty());
    Configuration::setVerboseMode(true);
    EXPECT_FALSE(Configuration::removeServerName("xxx", false));
    EXPECT_TRUE(Configuration::removeServerName("aaa", false));
    EXPECT_TRUE(log.holds("Server xxx not present; not removing it."));
    EXPECT_TRUE(log.holds("Removed server aaa from the config."));
}

TEST_F(ConfigurationServers, RemovingAllServersKeepsTheOldOneAsTheTopLevelName) {
    givenServers({"aaa", "bbb"});
    EXPECT_EQ(current(), "aaa");
    EXPECT_TRUE(writesFile([] { EXPECT_TRUE(Configuration::removeAllServers(true)); }));
    EXPECT_TRUE(listedServers().empty());
    EXPECT_EQ(inFile("ServerName"), "aaa");
    EXPECT_NE(file().find("<Servers>\n</Servers>\n"), std::string::npos);
}

TEST_F(ConfigurationServers, RemovingAllServersCanWaitForALaterSave) {
    givenServers({"aaa"});
    Configuration::saveConfig(true);
    EXPECT_FALSE(writesFile([] { Configuration::removeAllServers(false); }));
    EXPECT_TRUE(writesFile([] { Configuration::saveConfig(false); }));
}

TEST_F(ConfigurationServers, ASnapshotOfTheListOutlivesARemoval) {
    givenServers({"aaa", "bbb"});
    auto snapshot = Owned<GPArray>::adopt(Configuration::serverNames());
    Configuration::removeAllServers(false);
    ASSERT_EQ(snapshot->count(), 2);
    EXPECT_STREQ(static_cast<FilterServer*>(snapshot->objectAtIndex(1))->getUrl(), "bbb");
}

TEST_F(ConfigurationServers, ARemovalHasTheNextSaveRepairTheCurrentServer) {
    givenServers({"a.example", "b.example"});
    Configuration::saveConfig(true);
    const auto gone = Owned<FilterServer>::adopt(new FilterServer("gone.example"));
    setCurrentServer(gone.get());
    EXPECT_TRUE(Configuration::removeServerName("b.example", false));
    EXPECT_TRUE(writesFile([] { EXPECT_TRUE(Configuration::saveConfig(false)); }));
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    EXPECT_EQ(inFile("ServerName"), "a.example");
}

TEST_F(ConfigurationServers, ARemovalOfAllHasTheNextSaveWriteTheFile) {
    givenServers({"a.example"});
    Configuration::saveConfig(true);
    Configuration::removeAllServers(false);
    EXPECT_TRUE(writesFile([] { EXPECT_TRUE(Configuration::saveConfig(false)); }));
}

TEST_F(ConfigurationServers, ASaveWithoutAChangeOfTheListRepairsNothing) {
    givenServers({"a.example"});
    Configuration::saveConfig(true);
    const auto gone = Owned<FilterServer>::adopt(new FilterServer("gone.example"));
    setCurrentServer(gone.get());
    Configuration::saveConfig(true);
    EXPECT_STREQ(Configuration::serverName(), "gone.example");
    Configuration::resetCurrentServer();
}

TEST_F(ConfigurationServers, ARemovedServerIsNoLongerCurrentBeforeAnySave) {
    givenServers({"a.example", "b.example"});
    Configuration::getCurrentServer();
    EXPECT_TRUE(Configuration::removeServerName("a.example", false));
    EXPECT_FALSE(Configuration::hasCurrentServer());
    Configuration::getCurrentServer();
    givenServers({"c.example"});
    EXPECT_TRUE(Configuration::removeServerName("c.example", false));
    EXPECT_TRUE(Configuration::hasCurrentServer());
}

} // namespace
