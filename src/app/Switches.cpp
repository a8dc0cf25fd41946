#include "app/Switches.h"

#include "agent/Updater.h"
#include "app/AdministrativeCommands.h"
#include "app/Daemon.h"
#include "config/Configuration.h"
#include "config/FilterCheck.h"
#include "gp/GPFilesystem.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "identity/UserAuth.h"
#include "platform/HostPaths.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

using platform::HostPaths;

namespace {

// Set by the walk, read by the final tests.
bool helpswitch = false;
bool daemonswitch = false;
bool updateswitch = false;
bool versionswitch = false;
bool testswitch = false;
bool serverswitch = false;
bool ldapswitch = false;

// Six of the switches; the others stay untold.
constexpr const char* helpText =
    "\nOstler Interceptor v%s  Tarnwick Systems. Filters mobile clients.\n\n"
    "    -h\t\t\t\tprints this help menu\n\n"
    "    -l=<bool value>\t\tset if the Ostler Interceptor is verbose logging mode or not\n\n"
    "    -q\t\t\t\tprint the Ostler Interceptor config\n\n"
    "    -v\t\t\t\tprint the Ostler Interceptor version\n\n"
    "    -o=<baseDN>\t\t\tcreate an ldap override file with the baseDN in it\n\n"
    "    -f\t\t\t\tforce a checkin to mobile device site\n\n"
    "    \n    no switches starts the agent normally.\n\n";

// What the walk does after a switch.
enum class Then { nextArgument, finalTests, startDaemon, exitAtOnce };

// A switch's value without quotes: all of them go, wherever they stand.
Owned<GPString> unquoted(const char* text) {
    std::string value;
    for (; *text; ++text)
        if (*text != '\'' && *text != '"') value += *text;
    return Owned<GPString>::adopt(new GPString(value.c_str()));
}

// The value of a switch that may come without one: an empty handle unless "=" is next.
Owned<GPString> optionalValue(const char* rest) {
    if (*rest != '=') return {};
    return unquoted(rest + 1);
}

// Each of these runs one switch; `rest` is the argument behind the switch's text.

Then help(const char*) {
    helpswitch = true;
    return Then::finalTests;
}

Then logEcho(const char*) {
    setLogEcho(true);
    return Then::startDaemon;
}

Then install(const char*) {
    daemonswitch = true;
    return Then::finalTests;
}

Then unload(const char*) {
    updateswitch = true;
    unloadDaemons();
    return Then::finalTests;
}

Then reload(const char*) {
    reloadDaemons();
    return Then::finalTests;
}

Then reboot(const char*) {
    rebootMachine();
    return Then::finalTests;
}

Then update(const char* rest) {
    versionswitch = true;
    completeUpdate(unquoted(rest).get());
    return Then::finalTests;
}

Then test(const char*) {
    testswitch = true;
    std::printf("the test function");
    return Then::exitAtOnce;
}

Then markOEM(const char* rest) {
    Configuration::createOEMConfig(optionalValue(rest).get());
    versionswitch = true;
    return Then::finalTests;
}

Then deviceInfo(const char* rest) {
    versionswitch = true;
    printDeviceReport(optionalValue(rest).get());
    return Then::finalTests;
}

Then version(const char*) {
    versionswitch = true;
    return Then::finalTests;
}

Then checkIn(const char*) {
    versionswitch = true;
    // A write to a connection that the service has closed must come back as an error, as in the daemon.
    std::signal(SIGPIPE, SIG_IGN);
    FilterCheck::runCheckin();
    return Then::finalTests;
}

Then addServer(const char* rest) {
    Owned<GPString> value = unquoted(rest);
    if (value->length() == 0) return Then::nextArgument;
    Configuration::addServerName(value->cstr(), true);
    serverswitch = true;
    return Then::nextArgument;
}

Then removeServer(const char* rest) {
    Owned<GPString> value = unquoted(rest);
    if (value->length() == 0) return Then::nextArgument;
    Configuration::removeServerName(value->cstr(), true);
    serverswitch = true;
    return Then::nextArgument;
}

Then setMode(const char* rest, void (*set)(bool)) {
    Owned<GPString> value = unquoted(rest);
    if (value->length() == 0) return Then::nextArgument;
    set(value->boolValue());
    serverswitch = true;
    return Then::nextArgument;
}

Then balancedMode(const char* rest) { return setMode(rest, Configuration::setBalancedMode); }

Then oemMode(const char* rest) { return setMode(rest, Configuration::setOEMMode); }

Then verboseMode(const char* rest) { return setMode(rest, Configuration::setVerboseMode); }

Then query(const char*) {
    serverswitch = true;
    return Then::finalTests;
}

Then ldapOverride(const char* rest) {
    ldapswitch = true;
    Owned<GPString> value = unquoted(rest);
    if (value->length() > 0) UserAuth::createLdapConfFile(value->cstr());
    return Then::finalTests;
}

// Unlike the other settings a level without a value still prints the configuration.
Then setLevel(const char* rest, void (*set)(int)) {
    serverswitch = true;
    Owned<GPString> value = unquoted(rest);
    if (value->length() > 0) set(value->intValue());
    return Then::nextArgument;
}

Then logLevel(const char* rest) { return setLevel(rest, Configuration::setLogLevel); }

Then kernelLogLevel(const char* rest) { return setLevel(rest, Configuration::setKernelLogLevel); }

struct Switch {
    const char* text;
    bool prefix; // the argument need only begin with the text; otherwise it is the text
    Then (*run)(const char* rest);
};

// In order of precedence. Where a prefix is enough, longer words match as well: -quiet is -q.
constexpr Switch switches[] = {
    {"-h", false, help},         {"-logecho", false, logEcho}, {"-d", false, install},
    {"-unload", false, unload},  {"-reload", false, reload},   {"-reboot", false, reboot},
    {"-update=", true, update},  {"-t", false, test},          {"-oem", true, markOEM},
    {"-info", true, deviceInfo}, {"-v", false, version},       {"-f", false, checkIn},
    {"-a=", true, addServer},    {"-r=", true, removeServer},  {"-b=", true, balancedMode},
    {"-m=", true, oemMode},      {"-l=", true, verboseMode},   {"-q", true, query},
    {"-o=", true, ldapOverride}, {"-ll=", true, logLevel},     {"-kll=", true, kernelLogLevel},
};

Then runSwitch(const char* argument) {
    for (const Switch& known : switches) {
        const std::size_t length = std::strlen(known.text);
        const bool matches = known.prefix ? std::strncmp(argument, known.text, length) == 0
                                          : std::strcmp(argument, known.text) == 0;
        if (matches) return known.run(argument + length);
    }
    return Then::finalTests;
}

// A word without a dash starts the daemon whatever stood before it; so does running out of arguments before
// any setting was made, a lone "-a=" included.
Then walkSwitches(int argc, char* argv[]) {
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] != '-') return Then::startDaemon;
        const Then then = runSwitch(argv[i]);
        if (then != Then::nextArgument) return then;
    }
    return serverswitch ? Then::finalTests : Then::startDaemon;
}

