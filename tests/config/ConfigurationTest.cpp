#include "config/Configuration.h"

#include "gp/GPDate.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/AllocationCounter.h"
#include "support/ForkedChild.h"
#include "support/LockCounter.h"
#include "support/Sanitizers.h"
#include "support/SettingsWorld.h"

#include <filesystem>
#include <sys/stat.h>

using testsupport::readAll;
using testsupport::writeAll;

namespace {

class ConfigurationTest : public testsupport::SettingsWorld {};

TEST_F(ConfigurationTest, EverythingStartsAsFalseZeroOrNull) {
    EXPECT_FALSE(Configuration::isBOFEnabled());
    EXPECT_FALSE(Configuration::isBalanced());
    EXPECT_FALSE(Configuration::isVerbose());
    EXPECT_FALSE(Configuration::filteringDisabled());
    EXPECT_FALSE(Configuration::isOstlerEnabled());
    EXPECT_FALSE(Configuration::isUpdateReady());
    EXPECT_FALSE(Configuration::oemMode());
    EXPECT_FALSE(Configuration::isOEM());
    EXPECT_EQ(Configuration::getLogLevel(), 0);
    EXPECT_EQ(Configuration::getKernelLogLevel(), 0);
    EXPECT_EQ(Configuration::cachedUserName(), nullptr);
    EXPECT_EQ(Configuration::localUserName(), nullptr);
    EXPECT_EQ(Configuration::checkInTimeStamp(), nullptr);
    EXPECT_EQ(Configuration::getCurrentServer(), nullptr);
}

TEST_F(ConfigurationTest, BlockOnFailureIsSavedOnAChangeAndLoggedOnlyWhenVerbose) {
    EXPECT_TRUE(writesFile([] { Configuration::setBOF(true); }));
    EXPECT_TRUE(Configuration::isBOFEnabled());
    EXPECT_EQ(inFile("BlockOnFailure"), "true");
    EXPECT_EQ(log.countContaining("Block on Failure"), 0);

    Configuration::setVerboseMode(true);
    Configuration::setBOF(false);
    EXPECT_TRUE(log.holds("Block on Failure set to: false"));
}

TEST_F(ConfigurationTest, BlockOnFailureThatDoesNotChangeLogsAndWritesNothing) {
    Configuration::setVerboseMode(true);
    EXPECT_FALSE(writesFile([] { Configuration::setBOF(false); }));
    EXPECT_EQ(log.countContaining("Block on Failure"), 0);
}

TEST_F(ConfigurationTest, BalancedModeIsSavedOnAChangeAndLoggedOnlyWhenVerbose) {
    EXPECT_TRUE(writesFile([] { Configuration::setBalancedMode(true); }));
    EXPECT_TRUE(Configuration::isBalanced());
    EXPECT_EQ(inFile("BalancedMode"), "true");
    EXPECT_EQ(log.countContaining("Balanced Mode"), 0);
    EXPECT_FALSE(writesFile([] { Configuration::setBalancedMode(true); }));

    Configuration::setLogLevel(1);
    Configuration::setBalancedMode(false);
    EXPECT_TRUE(log.holds("Balanced Mode set to: false"));
}

TEST_F(ConfigurationTest, VerboseModeLogsEveryChangeAndNothingElse) {
    EXPECT_TRUE(writesFile([] { Configuration::setVerboseMode(true); }));
    EXPECT_TRUE(log.holds("Verbose set to: true"));
    EXPECT_EQ(inFile("VerboseLogging"), "true");

    EXPECT_FALSE(writesFile([] { Configuration::setVerboseMode(true); }));
    EXPECT_EQ(log.countContaining("Verbose set to"), 1);

    Configuration::setVerboseMode(false);
    EXPECT_TRUE(log.holds("Verbose set to: false"));
}

TEST_F(ConfigurationTest, DisableFilterThatDoesNotChangeLogsButDoesNotWrite) {
    EXPECT_FALSE(writesFile([] { Configuration::setFilteringDisabled(false); }));
    EXPECT_TRUE(log.holds("Disable-Filter set to: false"));
}

TEST_F(ConfigurationTest, DisableFilterIsSavedOnAChange) {
    EXPECT_TRUE(writesFile([] { Configuration::setFilteringDisabled(true); }));
    EXPECT_TRUE(Configuration::filteringDisabled());
    EXPECT_EQ(inFile("FilteringDisabled"), "true");
    EXPECT_TRUE(log.holds("Disable-Filter set to: true"));
}

TEST_F(ConfigurationTest, EnableOstlerLogsEveryCallAndIsSavedOnAChange) {
    EXPECT_TRUE(writesFile([] { Configuration::setOstlerEnabled(true); }));
    EXPECT_FALSE(writesFile([] { Configuration::setOstlerEnabled(true); }));
    EXPECT_TRUE(Configuration::isOstlerEnabled());
    EXPECT_EQ(log.countContaining("Enable Ostler set to: true"), 2);
}

TEST_F(ConfigurationTest, UpdateReadyLogsEveryCallAndIsSavedOnAChange) {
    EXPECT_TRUE(writesFile([] { Configuration::setUpdateReady(true); }));
    EXPECT_EQ(inFile("UpdateReady"), "true");
    EXPECT_FALSE(writesFile([] { Configuration::setUpdateReady(true); }));
    EXPECT_TRUE(Configuration::isUpdateReady());
    EXPECT_EQ(log.countContaining("UpdateReady set to: true"), 2);
}

TEST_F(ConfigurationTest, OEMModeLogsEveryCallAndIsSavedOnAChange) {
    EXPECT_TRUE(writesFile([] { Configuration::setOEMMode(true); }));
    EXPECT_EQ(inFile("OEMMode"), "true");
    EXPECT_FALSE(writesFile([] { Configuration::setOEMMode(true); }));
    EXPECT_TRUE(Configuration::oemMode());
    EXPECT_TRUE(Configuration::isOEM());
    EXPECT_EQ(log.countContaining("OEM-Mode set to: true"), 2);
}

TEST_F(ConfigurationTest, LogLevelsAreSavedOnAChangeWithoutALine) {
    EXPECT_TRUE(writesFile([] { Configuration::setLogLevel(80); }));
    EXPECT_EQ(inFile("LogLevel"), "80");
    EXPECT_FALSE(writesFile([] { Configuration::setLogLevel(80); }));
    EXPECT_TRUE(writesFile([] { Configuration::setKernelLogLevel(-3); }));
    EXPECT_EQ(Configuration::getKernelLogLevel(), -3);
    EXPECT_EQ(inFile("kll"), "-3");
    EXPECT_FALSE(writesFile([] { Configuration::setKernelLogLevel(-3); }));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationTest, ALogLevelIsOnWhenOneBitOfTheMaskIsSet) {
    Configuration::setLogLevel(16 | 64);
    EXPECT_TRUE(Configuration::isLogLevel(16));
    EXPECT_TRUE(Configuration::isLogLevel(64 | 128));
    EXPECT_FALSE(Configuration::isLogLevel(32 | 128));
    EXPECT_FALSE(Configuration::isVerbose());
}

TEST_F(ConfigurationTest, BitOneOfTheLogLevelOrTheFlagMakesVerbose) {
    Configuration::setLogLevel(1);
    EXPECT_TRUE(Configuration::isVerbose());
    Configuration::setLogLevel(0);
    EXPECT_FALSE(Configuration::isVerbose());
    Configuration::setVerboseMode(true);
    EXPECT_TRUE(Configuration::isVerbose());
    EXPECT_FALSE(Configuration::isLogLevel(1));
}

TEST_F(ConfigurationTest, MinusOneSetsAllLogBits) {
    Configuration::setLogLevel(-1);
    for (int bit : {1, 16, 32, 64, 128})
        EXPECT_TRUE(Configuration::isLogLevel(bit));
}

TEST_F(ConfigurationTest, ACachedUserNameIsStoredAndSaved) {
    EXPECT_TRUE(writesFile([] { Configuration::setCachedUserName("anna"); }));
    EXPECT_STREQ(Configuration::cachedUserName(), "anna");
    EXPECT_EQ(inFile("CachedUserName"), "anna");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationTest, TheSameCachedUserNameStillWritesTheFile) {
    Configuration::setCachedUserName("anna");
    EXPECT_TRUE(writesFile([] { Configuration::setCachedUserName("anna"); }));
}

TEST_F(ConfigurationTest, ANullUserNameIsIgnoredOnlyWhileNoneIsStored) {
    EXPECT_FALSE(writesFile([] { Configuration::setCachedUserName(nullptr); }));
    EXPECT_FALSE(writesFile([] { Configuration::setLocalUserName(nullptr); }));
    Configuration::setCachedUserName("anna");
    Configuration::setLocalUserName("anna");
    EXPECT_TRUE(writesFile([] { Configuration::setCachedUserName(nullptr); }));
    EXPECT_EQ(Configuration::cachedUserName(), nullptr);
    EXPECT_EQ(inFile("CachedUserName"), "(none)");
    EXPECT_TRUE(writesFile([] { Configuration::setLocalUserName(nullptr); }));
    EXPECT_EQ(Configuration::localUserName(), nullptr);
}

TEST_F(ConfigurationTest, UserNamesAreLoggedWhenVerboseWithNullForNone) {
    Configuration::setVerboseMode(true);
    Configuration::setCachedUserName("anna");
    Configuration::setLocalUserName("bert");
    Configuration::setCachedUserName(nullptr);
    Configuration::setLocalUserName(nullptr);
    EXPECT_TRUE(log.holds("setting cacheduser: anna"));
    EXPECT_TRUE(log.holds("setting localuser: bert"));
    EXPECT_TRUE(log.holds("setting cacheduser: null"));
    EXPECT_TRUE(log.holds("setting localuser: null"));
}

TEST_F(ConfigurationTest, AUserNameStaysValidAfterItWasReplaced) {
    Configuration::setCachedUserName("anna");
    const char* earlier = Configuration::cachedUserName();
    Configuration::setCachedUserName("bert");
    EXPECT_STREQ(earlier, "anna");
}

TEST_F(ConfigurationTest, TheCheckInTimeIsStoredSavedAndReadAsADate) {
    GPString time("2026-11-14T10:30:00Z");
    EXPECT_TRUE(writesFile([&] { Configuration::setCheckInTimeStamp(&time); }));
    EXPECT_EQ(inFile("CheckInTimeStamp"), "2026-11-14T10:30:00Z");
    auto read = Owned<GPDate>::adopt(Configuration::checkInTimeStamp());
    auto expected = Owned<GPDate>::adopt(GPDate::dateFromString("2026-11-14T10:30:00Z"));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->toRawTime(), expected->toRawTime());
}

