// The probe for servers that speak HTTPS, over the real rotation and real HTTPS.

#include "config/CheckinReply.h"
#include "config/Configuration.h"
#include "platform/NameLookup.h"
#include "support/CheckinWorld.h"
#include "support/LivingObjects.h"

#include <sys/socket.h>

#include <string>
#include <utility>

namespace {

using Lines = std::vector<std::string>;

class ServersHttpsCheck : public testsupport::CheckinWorld {
protected:
    // One server answers for all names; "no.example" has nothing at the place that is asked for.
    ServersHttpsCheck() {
        service.start("location /fernhill_ping/ { if ($host = no.example) { return 404; } }");
        service.put("fernhill_ping/index.html", "pong");
        for (const char* name : {"a.example", "b.example", "c.example", "no.example"})
            names.answer(name, AF_INET, {"127.0.0.1"});
        names.answer("refusing.example", AF_INET, {"127.0.0.2"});
    }

    static void probe() { serversHttpsCheckThread(nullptr); }

    static bool usesHttps(const char* name) { return Configuration::getFilterServer(name)->isUseHttps(); }

    // The probe's messages so far.
    Lines steps() const {
        Lines found;
        for (const std::string& message : log.messages())
            if (message.rfind("serversHttpsCheckThread ", 0) == 0) found.push_back(message.substr(24));
        return found;
    }
};

TEST_F(ServersHttpsCheck, WithoutAServerItEndsAtOnce) {
    Configuration::setVerboseMode(true);
    probe();
    EXPECT_EQ(steps(), (Lines{"started", "finished"}));
}

TEST_F(ServersHttpsCheck, EveryServerIsAskedOnceFromTheCurrentOneAround) {
    givenServers({"a.example", "no.example", "c.example"});
    Configuration::nextServer();
    Configuration::setVerboseMode(true);
    probe();
    EXPECT_EQ(steps(),
              (Lines{"started", "checking no.example", "server set to http", "checking c.example",
                     "server set to https", "checking a.example", "server set to https", "finished"}));
    EXPECT_TRUE(usesHttps("a.example"));
    EXPECT_FALSE(usesHttps("no.example"));
    EXPECT_TRUE(usesHttps("c.example"));
    EXPECT_EQ(service.requests("/fernhill_ping/").size(), 3u);
}

TEST_F(ServersHttpsCheck, TheCurrentServerMovesMeanwhileAndComesBack) {
    givenServers({"a.example", "b.example"});
    Configuration::setVerboseMode(true);
    probe();
    EXPECT_TRUE(log.holds("switched to backup server: b.example\n"));
    EXPECT_TRUE(log.holds("switched to backup server: a.example\n"));
    EXPECT_STREQ(Configuration::serverName(), "a.example");
}

TEST_F(ServersHttpsCheck, ASingleServerIsAskedOnce) {
    givenServers({"a.example"});
    probe();
    EXPECT_TRUE(usesHttps("a.example"));
    EXPECT_EQ(service.requests("/fernhill_ping/"), Lines{"GET /fernhill_ping/"});
    EXPECT_TRUE(steps().empty()); // it only speaks when verbose
}

TEST_F(ServersHttpsCheck, AServerThatAnswersNoMoreLosesItsMark) {
    givenServers({"no.example", "refusing.example", "unknown.example"});
    for (const char* name : {"no.example", "refusing.example", "unknown.example"})
        Configuration::getFilterServer(name)->setUseHttps(true);
    probe();
    for (const char* name : {"no.example", "refusing.example", "unknown.example"})
        EXPECT_FALSE(usesHttps(name)) << name;
}

TEST_F(ServersHttpsCheck, AServerThatTheStoreDoesNotTrustIsNoHttpsServer) {
    givenServers({"a.example"});
    testsupport::trustNobody();
    probe();
    EXPECT_FALSE(usesHttps("a.example"));
}

TEST_F(ServersHttpsCheck, AMarkedDownServerIsLeftOut) {
    givenServers({"a.example", "b.example", "c.example"});
    Configuration::addDownServer("b.example");
    probe();
    EXPECT_TRUE(usesHttps("c.example"));
    EXPECT_FALSE(usesHttps("b.example"));
}

TEST_F(ServersHttpsCheck, ARingWhoseFirstServerIsMarkedDownEndsWhenEveryServerWasAsked) {
    givenServers({"a.example", "b.example", "c.example"});
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    Configuration::addDownServer("a.example"); // and stays current
    Configuration::setVerboseMode(true);
    probe();
    EXPECT_EQ(steps(),
              (Lines{"started", "checking a.example", "server set to https", "checking b.example",
                     "server set to https", "checking c.example", "server set to https", "finished"}));
}

// Replaces the server list, as a reply does, when the last of the old servers is looked up.
class ListChange final : public platform::NameLookup {
public:
    explicit ListChange(platform::NameLookup& names) : names_(names) {}

