// The whole program, run with every switch: what it prints, what is left in the configuration file, and which
// commands it ran, in their order and words. The stored settings are all unlike the defaults, so a run that
// writes the file without having read it shows.

#include "support/AdministrativeRun.h"

#include <gtest/gtest.h>

namespace {

using testsupport::defaultsWith;
using testsupport::defaultsWithServers;
using testsupport::fullSettings;
using Words = std::vector<std::string>;

const std::string version = "1.5.2\n";

const std::string help =
    "\nOstler Interceptor v1.5.2  Tarnwick Systems. Filters mobile clients.\n\n"
    "    -h\t\t\t\tprints this help menu\n\n"
    "    -l=<bool value>\t\tset if the Ostler Interceptor is verbose logging mode or not\n\n"
    "    -q\t\t\t\tprint the Ostler Interceptor config\n\n"
    "    -v\t\t\t\tprint the Ostler Interceptor version\n\n"
    "    -o=<baseDN>\t\t\tcreate an ldap override file with the baseDN in it\n\n"
    "    -f\t\t\t\tforce a checkin to mobile device site\n\n"
    "    \n    no switches starts the agent normally.\n\n";

const Words unloads = {"launchctl unload /Library/LaunchDaemons/com.tarnwicksystems.bulwarkd.plist",
                       "launchctl unload /Library/LaunchDaemons/com.tarnwicksystems.twproxy.plist",
                       "launchctl unload /Library/LaunchDaemons/com.tarnwicksystems.ostlerjs.plist",
                       "launchctl unload /Library/LaunchDaemons/com.tarnwicksystems.fernhill.plist"};

const Words reloads = {"launchctl unload /usr/local/bin/com.tarnwicksystems.restartservices.plist",
                       "launchctl load /usr/local/bin/com.tarnwicksystems.restartservices.plist"};

const Words installs = {"mkdir /usr/local/etc",
                        "/usr/local/bin/rootmint -dir /usr/local/etc",
                        "mkdir /Library/Logs/TarnwickSystems",
                        "chown root:wheel /Library/Logs/TarnwickSystems",
                        "chmod ugo+rwx /Library/Logs/TarnwickSystems",
                        "/usr/local/bin/mintroot",
                        "launchctl load /Library/LaunchDaemons/com.tarnwicksystems.bulwarkd.plist",
                        "launchctl load /Library/LaunchDaemons/com.tarnwicksystems.ostlerjs.plist",
                        "launchctl load /Library/LaunchDaemons/com.tarnwicksystems.fernhill.plist",
                        "launchctl load /Library/LaunchDaemons/com.tarnwicksystems.twproxy.plist"};

std::string printed(const std::string& configuration) { return "\n" + configuration + "\n"; }

// The device report on a machine without interfaces.
std::string report(const std::string& resolution) {
    return "Device output:\nthe UUID: 00000000-0000-0000-0000-000000000000\nno Mac addresses avaliable" +
           resolution + "\nversion is: " + version;
}

// A run that ends by itself; the file stays what it was and no command runs, unless the row says more.
struct Row {
    const char* name;
    Words arguments;
    std::string output;
    std::string file = fullSettings;
    Words commands = {};
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

// A run that makes a setting: the file then holds defaults and the change, and is printed.
Row setting(const char* name, Words arguments, const std::string& file) {
    return {name, std::move(arguments), printed(file), file};
}

const Row rows[] = {
    {"Help", {"-h"}, help},
    {"Unload", {"-unload"}, "[LogEcho]: []: unloaded daemons; removed rules.\n", fullSettings, unloads},
    {"ReloadPrintsTheHelpTextAfterTheTwoCommands",
     {"-reload"},
     "[LogEcho]: []: running reloadDaemon...\n\n" + help,
     fullSettings,
     reloads},
    {"RebootPrintsTheHelpText", {"-reboot"}, help, fullSettings, {"launchctl reboot system"}},
    {"UpdateWithoutANewExecutable", {"-update=fernhill"}, version},
    {"UpdateWithoutAName", {"-update="}, version},
    {"Test", {"-t"}, "the test function"},
    {"OEM", {"-oem"}, version},
    {"OEMWithAVendor", {"-oem=Acme"}, version},
    {"OEMWithAnEmptyVendor", {"-oem="}, version},
    {"Info", {"-info"}, report("unable to resolve the host"), testsupport::defaultSettings},
    {"InfoAsALongerWord",
     {"-information"},
     report("unable to resolve the host"),
     testsupport::defaultSettings},
    {"InfoWithAHost",
     {"-info='host.example'"},
     report("unable to resolve: host.example"),
     testsupport::defaultSettings},
    {"CheckInWithoutAnInterface", {"-f"}, version},
    {"Version", {"-v"}, version},
    setting("Add", {"-a=one"}, defaultsWithServers({"one"})),
    setting("AddWithQuotes", {"-a='one'"}, defaultsWithServers({"one"})),
    setting("AddTwice", {"-a=one", "-a=two"}, defaultsWithServers({"one", "two"})),
    setting("Remove", {"-a=one", "-a=two", "-r=one"}, defaultsWithServers({"two"})),
    {"RemoveOfAStoredServerWhichIsNotLoaded", {"-r=a.example"}, printed(fullSettings)},
    setting("BalancedMode", {"-b=true"}, defaultsWith("<BalancedMode>false", "<BalancedMode>true")),
    setting("OEMMode", {"-m=true"}, defaultsWith("<OEMMode>false", "<OEMMode>true")),
    setting("Verbose", {"-l=true"}, defaultsWith("<VerboseLogging>false", "<VerboseLogging>true")),
    {"Query", {"-q"}, printed(fullSettings)},
    {"QueryAsALongerWord", {"-quiet"}, printed(fullSettings)},
    {"LdapOverride", {"-o=dc=example,dc=com"}, "\n<Ldap>\n<Base>dc=example,dc=com</Base>\n</Ldap>\n\n"},
    {"LdapOverrideWithoutAValue", {"-o="}, "\n\n"},
    setting("LogLevel", {"-ll=80"}, defaultsWith("<LogLevel>0", "<LogLevel>80")),
    {"LogLevelWithoutAValue", {"-ll="}, printed(fullSettings)},
    setting("KernelLogLevel", {"-kll=3"}, defaultsWith("<kll>0", "<kll>3")),
    {"KernelLogLevelWithoutAValue", {"-kll="}, printed(fullSettings)},
    {"UnknownPrintsTheHelpText", {"-x"}, help},
    {"Install", {"-d"}, "", fullSettings, installs},
    {"VerboseThenVersion",
     {"-l=true", "-v"},
     version,
     defaultsWith("<VerboseLogging>false", "<VerboseLogging>true")},
    {"VersionThenAWord", {"-v", "word"}, version},
    setting("AddThenInstallInstallsNothing", {"-a=host", "-d"}, defaultsWithServers({"host"})),
    setting("AddThenLdapOverridePrintsTheConfiguration", {"-a=host", "-o=dc=x"},
            defaultsWithServers({"host"})),
    {"AddThenHelp", {"-a=host", "-h"}, help, defaultsWithServers({"host"})},
    {"InstallThenVersion", {"-d", "-v"}, "", fullSettings, installs},
    {"UnloadBehindASetting",
     {"-b=true", "-unload"},
     "[LogEcho]: []: unloaded daemons; removed rules.\n",
     defaultsWith("<BalancedMode>false", "<BalancedMode>true"),
     unloads},
    {"ReloadBehindASettingPrintsTheConfiguration",
     {"-b=true", "-reload"},
     "[LogEcho]: []: running reloadDaemon...\n\n" +
         printed(defaultsWith("<BalancedMode>false", "<BalancedMode>true")),
     defaultsWith("<BalancedMode>false", "<BalancedMode>true"),
     reloads},
};

class SwitchTable : public testsupport::AdministrativeRun, public testing::WithParamInterface<Row> {};

TEST_P(SwitchTable, PrintsStoresAndRuns) {
    const Row& row = GetParam();
    const auto run = this->run(row.arguments);
    EXPECT_FALSE(run.startedDaemon);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, row.output);
    EXPECT_EQ(file(), row.file);
    EXPECT_EQ(commands(), row.commands);
}

TEST_P(SwitchTable, DoesTheSameWhenEveryCommandFails) {
    const Row& row = GetParam();
    makePrograms("exit 1");
    const auto run = this->run(row.arguments);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, row.output);
    EXPECT_EQ(commands(), row.commands);
}

