#include "config/Configuration.h"

#include "gp/GPDate.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/SettingsWorld.h"
#include "support/StoredSettings.h"

#include <filesystem>
#include <sys/stat.h>
#include <thread>

using Names = std::vector<std::string>;

namespace {

class ConfigurationFile : public testsupport::SettingsWorld {
protected:
    void load(const std::string& content) const {
        givenFile(content);
        Configuration::loadConfig();
    }
};

const char* const defaults = testsupport::defaultSettings;

TEST_F(ConfigurationFile, TheFirstLoadSaysTrueAndEveryLaterOneFalse) {
    EXPECT_TRUE(Configuration::loadConfig());
    EXPECT_FALSE(Configuration::loadConfig());
    givenFile("<Fernhill><Ostler>true</Ostler></Fernhill>");
    EXPECT_FALSE(Configuration::loadConfig());
    EXPECT_FALSE(Configuration::isOstlerEnabled()) << "no operation reads the file again";
}

TEST_F(ConfigurationFile, AMissingFileGivesDefaultsWithoutAMessage) {
    std::filesystem::remove_all(platform::HostPaths::settingsDirectory());
    EXPECT_TRUE(Configuration::loadConfig());
    EXPECT_TRUE(std::filesystem::is_directory(platform::HostPaths::settingsDirectory()));
    EXPECT_TRUE(file().empty());
    EXPECT_TRUE(log.messages().empty());
    EXPECT_STREQ(Configuration::configString(), defaults);
}

TEST_F(ConfigurationFile, AnEmptyFileOrOneWithoutAnyElementGivesDefaultsWithoutAMessage) {
    load("");
    EXPECT_STREQ(Configuration::configString(), defaults);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationFile, TextWithoutAnElementCountsAsNoFile) {
    load("this is no document");
    EXPECT_STREQ(Configuration::configString(), defaults);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationFile, AnUnreadableFileCountsAsNoFile) {
    makeFileUnwritable();
    EXPECT_TRUE(Configuration::loadConfig());
    EXPECT_STREQ(Configuration::configString(), defaults);
}

TEST_F(ConfigurationFile, ARootThatHoldsNoSettingsElementIsNotTakenOver) {
    load("<Other><Ostler>true</Ostler></Other>");
    EXPECT_FALSE(Configuration::isOstlerEnabled());
    EXPECT_FALSE(Configuration::loadConfig());
}

TEST_F(ConfigurationFile, ASettingsElementBelowAnotherRootIsTaken) {
    load("<Backup><Old><Fernhill><Ostler>true</Ostler></Fernhill></Old></Backup>");
    EXPECT_TRUE(Configuration::isOstlerEnabled());
}

TEST_F(ConfigurationFile, AFileWithVerboseAndNothingElseLoadsWithVerboseOnAndSavesAllElements) {
    load("<Fernhill><VerboseLogging>true</VerboseLogging></Fernhill>");
    EXPECT_TRUE(Configuration::isVerbose());
    EXPECT_TRUE(listedServers().empty());
    EXPECT_TRUE(Configuration::saveConfig(true));
    std::string expected = defaults;
    const std::string off = "<VerboseLogging>false", on = "<VerboseLogging>true";
    expected.replace(expected.find(off), off.size(), on);
    EXPECT_EQ(file(), expected);
    EXPECT_EQ(inFile("MachineUUID"), "(none)");
}

TEST_F(ConfigurationFile, AllSeventeenElementsComeInTheirOrder) {
    load("<Fernhill><MachineUUID>0123</MachineUUID><LogLevel>80</LogLevel><kll>3</kll>"
         "<InternalNetwork>true</InternalNetwork></Fernhill>");
    GPString time("2026-11-14T10:30:00Z");
    Configuration::setCheckInTimeStamp(&time);
    Configuration::setCachedUserName("D\\anna");
    Configuration::setLocalUserName("anna");
    Configuration::setBOF(true);
    Configuration::setBalancedMode(true);
    Configuration::setOEMMode(true);
    Configuration::setFilteringDisabled(true);
    Configuration::setOstlerEnabled(true);
    Configuration::setUpdateReady(true);
    Configuration::setLastRelay("anna", "relay", "format");
    givenServers({"first.example", "second.example"});
    Configuration::getFilterServer("second.example")->setServerType(ServerTypeIIS);
    Configuration::saveConfig(true);
    EXPECT_EQ(file(), "<Fernhill>\n"
                      "<MachineUUID>0123</MachineUUID>\n"
                      "<ServerName>first.example</ServerName>\n"
                      "<BlockOnFailure>true</BlockOnFailure>\n"
                      "<BalancedMode>true</BalancedMode>\n"
                      "<VerboseLogging>false</VerboseLogging>\n"
                      "<OEMMode>true</OEMMode>\n"
                      "<FilteringDisabled>true</FilteringDisabled>\n"
                      "<InternalNetwork>true</InternalNetwork>\n"
                      "<Ostler>true</Ostler>\n"
                      "<UpdateReady>true</UpdateReady>\n"
                      "<CachedUserName>D\\anna</CachedUserName>\n"
                      "<LocalUserName>anna</LocalUserName>\n"
                      "<CheckInTimeStamp>2026-11-14T10:30:00Z</CheckInTimeStamp>\n"
                      "<LogLevel>80</LogLevel>\n"
                      "<kll>3</kll>\n"
                      "<Users>\n<anna UserFormatType=\"format\">relay</anna>\n</Users>\n"
                      "<Servers>\n"
                      "<ServerName ServerType=\"1\">first.example</ServerName>\n"
                      "<ServerName ServerType=\"2\">second.example</ServerName>\n"
                      "</Servers>\n"
                      "</Fernhill>\n");
}

TEST_F(ConfigurationFile, EverySavedSettingButTheRelaysComesBackAtALoad) {
    const std::string saved = "<Fernhill>\n"
                              "<MachineUUID>0123</MachineUUID>\n"
                              "<ServerName>second.example</ServerName>\n"
                              "<BlockOnFailure>true</BlockOnFailure>\n"
                              "<BalancedMode>true</BalancedMode>\n"
                              "<VerboseLogging>true</VerboseLogging>\n"
                              "<OEMMode>true</OEMMode>\n"
                              "<FilteringDisabled>true</FilteringDisabled>\n"
                              "<InternalNetwork>true</InternalNetwork>\n"
                              "<Ostler>true</Ostler>\n"
                              "<UpdateReady>true</UpdateReady>\n"
                              "<CachedUserName>anna</CachedUserName>\n"
                              "<LocalUserName>bert</LocalUserName>\n"
                              "<CheckInTimeStamp>2026-11-14T10:30:00Z</CheckInTimeStamp>\n"
                              "<LogLevel>80</LogLevel>\n"
                              "<kll>3</kll>\n"
                              "<Users>\n</Users>\n"
                              "<Servers>\n"
                              "<ServerName ServerType=\"0\">first.example</ServerName>\n"
                              "<ServerName ServerType=\"2\">second.example</ServerName>\n"
                              "</Servers>\n"
                              "</Fernhill>\n";
    load(saved);
    EXPECT_STREQ(Configuration::cachedUserName(), "anna");
    EXPECT_STREQ(Configuration::localUserName(), "bert");
    EXPECT_EQ(Configuration::getFilterServer("first.example")->getServerType(), ServerTypeUnknown);
    EXPECT_EQ(Configuration::getCurrentServer(), Configuration::getFilterServer("second.example"));
    EXPECT_STREQ(Configuration::machineGUID(), "0123");
    Configuration::saveConfig(true);
    EXPECT_EQ(file(), saved);
}

TEST_F(ConfigurationFile, ASavedRelayRowIsDroppedAtTheNextLoad) {
    load("<Fernhill><Users><bob UserFormatType=\"f\">relay</bob></Users></Fernhill>");
    EXPECT_STREQ(Configuration::getLastRelayUser("bob")->cstr(), "");
    Configuration::saveConfig(true);
    EXPECT_NE(file().find("<Users>\n</Users>\n"), std::string::npos);
}

TEST_F(ConfigurationFile, ARelayRowLoadsUnderTheAttributeServerTypeAlone) {
    load("<Fernhill><Users><bob ServerType=\"f\">relay</bob><ann ServerType=\"g\"></ann>"
         "<cid Other=\"h\">relay</cid><dan>relay</dan></Users></Fernhill>");
    EXPECT_STREQ(Configuration::getLastRelayUser("bob")->cstr(), "relay");
    EXPECT_STREQ(Configuration::getLastRelayUserFormat("bob")->cstr(), "f");
    EXPECT_EQ(Configuration::getLastRelay("ann"), nullptr);
    EXPECT_EQ(Configuration::getLastRelay("cid"), nullptr);
    EXPECT_EQ(Configuration::getLastRelay("dan"), nullptr);
}

TEST_F(ConfigurationFile, ARelayRowWithoutANameIsLeftOut) {
    load("<Fernhill><Users>< ServerType=\"f\">relay</><bob ServerType=\"f\">relay</bob></Users></Fernhill>");
    EXPECT_EQ(Configuration::getLastRelay(""), nullptr);
    EXPECT_TRUE(Configuration::getLastRelay("bob"));
}

TEST_F(ConfigurationFile, TrueInAnyCaseAndNumbersAboveZeroReadAsTrue) {
    load("<Fernhill><BlockOnFailure>TRUE</BlockOnFailure><BalancedMode>True</BalancedMode>"
         "<VerboseLogging>1</VerboseLogging><OEMMode>7</OEMMode>"
         "<FilteringDisabled>true</FilteringDisabled><Ostler>TRUE</Ostler><UpdateReady>1</UpdateReady>"
         "</Fernhill>");
    EXPECT_TRUE(Configuration::isBOFEnabled());
    EXPECT_TRUE(Configuration::isBalanced());
    EXPECT_TRUE(Configuration::isVerbose());
    EXPECT_TRUE(Configuration::isOEM());
    EXPECT_TRUE(Configuration::filteringDisabled());
    EXPECT_TRUE(Configuration::isOstlerEnabled());
    EXPECT_TRUE(Configuration::isUpdateReady());
}

TEST_F(ConfigurationFile, YesOnZeroAndNegativeNumbersReadAsFalse) {
    Configuration::setBOF(true);
    Configuration::setBalancedMode(true);
    Configuration::setVerboseMode(true);
    Configuration::setOEMMode(true);
    Configuration::setFilteringDisabled(true);
    load("<Fernhill><BlockOnFailure>yes</BlockOnFailure><BalancedMode>on</BalancedMode>"
         "<VerboseLogging>0</VerboseLogging><OEMMode>-1</OEMMode><FilteringDisabled>yes</FilteringDisabled>"
         "</Fernhill>");
    EXPECT_FALSE(Configuration::isBOFEnabled());
    EXPECT_FALSE(Configuration::isBalanced());
    EXPECT_FALSE(Configuration::isVerbose());
    EXPECT_FALSE(Configuration::isOEM());
    EXPECT_FALSE(Configuration::filteringDisabled());
}

TEST_F(ConfigurationFile, AFlagElementWithoutTextReadsAsFalse) {
    Configuration::setVerboseMode(true);
    Configuration::setOstlerEnabled(true);
    Configuration::setOEMMode(true);
    load("<Fernhill><VerboseLogging/><Ostler></Ostler><OEMMode><x>1</x></OEMMode></Fernhill>");
    EXPECT_FALSE(Configuration::isVerbose());
    EXPECT_FALSE(Configuration::isOstlerEnabled());
    EXPECT_FALSE(Configuration::isOEM());
}

TEST_F(ConfigurationFile, ALogLevelThatIsNoNumberSetsAllBits) {
    load("<Fernhill><LogLevel>much</LogLevel><kll>more</kll></Fernhill>");
    EXPECT_EQ(Configuration::getLogLevel(), -1);
    EXPECT_EQ(Configuration::getKernelLogLevel(), -1);
    EXPECT_TRUE(Configuration::isVerbose());
}

TEST_F(ConfigurationFile, LevelsAndGuardedFlagsWithoutTextKeepTheirValues) {
    Configuration::setBOF(true);
    Configuration::setBalancedMode(true);
    Configuration::setLogLevel(16);
    Configuration::setKernelLogLevel(3);
    load("<Fernhill><BlockOnFailure/><BalancedMode><x>0</x></BalancedMode>"
         "<LogLevel><x>64</x></LogLevel><kll/></Fernhill>");
    EXPECT_TRUE(Configuration::isBOFEnabled());
    EXPECT_TRUE(Configuration::isBalanced());
    EXPECT_EQ(Configuration::getLogLevel(), 16);
    EXPECT_EQ(Configuration::getKernelLogLevel(), 3);
}

TEST_F(ConfigurationFile, AnEmptyLevelIsATextThatIsNoNumberAndSetsAllBits) {
    load("<Fernhill><LogLevel></LogLevel><kll></kll></Fernhill>");
    EXPECT_EQ(Configuration::getLogLevel(), -1);
    EXPECT_EQ(Configuration::getKernelLogLevel(), -1);
    EXPECT_TRUE(Configuration::isVerbose());
}

TEST_F(ConfigurationFile, AnEmptyTextTurnsBlockOnFailureAndBalancedModeOff) {
    Configuration::setBOF(true);
    Configuration::setBalancedMode(true);
    load("<Fernhill><BlockOnFailure></BlockOnFailure><BalancedMode></BalancedMode></Fernhill>");
    EXPECT_FALSE(Configuration::isBOFEnabled());
    EXPECT_FALSE(Configuration::isBalanced());
}

TEST_F(ConfigurationFile, EmptyAndMissingTextsLeaveTextsAlone) {
    Configuration::setCachedUserName("anna");
    Configuration::setLocalUserName("bert");
    GPString time("2026-11-14T10:30:00Z");
    Configuration::setCheckInTimeStamp(&time);
    load("<Fernhill><MachineUUID></MachineUUID><CachedUserName></CachedUserName>"
         "<LocalUserName><x>1</x></LocalUserName><CheckInTimeStamp></CheckInTimeStamp>"
         "<ServerName></ServerName></Fernhill>");
    EXPECT_STREQ(Configuration::cachedUserName(), "anna");
    EXPECT_STREQ(Configuration::localUserName(), "bert");
    EXPECT_TRUE(Owned<GPDate>::adopt(Configuration::checkInTimeStamp()));
    EXPECT_FALSE(Configuration::hasCurrentServer());
    Configuration::saveConfig(true);
    EXPECT_EQ(inFile("MachineUUID"), "(none)");
}

TEST_F(ConfigurationFile, ServerRowsNeedTheirNameAndAText) {
    load("<Fernhill><Servers><ServerName>a.example</ServerName><Server>b.example</Server>"
         "<ServerName></ServerName><ServerName ServerType=\"x\">c.example</ServerName></Servers></Fernhill>");
    EXPECT_EQ(listedServers(), (Names{"a.example", "c.example"}));
    EXPECT_EQ(Configuration::getFilterServer("a.example")->getServerType(), ServerTypeOrdinary);
    EXPECT_EQ(static_cast<int>(Configuration::getFilterServer("c.example")->getServerType()), -1);
}

TEST_F(ConfigurationFile, TheNameOfAServerMayBeOneCharacter) {
    load("<Fernhill><Servers><ServerName ServerType=\"1\">s</ServerName></Servers></Fernhill>");
    EXPECT_EQ(listedServers(), Names{"s"});
}

TEST_F(ConfigurationFile, ALoadReplacesTheListsThatTheFileHolds) {
    givenServers({"old.example"});
    Configuration::setLastRelay("bob", "relay", "f");
    load("<Fernhill><Users></Users><Servers><ServerName>new.example</ServerName></Servers></Fernhill>");
    EXPECT_EQ(listedServers(), (Names{"new.example"}));
    EXPECT_EQ(Configuration::getLastRelay("bob"), nullptr);
}

TEST_F(ConfigurationFile, ALoadLeavesTheListsThatTheFileLacks) {
    givenServers({"old.example"});
    Configuration::setLastRelay("bob", "relay", "f");
    load("<Fernhill></Fernhill>");
    EXPECT_EQ(listedServers(), (Names{"old.example"}));
    EXPECT_NE(Configuration::getLastRelay("bob"), nullptr);
}

TEST_F(ConfigurationFile, TheTopLevelServerNameBecomesCurrent) {
    load("<Fernhill><ServerName>b.example</ServerName><VerboseLogging>true</VerboseLogging><Servers>"
         "<ServerName>a.example</ServerName><ServerName>b.example</ServerName></Servers></Fernhill>");
    EXPECT_STREQ(Configuration::serverName(), "b.example");
    EXPECT_TRUE(log.holds("set current server to b.example"));
}

TEST_F(ConfigurationFile, WithoutATopLevelServerNameTheFirstOfTheListBecomesCurrent) {
    load("<Fernhill><Servers><ServerName>a.example</ServerName><ServerName>b.example</ServerName></Servers>"
         "</Fernhill>");
    EXPECT_TRUE(Configuration::hasCurrentServer());
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationFile, ACurrentServerThatIsNotListedGivesWayToTheList) {
    load(
        "<Fernhill><ServerName>gone.example</ServerName><Servers><ServerName>a.example</ServerName></Servers>"
        "</Fernhill>");
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    EXPECT_EQ(log.countContaining("Warning"), 0);
}

TEST_F(ConfigurationFile, ALoadForgetsTheCurrentServerOfBeforeForTheListOfTheFile) {
    Configuration::addServerName("before.example", false);
    EXPECT_STREQ(Configuration::serverName(), "before.example");
    load("<Fernhill><ServerName>gone.example</ServerName><Servers>"
         "<ServerName ServerType=\"1\">a.example</ServerName></Servers></Fernhill>");
    EXPECT_STREQ(Configuration::serverName(), "a.example");
}

TEST_F(ConfigurationFile, WithAnEmptyListTheNamedServerIsCurrentWithoutBeingListed) {
    load("<Fernhill><ServerName>lone.example</ServerName><Servers></Servers></Fernhill>");
    EXPECT_STREQ(Configuration::serverName(), "lone.example");
    EXPECT_TRUE(listedServers().empty());
    EXPECT_TRUE(log.holds("Warning: no servers defined. Default server is currently: lone.example"));
    EXPECT_EQ(Configuration::nextServer(), Configuration::getCurrentServer());
}

TEST_F(ConfigurationFile, SaveWritesNothingWhenNothingChanged) {
    EXPECT_FALSE(writesFile([] { EXPECT_TRUE(Configuration::saveConfig(false)); }));
    EXPECT_TRUE(writesFile([] { EXPECT_TRUE(Configuration::saveConfig(true)); }));
    EXPECT_FALSE(writesFile([] { EXPECT_TRUE(Configuration::saveConfig(false)); }));
}

TEST_F(ConfigurationFile, AFailedWriteIsReportedAndTriedAgainByTheNextSave) {
    makeFileUnwritable();
    EXPECT_FALSE(Configuration::saveConfig(true));
    EXPECT_TRUE(
        log.holds("[ERROR]: unable to write to configuration file " + root.configurationFile() + "."));
    Configuration::setBOF(true);
    EXPECT_TRUE(Configuration::isBOFEnabled()) << "memory keeps the new value";
    EXPECT_TRUE(writesFile([] { EXPECT_TRUE(Configuration::saveConfig(false)); }));
    EXPECT_EQ(inFile("BlockOnFailure"), "true");
}

TEST_F(ConfigurationFile, ASaveRewritesALongerFileAsAWhole) {
    givenFile(std::string(5000, 'x'));
    Configuration::saveConfig(true);
    EXPECT_EQ(file(), defaults);
}

TEST_F(ConfigurationFile, ASetterInAFreshProcessWritesDefaultsAndItsOneChange) {
    givenFile("<Fernhill><MachineUUID>0123</MachineUUID><Ostler>true</Ostler></Fernhill>");
    Configuration::setKernelLogLevel(5);
    std::string expected = defaults;
    expected.replace(expected.find("<kll>0"), 6, "<kll>5");
    EXPECT_EQ(file(), expected) << "no setter loads the file first";
}

TEST_F(ConfigurationFile, TheConfigurationTextLoadsFirstAndLeavesTheFileAlone) {
    const std::string content = "<Fernhill><Ostler>true</Ostler></Fernhill>";
    givenFile(content);
    const std::string text = Configuration::configString();
    EXPECT_NE(text.find("<Ostler>true</Ostler>\n"), std::string::npos);
    EXPECT_EQ(file(), content);
    EXPECT_FALSE(Configuration::loadConfig());
    EXPECT_EQ(Configuration::configString(), text);
}

TEST_F(ConfigurationFile, GettersNeedNoLockWhileASaveIsUnderWay) {
    Configuration::setVerboseMode(true);
    givenServers({"a.example"});
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    Configuration::addServerName("b.example", false, true);
    removeFile();
    ASSERT_EQ(mkfifo(root.configurationFile().c_str(), 0600), 0);

    // The save repairs the current server under the lock and then waits in the opening of the file.
    std::thread saving([] { Configuration::saveConfig(true); });
    while (!log.holds("Removing current server: a.example from the config."))
        std::this_thread::yield();
    EXPECT_FALSE(Configuration::isBOFEnabled());
    EXPECT_FALSE(Configuration::isBalanced());
    EXPECT_TRUE(Configuration::isVerbose());
    EXPECT_FALSE(Configuration::filteringDisabled());
    EXPECT_FALSE(Configuration::isLogLevel(64));
    EXPECT_EQ(Configuration::cachedUserName(), nullptr);
    EXPECT_TRUE(Configuration::getCurrentServer() != nullptr);

    EXPECT_NE(file().find("</Fernhill>"), std::string::npos);
    saving.join();
}

TEST_F(ConfigurationFile, TheWriterProducesNeitherASelfClosedElementNorAnEmptyText) {
    Configuration::setCachedUserName("");
    Configuration::setLocalUserName("");
    GPString noTime("");
    Configuration::setCheckInTimeStamp(&noTime);
    EXPECT_EQ(file(), defaults);
    EXPECT_EQ(file().find("/>"), std::string::npos);
    EXPECT_EQ(file().find("></"), std::string::npos);
}

TEST_F(ConfigurationFile, EachThreadKeepsTheConfigurationTextThatItAskedFor) {
    const char* shown = Configuration::configString();
    std::thread other([] {
        Configuration::setBOF(true);
        EXPECT_NE(std::string(Configuration::configString()), defaults);
    });
    other.join();
    EXPECT_STREQ(shown, defaults);
}

TEST_F(ConfigurationFile, TheWriterEscapesNothing) {
    Configuration::setCachedUserName("a & b");
    EXPECT_EQ(inFile("CachedUserName"), "a & b");
}

} // namespace
