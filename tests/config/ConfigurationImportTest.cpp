#include "config/Configuration.h"

#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/HeldLocks.h"
#include "support/LivingObjects.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Objects.h"
#include "support/Patience.h"
#include "support/PlayedNames.h"
#include "support/SettingsWorld.h"

#include <filesystem>
#include <sys/socket.h>
#include <thread>

using Names = std::vector<std::string>;

namespace {

// A web server on loopback that gives one answer to so many requests, one after another.
class WebServer {
public:
    explicit WebServer(const std::string& answer, int requests = 1)
        : worker_([this, answer, requests] { serve(answer, requests); }) {}

    ~WebServer() { worker_.join(); }

    // Its name as it stands in the server list.
    std::string name() const { return "127.0.0.1:" + std::to_string(listener_.port()); }

    // The first line of each request so far. Only after the requests are answered.
    Names requestLines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    void serve(const std::string& answer, int requests) {
        for (int i = 0; i < requests; ++i) {
            testsupport::Peer peer = listener_.accept();
            const std::string request = peer.readUntil("\r\n\r\n");
            {
                std::lock_guard lock(mutex_);
                lines_.push_back(request.substr(0, request.find("\r\n")));
            }
            peer.send(answer);
        }
    }

    testsupport::LoopbackListener listener_;
    std::mutex mutex_;
    Names lines_;
    std::thread worker_;
};

const char* const plainAnswer = "HTTP/1.1 200 OK\r\nServer: nginx\r\nContent-Length: 0\r\n\r\n";
const char* const iisAnswer = "HTTP/1.1 200 OK\r\nServer: Microsoft-IIS/10.0\r\nContent-Length: 0\r\n\r\n";
const char* const namelessAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
const char* const missingAnswer = "HTTP/1.1 404 Not Found\r\nServer: nginx\r\n\r\n";

class NetworkedSettings : public testsupport::SettingsWorld {
protected:
    NetworkedSettings() {
        names_.install();
        names_.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
        testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    }

private:
    testsupport::PlayedNames names_;
};

class ServerProbe : public NetworkedSettings {
protected:
    static Owned<FilterServer> unprobed(const std::string& name) {
        auto server = Owned<FilterServer>::adopt(new FilterServer(name.c_str()));
        server->setServerType(ServerTypeUnknown);
        return server;
    }
};

TEST_F(ServerProbe, NoServerHasTheUnknownType) { EXPECT_EQ(Configuration::findServerType(nullptr), 0); }

TEST_F(ServerProbe, AKnownTypeIsAnsweredWithoutTheNetworkAndWithoutTheLock) {
    auto server = Owned<FilterServer>::adopt(new FilterServer("nobody.example"));
    server->lock();
    EXPECT_EQ(Configuration::findServerType(server.get()), ServerTypeOrdinary);
    server->unlock();
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ServerProbe, ACallerThatWaitedAtTheLockTakesTheTypeThatWasFoundMeanwhile) {
    auto server = unprobed("nobody.example");
    const GPMutex* lock = testsupport::firstLockOf([&] {
        server->lock();
        server->unlock();
    });
    removeFile();
    testsupport::StoppedAtLock stopped(
        lock, [&] { EXPECT_EQ(Configuration::findServerType(server.get()), ServerTypeIIS); });
    ASSERT_TRUE(stopped.waits());
    server->setServerType(ServerTypeIIS);
    stopped.letGo();
    EXPECT_EQ(file(), "");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ServerProbe, AServerThatNamesItselfIsOrdinaryAndSaved) {
    WebServer web(plainAnswer);
    auto server = unprobed(web.name());
    EXPECT_TRUE(writesFile([&] { EXPECT_EQ(Configuration::findServerType(server.get()), 1); }));
    EXPECT_EQ(server->getServerType(), ServerTypeOrdinary);
    EXPECT_EQ(web.requestLines(), Names{"GET /fernhill_ping.html HTTP/1.1"});
    EXPECT_EQ(log.countContaining("ServerType changed"), 0);
}

TEST_F(ServerProbe, AnIISServerHasItsOwnTypeAndTheChangeIsLoggedWhenVerbose) {
    Configuration::setVerboseMode(true);
    WebServer web(iisAnswer);
    auto server = unprobed(web.name());
    EXPECT_EQ(Configuration::findServerType(server.get()), ServerTypeIIS);
    EXPECT_TRUE(log.holds("ServerType changed; saving changes."));
}

TEST_F(ServerProbe, TheNameIsComparedAsAPrefixInEitherDirection) {
    WebServer web("HTTP/1.1 200 OK\r\nServer: Micro\r\nContent-Length: 0\r\n\r\n");
    auto server = unprobed(web.name());
    EXPECT_EQ(Configuration::findServerType(server.get()), ServerTypeIIS);
}

TEST_F(ServerProbe, AnAnswerWithoutServerHeaderLeavesTheTypeUnknownAndIsAskedAgain) {
    WebServer web(namelessAnswer, 2);
    auto server = unprobed(web.name());
    EXPECT_FALSE(writesFile([&] { EXPECT_EQ(Configuration::findServerType(server.get()), 0); }));
    EXPECT_EQ(Configuration::findServerType(server.get()), 0);
    EXPECT_EQ(web.requestLines().size(), 2u);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ServerProbe, AServerThatDoesNotAnswerKeepsTheUnknownType) {
    auto server = unprobed("127.0.0.1:" + std::to_string(testsupport::freePort()));
    EXPECT_FALSE(writesFile([&] { EXPECT_EQ(Configuration::findServerType(server.get()), 0); }));
    EXPECT_EQ(server->getServerType(), ServerTypeUnknown);
}

TEST_F(ServerProbe, AServerWithoutNameIsReportedAndNotAsked) {
    auto server = unprobed("");
    EXPECT_EQ(Configuration::findServerType(server.get()), 0);
    EXPECT_EQ(log.messages(), Names{"Warning: no server name found when getting the server type."});
}

class SiblingImport : public NetworkedSettings {
protected:
    void SetUp() override {
        std::filesystem::create_directories(
            std::filesystem::path(platform::HostPaths::siblingPreferences()).parent_path());
    }