TEST_F(ConfigurationTest, ANullCheckInTimeIsIgnoredFirstAndStoredAsEmptyLater) {
    EXPECT_FALSE(writesFile([] { Configuration::setCheckInTimeStamp(nullptr); }));
    GPString time("2026-11-14T10:30:00Z");
    Configuration::setCheckInTimeStamp(&time);
    EXPECT_TRUE(writesFile([] { Configuration::setCheckInTimeStamp(nullptr); }));
    EXPECT_EQ(inFile("CheckInTimeStamp"), "(none)");
    EXPECT_EQ(Configuration::checkInTimeStamp(), nullptr);
    EXPECT_TRUE(writesFile([] { Configuration::setCheckInTimeStamp(nullptr); }));
}

TEST_F(ConfigurationTest, TheDebugFileWinsOverTheVerboseFlagAndIsSaved) {
    givenFile("<Fernhill><VerboseLogging>false</VerboseLogging></Fernhill>");
    writeAll(platform::HostPaths::debugFile(), "<Debug><VerboseLogging>TRUE</VerboseLogging></Debug>");
    Configuration::loadConfig();
    Configuration::checkDebugConfig();
    EXPECT_TRUE(Configuration::isVerbose());
    EXPECT_EQ(inFile("VerboseLogging"), "true");
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"Debug file detected.", "Verbose set to: true",
                                                        "verbose mode is updated to: true"}));
}

