#include "app/AdministrativeCommands.h"

#include "app/Switches.h"
#include "config/CheckinRequest.h"
#include "platform/ClosedOnExec.h"
#include "support/AdministrativeRun.h"
#include "support/CheckinService.h"
#include "support/ForkedChild.h"
#include "support/LivingObjects.h"
#include "support/ManualClock.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace {

using testsupport::defaultSettings;
using testsupport::defaultsWith;
using testsupport::EntryBuilder;
using testsupport::fullSettings;
using testsupport::writeAll;
using Words = std::vector<std::string>;

constexpr const char* wellKnownHost = "www.apple.com";

class AdministrativeCommands : public testsupport::AdministrativeRun {
protected:
    // The machine gets a network interface.
    void connect() {
        world.interfaces = EntryBuilder().link("en0", "\x02\x1b\x0a\x4d\x5e\xff").ipv4("en0", "10.0.0.2");
    }

    // What a device report prints; the run must have ended with status 0.
    std::string report(const std::string& argument) const {
        const auto run = this->run({argument});
        EXPECT_EQ(run.status, 0);
        return run.output;
    }

    // The identifier that the file holds.
    std::string identifier() const { return inFile("MachineUUID"); }

    // The program's folder, with a new executable waiting in it.
    void putNewExecutable(const std::string& content) {
        writeAll(root.path() + "/usr/local/bin/twupdate", content);
    }
};

// ---- the device report

TEST_F(AdministrativeCommands, TheDeviceReportNamesTheMachineAndResolvesAWellKnownHost) {
    connect();
    world.names = {{wellKnownHost, "192.0.2.1"}};
    const std::string printed = report("-info");
    EXPECT_EQ(printed, "Device output:\nthe UUID: " + identifier() +
                           "\nthe Mac address: 02:1b:0a:4d:5e:ff\nsuccessfully resolved the host\n"
                           "version is: 1.5.2\n");
    EXPECT_EQ(identifier().size(), 36u);
}

TEST_F(AdministrativeCommands, TheFirstOfSeveralHardwareAddressesIsReported) {
    connect();
    world.interfaces.link("en1", "\x02\x02\x02\x02\x02\x02").ipv4("en1", "10.0.1.2");
    EXPECT_NE(report("-info").find("\nthe Mac address: 02:1b:0a:4d:5e:ff\n"), std::string::npos);
}

TEST_F(AdministrativeCommands, AnInterfaceWithAnIpv6AddressAloneIsReported) {
    world.interfaces = EntryBuilder().link("en0", "\x02\x1b\x0a\x4d\x5e\xff").ipv6("en0", "2001:db8::2");
    EXPECT_NE(report("-info").find("\nthe Mac address: 02:1b:0a:4d:5e:ff\n"), std::string::npos);
}

TEST_F(AdministrativeCommands, TheDeviceReportOfAMachineWithoutInterfacesRunsTwoLinesTogether) {
    EXPECT_EQ(report("-info"), "Device output:\nthe UUID: 00000000-0000-0000-0000-000000000000\n"
                               "no Mac addresses avaliableunable to resolve the host\nversion is: 1.5.2\n");
}

TEST_F(AdministrativeCommands, TheDeviceReportResolvesTheNameThatItIsGiven) {
    world.names = {{"host.example", "192.0.2.1"}};
    EXPECT_NE(report("-info=\"host.example\"").find("avaliablesuccessfully resolved the host\nversion"),
              std::string::npos);
}

TEST_F(AdministrativeCommands, TheDeviceReportNamesAHostThatDoesNotResolve) {
    world.names = {{wellKnownHost, "192.0.2.1"}};
    EXPECT_NE(report("-info=host.example").find("avaliableunable to resolve: host.example\nversion"),
              std::string::npos);
}

TEST_F(AdministrativeCommands, AnEmptyNameIsANameThatDoesNotResolve) {
    world.names = {{wellKnownHost, "192.0.2.1"}};
    EXPECT_NE(report("-info=").find("unable to resolve: \nversion is: "), std::string::npos);
}

TEST_F(AdministrativeCommands, TheDeviceReportWritesWhatTheProcessHoldsOverTheStoredSettings) {
    connect();
    report("-info");
    EXPECT_EQ(file(), defaultsWith("<BlockOnFailure>",
                                   "<MachineUUID>" + identifier() + "</MachineUUID>\n<BlockOnFailure>"));
}

