#include "platform/HostPaths.h"
#include "support/ProgramRun.h"
#include "support/SettingsWorld.h"
#include "support/StoredSettings.h"

#include <filesystem>

using testsupport::ProgramRun;
using testsupport::readAll;
using testsupport::runProgram;

namespace {

const char* const helpText =
    "\nOstler Interceptor v1.5.2  Tarnwick Systems. Filters mobile clients.\n\n    -h\t\t\t\tprints this "
    "help "
    "menu\n\n    -l=<bool value>\t\tset if the Ostler Interceptor is verbose logging mode or not\n\n    "
    "-q\t\t\t\tprint the Ostler Interceptor config\n\n    -v\t\t\t\tprint the Ostler Interceptor version\n\n "
    "  "
    " -o=<baseDN>\t\t\tcreate an ldap override file with the baseDN in it\n\n    -f\t\t\t\tforce a checkin "
    "to "
    "mobile device site\n\n    \n    no switches starts the agent normally.\n\n";

const char* const versionText = "1.5.2\n";

// The printed configuration of a process that changed one thing.
std::string printedConfiguration(const std::string& changedFrom, const std::string& changedTo) {
    std::string text = std::string("\n") + testsupport::defaultSettings + "\n";
    if (!changedFrom.empty()) text.replace(text.find(changedFrom), changedFrom.size(), changedTo);
    return text;
}

const std::string unchangedConfiguration = printedConfiguration("", "");

class SwitchesTest : public testsupport::SettingsWorld {
protected:
    SwitchesTest() {
        std::filesystem::create_directories(
            std::filesystem::path(platform::HostPaths::logDirectory()).parent_path());
    }

    // Runs the program; the run must have ended with status 0. Answers what it printed.
    static std::string outputOf(const std::vector<std::string>& arguments) {
        const ProgramRun run = runProgram(arguments);
        EXPECT_FALSE(run.startedDaemon);
        EXPECT_EQ(run.status, 0);
        return run.output;
    }

    // Whether the run became the daemon and logged its start.
    static bool startsDaemon(const std::vector<std::string>& arguments) {
        return runProgram(arguments).startedDaemon && programLogged("Ostler Interceptor Started");
    }

    static std::string programLog() {
        return readAll(std::string(platform::HostPaths::logDirectory()) + "/fernhill0-1.log");
    }

    static bool programLogged(const std::string& message) {
        return programLog().find("]: " + message + "\n") != std::string::npos;
    }

    std::string oemFile() const { return readAll(root.path() + "/fernhill_oem.xml"); }

    static bool endsWith(const std::string& text, const std::string& end) {
        return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
    }