    static void givenPreferences(const std::string& content) {
        testsupport::writeAll(platform::HostPaths::siblingPreferences(), content);
    }

    static bool preferencesAreThere() {
        return std::filesystem::exists(platform::HostPaths::siblingPreferences());
    }

    static std::string path() { return platform::HostPaths::siblingPreferences(); }
};

TEST_F(SiblingImport, WithoutPreferencesNothingHappens) {
    givenServers({"old.example"});
    EXPECT_FALSE(writesFile([] { Configuration::loadRemoteServers(); }));
    EXPECT_EQ(listedServers(), Names{"old.example"});
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(SiblingImport, EmptyPreferencesDoNotReadAndStay) {
    givenPreferences("");
    Configuration::loadRemoteServers();
    EXPECT_TRUE(preferencesAreThere());
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(SiblingImport, BrokenPreferencesAreReportedAndKeptWithTheOldList) {
    givenServers({"old.example"});
    givenPreferences("bplist00");
    EXPECT_FALSE(writesFile([] { Configuration::loadRemoteServers(); }));
    EXPECT_TRUE(preferencesAreThere());
    EXPECT_EQ(listedServers(), Names{"old.example"});
    EXPECT_EQ(log.messages(), (Names{"processing config file: " + path(),
                                     "[Error]: " + path() + " is not a valid plist format"}));
}

TEST_F(SiblingImport, PreferencesWithoutAnyStringAreReportedAndKept) {
    givenServers({"old.example"});
    givenPreferences("<plist><dict><key>servers</key><true/></dict></plist>");
    Configuration::loadRemoteServers();
    EXPECT_TRUE(preferencesAreThere());
    EXPECT_EQ(listedServers(), Names{"old.example"});
    EXPECT_TRUE(log.holds("[Error]: no servers found in: " + path()));
}

TEST_F(SiblingImport, ServersThatAnswerReplaceTheListAndThePreferencesGo) {
    givenServers({"old.example"});
    WebServer first(plainAnswer), second(plainAnswer);
    givenPreferences("<plist><dict><key>a</key><string>" + first.name() +
                     "</string><key>b</key><array><string>" + second.name() +
                     "</string><string></string></array></dict></plist>");
    EXPECT_TRUE(writesFile([] { Configuration::loadRemoteServers(); }));
    EXPECT_EQ(listedServers(), (Names{first.name(), second.name()}));
    EXPECT_FALSE(preferencesAreThere());
    EXPECT_EQ(first.requestLines(), Names{"HEAD /fernhill_ping.html HTTP/1.1"});
    EXPECT_EQ(log.messages(), Names{"processing config file: " + path()});
    EXPECT_NE(file().find("<ServerName ServerType=\"1\">" + second.name() + "</ServerName>"),
              std::string::npos);
}

TEST_F(SiblingImport, TheStepsAreLoggedWhenVerbose) {
    Configuration::setVerboseMode(true);
    WebServer web(plainAnswer);
    givenPreferences("<plist><string>" + web.name() + "</string></plist>");
    Configuration::loadRemoteServers();
    EXPECT_TRUE(log.holds("adding server " + web.name() + " to the config."));
    EXPECT_TRUE(log.holds("servers added, deleting: " + path()));
}

TEST_F(SiblingImport, WhenNoServerAnswersTheListIsEmptyAndThePreferencesGoAllTheSame) {
    givenServers({"old.example"});
    WebServer web(missingAnswer);
    const std::string silent = "127.0.0.1:" + std::to_string(testsupport::freePort());
    givenPreferences("<plist><string>" + web.name() + "</string><string>" + silent + "</string></plist>");
    EXPECT_TRUE(writesFile([] { Configuration::loadRemoteServers(); }));
    EXPECT_TRUE(listedServers().empty());
    EXPECT_FALSE(preferencesAreThere());
    EXPECT_TRUE(log.holds("server: " + web.name() + " did not respond. Not adding server to the config."));
    EXPECT_TRUE(log.holds("server: " + silent + " did not respond. Not adding server to the config."));
}

TEST_F(SiblingImport, ThePreferencesStayUntilTheServersAreSaved) {
    WebServer web(plainAnswer);
    givenPreferences("<plist><string>" + web.name() + "</string></plist>");
    const GPMutex* mutex = testsupport::firstLockOf([] { Configuration::saveConfig(true); });
    removeFile();
    const testsupport::BeforeRelease saved(mutex, [&] {
        EXPECT_NE(file().find(web.name()), std::string::npos);
        EXPECT_TRUE(preferencesAreThere());
    });
    Configuration::loadRemoteServers();
    EXPECT_EQ(saved.count(), 1);
    EXPECT_FALSE(preferencesAreThere());
}

TEST_F(SiblingImport, AnImportedServerIsTheListsAlone) {
    WebServer web(plainAnswer);
    givenPreferences("<plist><string>" + web.name() + "</string></plist>");
    Configuration::loadRemoteServers();
    Configuration::addServerName("added.example", false);
    EXPECT_EQ(testsupport::references(Configuration::getFilterServer(web.name().c_str())),
              testsupport::references(Configuration::getFilterServer("added.example")));
}

TEST_F(SiblingImport, PreferencesWithoutServersLeaveNoObject) {
    for (const char* content : {"", "bplist00", "<plist><dict></dict></plist>"}) {
        givenPreferences(content);
        EXPECT_EQ(testsupport::objectsLeftBy(Configuration::loadRemoteServers), 0) << content;
    }
}

TEST_F(ServerProbe, AProbeLeavesNoObject) {
    WebServer web(namelessAnswer, 2);
    auto server = unprobed(web.name());
    EXPECT_EQ(testsupport::objectsLeftBy([&] { Configuration::findServerType(server.get()); }), 0);
}

} // namespace