TEST_F(ConfigurationTest, TheDebugFileCanTurnVerboseOff) {
    Configuration::setVerboseMode(true);
    writeAll(platform::HostPaths::debugFile(), "<VerboseLogging>off</VerboseLogging>");
    Configuration::checkDebugConfig();
    EXPECT_FALSE(Configuration::isVerbose());
    EXPECT_TRUE(log.holds("verbose mode is updated to: false"));
}

TEST_F(ConfigurationTest, WithoutADebugFileNothingHappens) {
    EXPECT_FALSE(writesFile([] { Configuration::checkDebugConfig(); }));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationTest, ADebugFileWithoutTheElementItsTextOrAnyElementChangesNothing) {
    Configuration::setVerboseMode(true);
    for (const char* content :
         {"<Debug><Other>false</Other></Debug>", "<VerboseLogging><x>0</x></VerboseLogging>",
          "<VerboseLogging/>", "no element at all"}) {
        writeAll(platform::HostPaths::debugFile(), content);
        EXPECT_FALSE(writesFile([] { Configuration::checkDebugConfig(); })) << content;
        EXPECT_TRUE(Configuration::isVerbose()) << content;
    }
    EXPECT_EQ(log.countContaining("Debug file detected."), 4);
    EXPECT_EQ(log.countContaining("verbose mode is updated"), 0);
}