TEST_F(AdministrativeCommands, WithoutAnIdentifierTheDeviceReportStillWritesTheDefaults) {
    report("-info");
    EXPECT_EQ(file(), defaultSettings);
}

// ---- the OEM file and the LDAP override

TEST_F(AdministrativeCommands, OEMWithNothingBehindItsEqualSignGetsAnEmptyTextAndNotNull) {
    run({"-oem="});
    EXPECT_EQ(fileAt("/fernhill_oem.xml"), "<Fernhill>\n<Vendor></Vendor>\n</Fernhill>\n");
}

TEST_F(AdministrativeCommands, OEMWithoutAnEqualSignGetsNull) {
    run({"-oemfoo"});
    EXPECT_EQ(fileAt("/fernhill_oem.xml"), "<Fernhill>\n</Fernhill>\n");
}

TEST_F(AdministrativeCommands, TheLdapOverrideIsWrittenForAValueAlone) {
    run({"-o='dc=example'"});
    EXPECT_EQ(fileAt("/Library/twsys/ldap.xml"), "<Ldap>\n<Base>dc=example</Base>\n</Ldap>\n");
    run({"-o=\"\""});
    EXPECT_EQ(fileAt("/Library/twsys/ldap.xml"), "<Ldap>\n<Base>dc=example</Base>\n</Ldap>\n");
}

// ---- finishing an update

TEST_F(AdministrativeCommands, AnUpdatePutsTheWaitingExecutableInThePlaceOfTheOldOne) {
    writeAll(root.path() + "/usr/local/bin/fernhill", "old");
    putNewExecutable("new");
    EXPECT_EQ(run({"-update='fernhill'"}).output, "1.5.2\n");
    EXPECT_EQ(fileAt("/usr/local/bin/fernhill"), "new");
    EXPECT_TRUE(programLogged("successfully updated to version: 1.5.2"));
}

TEST_F(AdministrativeCommands, AnUpdateThatFailsIsLoggedAndTheStatusStaysZero) {
    const auto run = this->run({"-update=fernhill"});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(programLogged("unable to complete the update"));
}

TEST_F(AdministrativeCommands, AnUpdateWithoutANameLeavesTheWaitingExecutable) {
    putNewExecutable("new");
    run({"-update=\"'"});
    EXPECT_EQ(fileAt("/usr/local/bin/twupdate"), "new");
    EXPECT_TRUE(programLogged("unable to complete the update"));
}

// ---- the restart of the services

TEST_F(AdministrativeCommands, ReloadShowsWhatItsTwoCommandsPrintInFrontOfTheHelpText) {
    makePrograms("echo $1");
    const std::string printed = run({"-reload"}).output;
    EXPECT_EQ(printed.find("[LogEcho]: []: running reloadDaemon...\n\nunload\nload\n\nOstler Interceptor v"),
              0u)
        << printed;
}

TEST_F(AdministrativeCommands, AnInstallationEchoesTheLog) {
    world.path = "/nowhere";
    EXPECT_NE(run({"-d"}).output.find("[LogEcho]: []: "), std::string::npos);
    EXPECT_EQ(run({"-reboot"}).output.find("[LogEcho]"), std::string::npos);
}

TEST_F(AdministrativeCommands, OtherCommandsPrintNothing) {
    makePrograms("echo $1");
    for (const char* argument : {"-d", "-unload", "-reboot"})
        EXPECT_EQ(run({argument}).output.find("load /"), std::string::npos) << argument;
}

// ---- the wrappers

TEST_F(AdministrativeCommands, TheWrappersRunLaunchctlAndKeepNothing) {
    testsupport::ManualClock::installed().letSleepsPass(true);
    makePrograms("echo some output");
    loadDaemon("/a.plist");
    unloadDaemon("/b.plist");
    EXPECT_EQ(commands(), (Words{"launchctl load /a.plist", "launchctl unload /b.plist"}));
}

TEST_F(AdministrativeCommands, NoCommandLeavesAnObject) {
    testsupport::ManualClock::installed().letSleepsPass(true);
    makePrograms("echo some output");
    for (void (*command)(const char*) : {loadDaemon, loadAgent, unloadDaemon})
        EXPECT_EQ(testsupport::objectsLeftBy([command] { command("/a.plist"); }), 0);
    for (void (*command)() : {unloadDaemons, reloadDaemons, rebootMachine, installDaemons})
        EXPECT_EQ(testsupport::objectsLeftBy(command), 0);
}