void printHelp() { std::printf(helpText, Updater::versionString()); }

// What an administrative run prints or does last. The first flag in this order wins.
void runFinalTests() {
    if (testswitch)
        std::printf("the test function");
    else if (updateswitch)
        return;
    else if (versionswitch)
        std::printf("%s\n", Updater::versionString());
    else if (helpswitch)
        printHelp(); // NOLINT(bugprone-branch-clone): also what is done without any of them
    else if (serverswitch)
        std::printf("\n%s\n", Configuration::configString());
    else if (ldapswitch)
        std::printf("\n%s\n", UserAuth::printLDAPConfig());
    else if (daemonswitch)
        installDaemons();
    else
        printHelp();
}

void runFirstSteps(const char* program) {
    setProcessName(program);
    setLogName("fernhill");
    if (!ifExist(HostPaths::logDirectory())) createDir(HostPaths::logDirectory());
    setLogDirectory(HostPaths::logDirectory());
    Updater::setPath(program);
    logs("======================================");
    logs("Ostler Interceptor");
}

} // namespace

int ostlerMain(int argc, char* argv[]) {
    runFirstSteps(argv[0]);
    switch (walkSwitches(argc, argv)) {
        case Then::startDaemon:
            return daemonStart();
        case Then::exitAtOnce:
            return 0;
        default:
            runFinalTests();
            return 0;
    }
}