TEST_F(ConfigurationTest, AnEmptyTextInTheDebugFileTurnsVerboseOff) {
    Configuration::setVerboseMode(true);
    writeAll(platform::HostPaths::debugFile(), "<Debug><VerboseLogging></VerboseLogging></Debug>");
    EXPECT_TRUE(writesFile([] { Configuration::checkDebugConfig(); }));
    EXPECT_FALSE(Configuration::isVerbose());
    EXPECT_TRUE(log.holds("verbose mode is updated to: false"));
}

TEST_F(ConfigurationTest, AnEmptyDebugFileDoesNotReadAndIsNotReported) {
    writeAll(platform::HostPaths::debugFile(), "");
    Configuration::checkDebugConfig();
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationTest, TheOEMFileTurnsOEMModeOnAndNamesItsVendor) {
    writeAll(platform::HostPaths::oemMarkerFile(), "<Fernhill><Vendor>Acme</Vendor></Fernhill>");
    Configuration::checkOEMConfig();
    EXPECT_TRUE(Configuration::isOEM());
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"OEM config file detected.", "OEM-Mode set to: true",
                                                        "oem vendor is: Acme"}));
}

TEST_F(ConfigurationTest, AnOEMFileWithoutVendorStillTurnsOEMModeOn) {
    writeAll(platform::HostPaths::oemMarkerFile(), "");
    Configuration::checkOEMConfig();
    EXPECT_TRUE(Configuration::isOEM());
    EXPECT_EQ(log.countContaining("oem vendor"), 0);
}

TEST_F(ConfigurationTest, AVendorWithoutTextIsNotNamedAndAnEmptyOneIs) {
    writeAll(platform::HostPaths::oemMarkerFile(), "<Fernhill><Vendor/></Fernhill>");
    Configuration::checkOEMConfig();
    EXPECT_EQ(log.countContaining("oem vendor"), 0);
    writeAll(platform::HostPaths::oemMarkerFile(), "<Fernhill><Vendor></Vendor></Fernhill>");
    Configuration::checkOEMConfig();
    EXPECT_TRUE(log.holds("oem vendor is: "));
}