TEST_F(AdministrativeCommands, TheLoadAsTheConsoleUserPassesNoShell) {
    testsupport::ManualClock::installed().letSleepsPass(true);
    loadAgent("/a.plist");
    EXPECT_EQ(commands(), Words{"sudo -u $(stat -f%Su /dev/console) launchctl load /a.plist"});
}

// ---- the check-in

class ForcedCheckin : public AdministrativeCommands {
protected:
    ForcedCheckin() {
        connect();
        for (const char* name : {checkinHost(), "x", "y"})
            world.names[name] = "127.0.0.1";
    }

    testsupport::PlayedNames names;
    testsupport::CheckinService service{names};
};

TEST_F(ForcedCheckin, ReportsToTheServiceAndPrintsTheVersion) {
    service.reply("<a></a>");
    const auto run = this->run({"-f"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "1.5.2\n");
    EXPECT_EQ(service.requests(),
              Words{"GET /1/checkin?mac=02%3A1b%3A0a%3A4d%3A5e%3Aff&platform=Mac_x64&version=1.5.2&uuid=" +
                    identifier() + "&oem=0"});
}

TEST_F(ForcedCheckin, WritesWhatTheProcessHoldsDefaultsPlusWhatTheReplyChanged) {
    service.reply("<a><Dormant>true</Dormant><ServerName>x</ServerName><ServerName>y</ServerName></a>");
    EXPECT_EQ(run({"-f"}).status, 0);
    std::string expected = testsupport::defaultsWithServers({"x", "y"});
    expected.insert(expected.find("<ServerName>"), "<MachineUUID>" + identifier() + "</MachineUUID>\n");
    const std::string off = "<FilteringDisabled>false";
    expected.replace(expected.find(off), off.size(), "<FilteringDisabled>true");
    EXPECT_EQ(file(), expected);
}

TEST_F(ForcedCheckin, StopsTheWalkAndAppliesTheSettingsBeforeIt) {
    service.reply("<a></a>");
    EXPECT_EQ(run({"-m=true", "-f", "-q"}).output, "1.5.2\n");
    ASSERT_EQ(service.requests().size(), 1u);
    EXPECT_NE(service.requests()[0].find("&oem=1"), std::string::npos);
}

TEST_F(ForcedCheckin, EndsWithStatusZeroWithoutAServiceOrAnInterface) {
    EXPECT_EQ(run({"-f"}).status, 0);
    world.interfaces = EntryBuilder();
    EXPECT_EQ(run({"-f"}).status, 0);
    EXPECT_TRUE(programLogged("no mac address found on the device, check-in is not possible at this time."));
}

TEST_F(ForcedCheckin, TakesAWriteToAClosedConnectionAsAnError) {
    testsupport::PlayedInterfaces noInterfaces;
    noInterfaces.install();
    EXPECT_EQ(testsupport::answerOfChild([] {
                  char program[] = "fernhill", checkIn[] = "-f";
                  char* arguments[] = {program, checkIn, nullptr};
                  ostlerMain(2, arguments);
                  return std::string(std::signal(SIGPIPE, SIG_DFL) == SIG_IGN ? "ignored" : "deadly");
              }),
              "ignored");
}

// Listens on port 443 of an address and takes no connection, so that a handshake with it never ends.
class SilentListener {
public:
    explicit SilentListener(const char* address)
        : socket_(platform::closedOnExecSocket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in place{};
        place.sin_family = AF_INET;
        place.sin_port = htons(443);
        inet_pton(AF_INET, address, &place.sin_addr);
        if (bind(socket_, reinterpret_cast<sockaddr*>(&place), sizeof place) != 0 || listen(socket_, 16) != 0)
            throw std::runtime_error("nothing listens");
    }
    ~SilentListener() { close(socket_); }

    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;

private:
    int socket_;
};

TEST_F(ForcedCheckin, EndsWithStatusZeroWhileTheProbeIsInTheMiddleOfAHandshake) {
    const SilentListener silent("127.0.0.3");
    world.names["x"] = "127.0.0.3";
    service.reply("<a><ServerName>x</ServerName></a>");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(run({"-l=true", "-f"}).status, 0);
}

} // namespace