INSTANTIATE_TEST_SUITE_P(Row, SwitchTable, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

// The settings with the local agent as the one server, as the daemon leaves them.
std::string asTheDaemonLeaves(std::string settings) {
    const auto replace = [&](const std::string& from, const std::string& to, const std::string& text) {
        const std::size_t start = settings.find(from);
        if (start != std::string::npos) settings.replace(start, settings.find(to, start) - start, text);
    };
    replace("<ServerName>", "<BlockOnFailure>", "");
    settings.insert(settings.find("<BlockOnFailure>"), "<ServerName>localhost</ServerName>\n");
    replace("<Ostler>", "<UpdateReady>", "<Ostler>true</Ostler>\n");
    replace("<Servers>", "</Servers>", "<Servers>\n<ServerName ServerType=\"1\">localhost</ServerName>\n");
    return settings;
}

// A run that becomes the daemon, which loads the stored file. Only a setting made before that has written over
// it: defaults and the change.
struct DaemonRow {
    const char* name;
    Words arguments;
    std::string file = asTheDaemonLeaves(fullSettings);
};

void PrintTo(const DaemonRow& row, std::ostream* out) { *out << row.name; }

const DaemonRow daemonRows[] = {
    {"NoArgument", {}},
    {"AWord", {"word"}},
    {"LogEcho", {"-logecho"}},
    {"LogEchoThenHelp", {"-logecho", "-h"}},
    {"VerboseWithoutAValue", {"-l="}},
    {"AddWithoutAValue", {"-a="}},
    {"RemoveWithoutAValue", {"-r="}},
    {"BalancedModeWithoutAValue", {"-b="}},
    {"OEMModeWithoutAValue", {"-m="}},
    {"AddThenAWord", {"-a=one", "word"}, asTheDaemonLeaves(testsupport::defaultSettings)},
    {"VerboseThenAWord",
     {"-l=true", "word"},
     asTheDaemonLeaves(defaultsWith("<VerboseLogging>false", "<VerboseLogging>true"))},
    {"LogLevelThenAWord", {"-ll=", "word"}},
};

class DaemonSwitchTable : public testsupport::AdministrativeRun,
                          public testing::WithParamInterface<DaemonRow> {};

TEST_P(DaemonSwitchTable, StartsTheDaemonAndRunsNoAdministrativeCommand) {
    const auto run = this->run(GetParam().arguments);
    EXPECT_TRUE(run.startedDaemon);
    EXPECT_TRUE(programLogged("Ostler Interceptor Started"));
    EXPECT_EQ(file(), GetParam().file);
    EXPECT_EQ(commands(), Words{});
    if (GetParam().arguments.empty() || GetParam().arguments.front() != "-logecho") {
        EXPECT_EQ(run.output, "");
    } else {
        EXPECT_EQ(run.output.find("[LogEcho]: []: ======================================\n"
                                  "[LogEcho]: []: Ostler Interceptor Started\n"),
                  0u);
        EXPECT_EQ(run.output.find("prints this help menu"), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(Row, DaemonSwitchTable, testing::ValuesIn(daemonRows),
                         [](const auto& row) { return std::string(row.param.name); });

} // namespace