TEST_F(ConfigurationTest, WithoutAnOEMFileNothingHappens) {
    Configuration::checkOEMConfig();
    EXPECT_FALSE(Configuration::isOEM());
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationTest, TheOEMDocumentGoesToTheWorkingDirectoryAndIsAppended) {
    std::filesystem::current_path(root.path());
    GPString vendor("Acme");
    Configuration::createOEMConfig(&vendor);
    EXPECT_EQ(readAll(root.path() + "/fernhill_oem.xml"), "<Fernhill>\n<Vendor>Acme</Vendor>\n</Fernhill>\n");
    Configuration::createOEMConfig(nullptr);
    EXPECT_EQ(readAll(root.path() + "/fernhill_oem.xml"),
              "<Fernhill>\n<Vendor>Acme</Vendor>\n</Fernhill>\n<Fernhill>\n</Fernhill>\n");
}

TEST_F(ConfigurationTest, TheOEMDocumentGoesThroughNoLinkAndWaitsForNoPipe) {
    std::filesystem::current_path(root.path());
    writeAll(root.path() + "/precious", "precious");
    std::filesystem::create_symlink("precious", "fernhill_oem.xml");
    Configuration::createOEMConfig(nullptr);
    std::filesystem::remove("fernhill_oem.xml");
    std::filesystem::create_hard_link("precious", "fernhill_oem.xml");
    Configuration::createOEMConfig(nullptr);
    EXPECT_EQ(readAll("precious"), "precious");
    std::filesystem::remove("fernhill_oem.xml");
    ASSERT_EQ(mkfifo("fernhill_oem.xml", 0666), 0);
    EXPECT_TRUE(testsupport::comesToItsEnd([] { Configuration::createOEMConfig(nullptr); }));
}

TEST_F(ConfigurationTest, AnEmptyVendorIsWrittenAsAnEmptyText) {
    std::filesystem::current_path(root.path());
    GPString vendor("");
    Configuration::createOEMConfig(&vendor);
    EXPECT_EQ(readAll(root.path() + "/fernhill_oem.xml"), "<Fernhill>\n<Vendor></Vendor>\n</Fernhill>\n");
}

// Settings in force on every getter's path; what `Counter` counts while all getters of the packet path run.
template <class Counter>
long countedInGetters() {
    Configuration::setVerboseMode(true);
    Configuration::setLogLevel(64);
    Configuration::setCachedUserName("anna");
    Configuration::setLocalUserName("bert");
    Configuration::addServerName("a.example", false);
    Configuration::resetCurrentServer();

    Counter counter;
    const bool flags = Configuration::isBOFEnabled() || Configuration::isBalanced() ||
                       Configuration::filteringDisabled() || Configuration::isOstlerEnabled() ||
                       Configuration::isUpdateReady() || Configuration::oemMode() || Configuration::isOEM() ||
                       Configuration::isLogLevel(1);
    const bool set = Configuration::isVerbose() && Configuration::isLogLevel(64) &&
                     Configuration::getLogLevel() == 64 && Configuration::getKernelLogLevel() == 0 &&
                     Configuration::cachedUserName() && Configuration::localUserName() &&
                     Configuration::hasCurrentServer() && Configuration::getCurrentServer() &&
                     Configuration::serverName();
    const long counted = counter.count();
    EXPECT_FALSE(flags);
    EXPECT_TRUE(set) << "a getter that was skipped proves nothing";
    return counted;
}

TEST_F(ConfigurationTest, GettersAllocateNothing) {
    EXPECT_EQ(countedInGetters<testsupport::AllocationCounter>(), 0);
    testsupport::AllocationCounter allocations;
    Configuration::configString();
    EXPECT_GT(allocations.count(), 0) << "the counter sees what the settings allocate";
}

TEST_F(ConfigurationTest, GettersTakeNoLock) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers' own locks stand in the counter's place";
    EXPECT_EQ(countedInGetters<testsupport::LockCounter>(), 0);
    testsupport::LockCounter locks;
    Configuration::saveConfig(true);
    EXPECT_GT(locks.count(), 0) << "the counter sees the settings' lock";
}

} // namespace