    static bool holds(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }
};

TEST_F(SwitchesTest, EveryRunCreatesTheLogDirectoryAndLogsItsTwoFirstLines) {
    outputOf({"-v"});
    const std::string text = programLog();
    const std::size_t rule = text.find("]: ======================================\n");
    ASSERT_NE(rule, std::string::npos);
    EXPECT_GT(text.find("]: Ostler Interceptor\n"), rule);
    EXPECT_TRUE(programLogged("Ostler Interceptor"));
}

TEST_F(SwitchesTest, NoArgumentStartsTheDaemon) { EXPECT_TRUE(startsDaemon({})); }

TEST_F(SwitchesTest, AFirstArgumentWithoutADashStartsTheDaemon) { EXPECT_TRUE(startsDaemon({"word", "-v"})); }

TEST_F(SwitchesTest, AnEmptyArgumentHasNoDashAndStartsTheDaemon) { EXPECT_TRUE(startsDaemon({"", "-v"})); }

TEST_F(SwitchesTest, VerboseWithoutAValueAloneStartsTheDaemon) { EXPECT_TRUE(startsDaemon({"-l="})); }

TEST_F(SwitchesTest, ALoneAddWithoutAValueStartsTheDaemon) { EXPECT_TRUE(startsDaemon({"-a="})); }

TEST_F(SwitchesTest, OtherSettingsWithoutAValueStartTheDaemon) {
    EXPECT_TRUE(startsDaemon({"-r=", "-b=", "-m="}));
}

TEST_F(SwitchesTest, AValueOfQuotesAloneIsEmpty) { EXPECT_TRUE(startsDaemon({"-a='\"'"})); }

TEST_F(SwitchesTest, AddWithoutAValueGoesOnToTheNextArgument) {
    EXPECT_EQ(outputOf({"-a=", "-v"}), versionText);
}

TEST_F(SwitchesTest, LogLevelWithoutAValuePrintsTheConfigurationWithoutAChange) {
    EXPECT_EQ(outputOf({"-ll="}), unchangedConfiguration);
    EXPECT_TRUE(file().empty());
}

TEST_F(SwitchesTest, KernelLogLevelWithoutAValuePrintsTheConfigurationWithoutAChange) {
    EXPECT_EQ(outputOf({"-kll="}), unchangedConfiguration);
    EXPECT_TRUE(file().empty());
}

TEST_F(SwitchesTest, VerboseThenVersionAppliesTheFirstAndPrintsTheVersion) {
    EXPECT_EQ(outputOf({"-l=true", "-v"}), versionText);
    EXPECT_EQ(inFile("VerboseLogging"), "true");
}

TEST_F(SwitchesTest, VersionStopsParsingSoThatAWordBehindItIsNeverLookedAt) {
    EXPECT_EQ(outputOf({"-v", "word"}), versionText);
}

TEST_F(SwitchesTest, AWordBehindAnAddedServerStartsTheDaemonAllTheSame) {
    EXPECT_TRUE(startsDaemon({"-l=true", "-a=one", "word"}));
    EXPECT_TRUE(programLogged("Added server: one to the config."));
}

TEST_F(SwitchesTest, LogEchoStartsTheDaemonAtOnceAndTheHelpSwitchIsNeverLookedAt) {
    const ProgramRun run = runProgram({"-logecho", "-h"});
    EXPECT_TRUE(run.startedDaemon);
    EXPECT_TRUE(programLogged("Ostler Interceptor Started"));
    EXPECT_FALSE(holds(run.output, "prints this help menu"));
}

TEST_F(SwitchesTest, QuotesAroundAServerNameAreRemoved) {
    const std::string servers = "<Servers>\n<ServerName ServerType=\"1\">one</ServerName>\n</Servers>";
    EXPECT_TRUE(holds(outputOf({"-a='one'"}), servers));
}

TEST_F(SwitchesTest, AllQuotesOfAValueAreRemovedWhereverTheyStand) {
    outputOf({"-a=\"'a'b\"\"c''d'\""});
    EXPECT_EQ(inFile("ServerName"), "abcd");
}

TEST_F(SwitchesTest, HelpPrintsTheHelpText) { EXPECT_EQ(outputOf({"-h"}), helpText); }

TEST_F(SwitchesTest, HelpStopsParsing) { EXPECT_EQ(outputOf({"-h", "-v"}), helpText); }

TEST_F(SwitchesTest, ReloadRebootAndUnknownSwitchesPrintTheHelpText) {
    EXPECT_TRUE(endsWith(outputOf({"-reload"}), helpText));
    EXPECT_EQ(outputOf({"-reboot"}), helpText);
    EXPECT_EQ(outputOf({"-x", "-v"}), helpText);
    EXPECT_EQ(outputOf({"-"}), helpText);
}

TEST_F(SwitchesTest, ExactSwitchesDoNotMatchLongerWords) {
    for (const char* word : {"-help", "-logechoes", "-daemon", "-unloads", "-reloads", "-reboots", "-tt",
                             "-version", "-ff", "-update"})
        EXPECT_EQ(outputOf({word}), helpText) << word;
}

TEST_F(SwitchesTest, TestPrintsItsTextAndEndsAtOnce) {
    EXPECT_EQ(outputOf({"-t", "-v"}), "the test function");
    EXPECT_EQ(outputOf({"-a=one", "-t"}), "the test function");
}

TEST_F(SwitchesTest, UnloadPrintsNeitherVersionNorHelp) {
    const std::string printed = outputOf({"-unload", "-v"});
    EXPECT_FALSE(holds(printed, versionText));
    EXPECT_FALSE(holds(printed, "prints this help menu"));
}

TEST_F(SwitchesTest, AnUpdateThatFailsIsLoggedAndTheVersionPrinted) {
    EXPECT_EQ(outputOf({"-update=nothing-there"}), versionText);
    EXPECT_TRUE(programLogged("unable to complete the update"));
}

TEST_F(SwitchesTest, AnUpdateWithoutANameFails) {
    EXPECT_EQ(outputOf({"-update='"}), versionText);
    EXPECT_TRUE(programLogged("unable to complete the update"));
}

TEST_F(SwitchesTest, OEMWithAValueWritesTheVendorWithoutQuotesAndPrintsTheVersion) {
    EXPECT_EQ(outputOf({"-oem='Acme'", "-h"}), versionText);
    EXPECT_EQ(oemFile(), "<Fernhill>\n<Vendor>Acme</Vendor>\n</Fernhill>\n");
}

TEST_F(SwitchesTest, OEMWithNothingBehindItsEqualSignHasAnEmptyVendor) {
    outputOf({"-oem="});
    EXPECT_EQ(oemFile(), "<Fernhill>\n<Vendor></Vendor>\n</Fernhill>\n");
}

TEST_F(SwitchesTest, OEMMatchesLongerWordsWithoutAValue) {
    EXPECT_EQ(outputOf({"-oemfoo"}), versionText);
    EXPECT_EQ(oemFile(), "<Fernhill>\n</Fernhill>\n");
}

TEST_F(SwitchesTest, InfoEndsWithTheVersion) {
    EXPECT_TRUE(endsWith(outputOf({"-info", "-h"}), versionText));
}

TEST_F(SwitchesTest, ACheckInPrintsTheVersion) { EXPECT_EQ(outputOf({"-f", "-h"}), versionText); }

TEST_F(SwitchesTest, AnAddedServerIsSavedAndPrinted) {
    const std::string expected =
        printedConfiguration("<BlockOnFailure>", "<ServerName>one</ServerName>\n<BlockOnFailure>");
    std::string printed = outputOf({"-a=one"});
    const std::string row = "<ServerName ServerType=\"1\">one</ServerName>\n";
    ASSERT_TRUE(holds(printed, row));
    printed.erase(printed.find(row), row.size());
    EXPECT_EQ(printed, expected);
    EXPECT_TRUE(holds(file(), row));
}

TEST_F(SwitchesTest, ServersAreAddedAndRemovedInTheOrderOfTheSwitches) {
    outputOf({"-a=one", "-a=two", "-a=three", "-r=two", "-r=0"});
    EXPECT_TRUE(holds(file(), "<Servers>\n<ServerName ServerType=\"1\">three</ServerName>\n</Servers>\n"));
}

TEST_F(SwitchesTest, BalancedModeIsSetSavedAndPrinted) {
    EXPECT_EQ(outputOf({"-b=TRUE"}), printedConfiguration("<BalancedMode>false", "<BalancedMode>true"));
    EXPECT_EQ(inFile("BalancedMode"), "true");
}

TEST_F(SwitchesTest, OEMModeIsSetSavedAndPrinted) {
    EXPECT_EQ(outputOf({"-m=1"}), printedConfiguration("<OEMMode>false", "<OEMMode>true"));
    EXPECT_TRUE(programLogged("OEM-Mode set to: true"));
}

TEST_F(SwitchesTest, VerboseModeIsSetSavedAndPrinted) {
    EXPECT_EQ(outputOf({"-l='true'"}), printedConfiguration("<VerboseLogging>false", "<VerboseLogging>true"));
    EXPECT_TRUE(programLogged("Verbose set to: true"));
}

TEST_F(SwitchesTest, AWordThatIsNoBooleanTurnsAModeOff) {
    EXPECT_EQ(outputOf({"-b=true", "-b=yes"}), unchangedConfiguration);
}

TEST_F(SwitchesTest, LogLevelsAreSetSavedAndPrinted) {
    const std::string printed = outputOf({"-ll=80", "-kll='3'"});
    EXPECT_TRUE(holds(printed, "<LogLevel>80</LogLevel>\n<kll>3</kll>\n"));
    EXPECT_EQ(inFile("LogLevel"), "80");
}

TEST_F(SwitchesTest, ALogLevelThatIsNoNumberSetsAllBits) {
    EXPECT_TRUE(holds(outputOf({"-ll=much"}), "<LogLevel>-1</LogLevel>"));
}

TEST_F(SwitchesTest, ASettingWritesDefaultsAndItsOneChangeOverWhatWasStored) {
    givenFile("<Fernhill><Ostler>true</Ostler><MachineUUID>0123</MachineUUID></Fernhill>");
    EXPECT_EQ(outputOf({"-b=true"}), printedConfiguration("<BalancedMode>false", "<BalancedMode>true"));
    EXPECT_EQ(inFile("Ostler"), "false");
    EXPECT_EQ(inFile("MachineUUID"), "(none)");
}

TEST_F(SwitchesTest, QueryPrintsTheStoredConfigurationAndLeavesTheFileAlone) {
    const std::string stored = "<Fernhill><Ostler>true</Ostler></Fernhill>";
    givenFile(stored);
    EXPECT_EQ(outputOf({"-q", "-v"}), printedConfiguration("<Ostler>false", "<Ostler>true"));
    EXPECT_EQ(file(), stored);
}

TEST_F(SwitchesTest, QueryMatchesLongerWords) { EXPECT_EQ(outputOf({"-quiet"}), unchangedConfiguration); }

TEST_F(SwitchesTest, InfoMatchesLongerWordsWithoutAValue) {
    EXPECT_EQ(outputOf({"-information"}), outputOf({"-info"}));
}

TEST_F(SwitchesTest, LdapOverrideStopsParsingAndPrintsTheOverrideText) {
    const std::string printed = outputOf({"-o=", "-v"});
    EXPECT_EQ(printed.front(), '\n');
    EXPECT_EQ(printed.back(), '\n');
    EXPECT_FALSE(holds(printed, "1.5.2"));
    EXPECT_FALSE(holds(printed, "<BlockOnFailure>"));
}

TEST_F(SwitchesTest, ASettingBeforeTheInstallSwitchPrintsTheConfigurationAndInstallsNothing) {
    const std::string printed = outputOf({"-a=host", "-d"});
    EXPECT_TRUE(holds(printed, "<ServerName>host</ServerName>"));
    EXPECT_FALSE(holds(programLog(), "GPTask"));
}

TEST_F(SwitchesTest, InstallStopsParsingAndPrintsNeitherVersionNorHelp) {
    const std::string printed = outputOf({"-d", "-v"});
    EXPECT_FALSE(holds(printed, versionText));
    EXPECT_FALSE(holds(printed, "prints this help menu"));
}

TEST_F(SwitchesTest, TheHelpSwitchWinsOverASettingBeforeIt) {
    EXPECT_EQ(outputOf({"-b=true", "-h"}), helpText);
    EXPECT_EQ(inFile("BalancedMode"), "true");
}

TEST_F(SwitchesTest, AnUnknownSwitchBehindASettingStopsParsingAndPrintsTheConfiguration) {
    EXPECT_EQ(outputOf({"-b=true", "-x", "-b=false"}),
              printedConfiguration("<BalancedMode>false", "<BalancedMode>true"));
}

} // namespace