    bool gethostbyname2(const char* name, int family, platform::HostEntry& entry) override {
        if (std::string(name) == "b.example" && !Configuration::getFilterServer("x.example"))
            applyCheckinReply(*readCheckinReply(
                "<a><ServerName>x.example</ServerName><ServerName>y.example</ServerName></a>"));
        return names_.gethostbyname2(name, family, entry);
    }

    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }

private:
    platform::NameLookup& names_;
};

TEST_F(ServersHttpsCheck, ARingThatANewListTakesAwayEndsWhenEveryNewServerWasAsked) {
    givenServers({"a.example", "b.example"});
    for (const char* name : {"x.example", "y.example"})
        names.answer(name, AF_INET, {"127.0.0.1"});
    platform::nameLookupService.install(*new ListChange(names));
    probe();
    EXPECT_EQ(service.requests("/fernhill_ping/").size(), 4u); // a, b, and once each of x and y
    EXPECT_TRUE(usesHttps("x.example"));
    EXPECT_TRUE(usesHttps("y.example"));
}

// Moves the current server on, as a filter query does, when a server is looked up for the first time.
class Step final : public platform::NameLookup {
public:
    Step(platform::NameLookup& names, std::string server) : names_(names), server_(std::move(server)) {}

    bool gethostbyname2(const char* name, int family, platform::HostEntry& entry) override {
        if (server_ == name) {
            server_.clear();
            Configuration::nextServer();
        }
        return names_.gethostbyname2(name, family, entry);
    }

    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }

private:
    platform::NameLookup& names_;
    std::string server_;
};

TEST_F(ServersHttpsCheck, ARingThatIsMovedPastItsFirstServerGoesAroundOnceMore) {
    givenServers({"a.example", "b.example", "c.example"});
    platform::nameLookupService.install(*new Step(names, "c.example")); // so a is current, and b the next
    Configuration::setVerboseMode(true);
    probe();
    EXPECT_EQ(service.requests("/fernhill_ping/").size(), 5u); // a, b, c, and once more b and c
    EXPECT_STREQ(Configuration::serverName(), "a.example");
}

TEST_F(ServersHttpsCheck, TheMarkIsNotStored) {
    givenServers({"a.example"});
    EXPECT_FALSE(writesFile(probe));
}

TEST_F(ServersHttpsCheck, AMarkStandsUntilTheServerHasBeenAsked) {
    class Watching final : public platform::NameLookup {
    public:
        std::vector<bool> marks;
        bool gethostbyname2(const char* name, int, platform::HostEntry&) override {
            marks.push_back(usesHttps(name));
            return false;
        }
        bool gethostbyname(const char* name, platform::HostEntry& entry) override {
            return gethostbyname2(name, AF_INET, entry);
        }
    };
    static Watching watching;
    givenServers({"a.example"});
    Configuration::getCurrentServer()->setUseHttps(true);
    static platform::NameLookup* const replaced = &platform::nameLookup(); // for the leak check's sight
    ASSERT_NE(replaced, nullptr);
    platform::nameLookupService.install(watching);
    probe();
    EXPECT_EQ(watching.marks, std::vector<bool>{true});
    EXPECT_FALSE(usesHttps("a.example"));
}

TEST_F(ServersHttpsCheck, AProbeLeavesNoObject) {
    givenServers({"a.example", "no.example"});
    EXPECT_EQ(testsupport::objectsLeftBy(probe), 0);
}

} // namespace
