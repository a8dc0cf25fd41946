// Check-ins over real HTTPS.

#include "config/CheckinReply.h"
#include "config/CheckinRequest.h"
#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "filter/FilterQuery.h"
#include "gp/GPDate.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/Await.h"
#include "support/CheckinWorld.h"
#include "support/LivingObjects.h"
#include "support/ThreadStarts.h"

#include <chrono>
#include <filesystem>
#include <future>

namespace {

using testsupport::comesTrue;
using testsupport::EntryBuilder;

class FilterCheckin : public testsupport::CheckinWorld {
protected:
    // The check-in with the answer of the moment; the HTTPS probe behind it has ended too.
    bool checkInAndProbe() {
        Configuration::setVerboseMode(true);
        const int before = log.countContaining("serversHttpsCheckThread finished");
        const bool done = FilterCheck::runCheckin();
        EXPECT_TRUE(
            comesTrue([&] { return log.countContaining("serversHttpsCheckThread finished") == before + 1; }));
        return done;
    }

    // No probe comes behind a check-in from now on: its walk over the servers moves the current one meanwhile.
    static void holdProbesBack() {
        testsupport::playThreadStarts([](auto* thread, auto* attributes, auto* function, auto* argument) {
            const bool isProbe = function == serversHttpsCheckThread;
            const auto start = isProbe ? testsupport::startNothing : testsupport::startThread;
            return start(thread, attributes, function, argument);
        });
    }

    // The place of the message in the log; -1 if it is not there.
    int place(const std::string& message) const {
        const auto all = log.messages();
        for (std::size_t i = 0; i < all.size(); ++i)
            if (all[i] == message) return static_cast<int>(i);
        return -1;
    }

    static bool addressesAreBuilt() {
        FilterIPAddresses* current = FilterIPAddresses::getCurrentIPAddresses();
        if (current) current->release();
        return current != nullptr;
    }

    std::string requestTarget(const std::string& oem) const {
        return "GET /1/checkin?mac=" + std::string(escapedAddress) +
               "&platform=Mac_x64&version=1.5.2&uuid=" + Configuration::machineGUID() + "&oem=" + oem;
    }
};

TEST_F(FilterCheckin, TheRequestNamesTheMachineAndNoVersionOfTheSystem) {
    EXPECT_TRUE(checkInWith("<a></a>"));
    EXPECT_EQ(service.requests(), std::vector<std::string>{requestTarget("0")});
    EXPECT_EQ(inFile("MachineUUID"), Configuration::machineGUID());
}

TEST_F(FilterCheckin, ASecondRequestIsTheSameButForTheOEMMode) {
    checkInWith("<a></a>");
    Configuration::setOEMMode(true);
    checkInWith("<a></a>");
    EXPECT_EQ(service.requests(), (std::vector<std::string>{requestTarget("0"), requestTarget("1")}));
}

TEST_F(FilterCheckin, TheFirstOfSeveralHardwareAddressesIsSent) {
    interfaces.show(EntryBuilder()
                        .link("en0", hardwareAddress)
                        .ipv4("en0", "10.0.0.2")
                        .link("en1", "\x02\x02\x02\x02\x02\x02")
                        .ipv4("en1", "10.0.1.2"));
    checkInWith("<a></a>");
    EXPECT_EQ(service.requests(), std::vector<std::string>{requestTarget("0")});
}

TEST_F(FilterCheckin, WithoutANetworkInterfaceThereIsNoCheckInButAProbe) {
    service.reply("<a><Dormant>true</Dormant></a>");
    loseInterfaces();
    EXPECT_FALSE(checkInAndProbe());
    EXPECT_TRUE(log.holds("no mac address found on the device, check-in is not possible at this time."));
    EXPECT_TRUE(log.holds("checkin complete."));
    EXPECT_TRUE(service.requests().empty());
    EXPECT_FALSE(Configuration::filteringDisabled());
}

TEST_F(FilterCheckin, AQuietCheckInLogsTheHostAlone) {
    checkInWith("<a></a>");
    EXPECT_TRUE(log.holds(std::string("checking into ") + checkinHost()));
    EXPECT_EQ(log.countContaining("processing."), 0);
    EXPECT_EQ(log.countContaining("reporting to"), 0);
    EXPECT_EQ(log.countContaining("checkin response"), 0);
    EXPECT_EQ(log.countContaining("checkin complete"), 0);
}

TEST_F(FilterCheckin, AVerboseCheckInLogsItsSteps) {
    service.reply("<a><Dormant>1</Dormant></a>");
    EXPECT_TRUE(checkInAndProbe());
    const std::string url = std::string("https://") + checkinHost() + requestTarget("0").substr(4);
    int last = -1;
    for (const std::string& message :
         {std::string("Started checkin processing."), std::string("Getting mac addresses"),
          std::string("found macaddresses building query"), "reporting to: " + url,
          std::string("checkin response=<a><Dormant>1</Dormant></a>"),
          std::string("filtering mode from api server is: true"), std::string("checkin complete.")}) {
        EXPECT_GT(place(message), last) << message;
        last = place(message);
    }
    EXPECT_EQ(log.countContaining("checking into"), 0);
}

TEST_F(FilterCheckin, DormantTurnsFilteringOffUntilAReplySaysOtherwise) {
    EXPECT_TRUE(checkInWith("<a><Dormant>TRUE</Dormant></a>"));
    EXPECT_TRUE(FilterCheck::filteringDisabled());
    EXPECT_EQ(inFile("FilteringDisabled"), "true");
    EXPECT_TRUE(checkInWith("<a></a>"));
    EXPECT_TRUE(FilterCheck::filteringDisabled());
    EXPECT_TRUE(checkInWith("<a><Dormant></Dormant></a>"));
    EXPECT_FALSE(FilterCheck::filteringDisabled());
    EXPECT_EQ(inFile("FilteringDisabled"), "false");
}

TEST_F(FilterCheckin, DormantOffTurnsFilteringOn) {
    Configuration::setFilteringDisabled(true);
    checkInWith("<a><Dormant>false</Dormant></a>");
    EXPECT_FALSE(FilterCheck::filteringDisabled());
}

TEST_F(FilterCheckin, ElementsAreFoundUnderAnyRootAndAtAnyDepth) {
    EXPECT_TRUE(
        checkInWith("<?xml version=\"1.0\"?>\n<reply><policy><mode><Dormant>1</Dormant></mode></policy>"
                    "<list><ServerName>x</ServerName></list></reply>"));
    EXPECT_TRUE(FilterCheck::filteringDisabled());
    EXPECT_EQ(listedServers(), std::vector<std::string>{"x"});
}

TEST_F(FilterCheckin, TwoServerNamesReplaceTheListAndTheFirstIsCurrent) {
    holdProbesBack();
    givenServers({"old.example", "y"});
    EXPECT_STREQ(Configuration::serverName(), "old.example");
    EXPECT_TRUE(checkInWith("<a><ServerName>x</ServerName><ServerName>y</ServerName></a>"));
    EXPECT_EQ(listedServers(), (std::vector<std::string>{"x", "y"}));
    EXPECT_STREQ(Configuration::serverName(), "x");
    EXPECT_EQ(inFile("ServerName"), "x");
    EXPECT_NE(file().find("<Servers>\n<ServerName ServerType=\"1\">x</ServerName>\n"
                          "<ServerName ServerType=\"1\">y</ServerName>\n</Servers>\n"),
              std::string::npos);
    EXPECT_TRUE(comesTrue(addressesAreBuilt));
    FilterQuery::lockServers(); // is free
    FilterQuery::unlockServers();
}

TEST_F(FilterCheckin, ACurrentServerThatTheReplyNamesAgainIsStoredBeforeTheFirstBecomesCurrent) {
    holdProbesBack();
    givenServers({"y"});
    EXPECT_STREQ(Configuration::serverName(), "y");
    checkInWith("<a><ServerName>x</ServerName><ServerName>y</ServerName></a>");
    EXPECT_EQ(inFile("ServerName"), "y");
    EXPECT_STREQ(Configuration::serverName(), "x");
}

TEST_F(FilterCheckin, TheListIsReplacedUnderTheServerLock) {
    givenServers({"old.example"});
    const auto reply = readCheckinReply("<a><Dormant>1</Dormant><ServerName>x</ServerName></a>");
    ASSERT_TRUE(reply);
    FilterQuery::lockServers();
    auto applied = std::async(std::launch::async, [&] { applyCheckinReply(*reply); });
    EXPECT_TRUE(comesTrue([&] { return inFile("FilteringDisabled") == "true"; }));
    EXPECT_EQ(applied.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    EXPECT_EQ(listedServers(), std::vector<std::string>{"old.example"});
    FilterQuery::unlockServers();
    applied.get();
    EXPECT_EQ(listedServers(), std::vector<std::string>{"x"});
}

TEST_F(FilterCheckin, ServerNamesThatAreAllEmptyKeepTheListAndStillHaveTheAddressesBuilt) {
    givenServers({"old.example"});
    service.reply("<a><ServerName></ServerName><ServerName></ServerName></a>");
    EXPECT_TRUE(checkInAndProbe());
    EXPECT_EQ(listedServers(), std::vector<std::string>{"old.example"});
    EXPECT_TRUE(log.holds("checkin setting 2 servers"));
    EXPECT_TRUE(log.holds("checkin added 0 servers"));
    EXPECT_TRUE(comesTrue(addressesAreBuilt));
}

TEST_F(FilterCheckin, EmptyAndRepeatedServerNamesAreLeftOut) {
    givenServers({"old.example"});
    service.reply("<a><ServerName></ServerName><ServerName>x</ServerName><ServerName>x</ServerName>"
                  "<ServerName></ServerName><ServerName>y</ServerName></a>");
    EXPECT_TRUE(checkInAndProbe());
    EXPECT_EQ(listedServers(), (std::vector<std::string>{"x", "y"}));
    EXPECT_TRUE(log.holds("checkin setting 5 servers"));
    EXPECT_TRUE(log.holds("Server x already present; not adding it."));
    EXPECT_TRUE(log.holds("checkin added 2 servers"));
}

TEST_F(FilterCheckin, AShortNumberThatIsAValidIndexCountsAsRepeated) {
    checkInWith("<a><ServerName>x</ServerName><ServerName>0</ServerName><ServerName>7</ServerName></a>");
    EXPECT_EQ(listedServers(), (std::vector<std::string>{"x", "7"}));
}

TEST_F(FilterCheckin, AReplyWithoutServerNamesLeavesListAndAddressesAlone) {
    givenServers({"old.example"});
    service.reply("<a><Dormant>false</Dormant></a>");
    EXPECT_TRUE(checkInAndProbe());
    EXPECT_EQ(listedServers(), std::vector<std::string>{"old.example"});
    EXPECT_EQ(log.countContaining("checkin setting"), 0);
    EXPECT_FALSE(addressesAreBuilt());
}

TEST_F(FilterCheckin, TheNextTimeIsStoredAndLogged) {
    checkInWith("<a><NextCheckIn>2026-11-15T08:00:00Z</NextCheckIn></a>");
    EXPECT_TRUE(log.holds("next checkin time is: 2026-11-15T08:00:00Z"));
    EXPECT_EQ(inFile("CheckInTimeStamp"), "2026-11-15T08:00:00Z");
    EXPECT_TRUE(Owned<GPDate>::adopt(Configuration::checkInTimeStamp()));
}

TEST_F(FilterCheckin, AnEmptyOrMissingNextTimeLeavesTheStoredOne) {
    checkInWith("<a><NextCheckIn>2026-11-15T08:00:00Z</NextCheckIn></a>");
    checkInWith("<a><NextCheckIn></NextCheckIn></a>");
    checkInWith("<a></a>");
    EXPECT_EQ(inFile("CheckInTimeStamp"), "2026-11-15T08:00:00Z");
    EXPECT_EQ(log.countContaining("next checkin time is"), 1);
}

TEST_F(FilterCheckin, OnlyTheFirstPackageCountsAndIsFetched) {
    std::filesystem::create_directories(root.path() + "/tmp");
    service.reply("<a><Zip>http://" + std::string(checkinHost()) + "/packages/tool</Zip><Zip>http://" +
                  checkinHost() + "/packages/other</Zip></a>");
    service.put("packages/tool", "the package");
    EXPECT_TRUE(FilterCheck::runCheckin());
    EXPECT_EQ(testsupport::readAll(std::string(platform::HostPaths::packageDirectory()) + "/tool"),
              "the package");
    EXPECT_EQ(service.requests("/packages/"), std::vector<std::string>{"GET /packages/tool"});
    EXPECT_EQ(log.countContaining("unable to complete the zip process"), 0);
}

TEST_F(FilterCheckin, APackageThatCannotBeFetchedIsLoggedAndTheCheckInStaysGood) {
    EXPECT_TRUE(checkInWith("<a><Zip>http://nobody.example/pkg.zip</Zip></a>"));
    EXPECT_TRUE(log.holds("unable to complete the zip process, will try again later"));
}

TEST_F(FilterCheckin, AnEmptyPackageOrAnEmptyFirstOneStartsNoUpdate) {
    EXPECT_TRUE(checkInWith("<a><Zip></Zip><Zip>http://nobody.example/pkg.zip</Zip></a>"));
    EXPECT_EQ(log.countContaining("downloading the file"), 0);
}

TEST_F(FilterCheckin, ABodyThatDoesNotParseChangesNothingAndCountsAsAnAnswer) {
    givenServers({"old.example"});
    Configuration::saveConfig(true);
    Configuration::machineGUID();
    const std::string before = file();
    for (const char* body : {"no document at all", "a > b", "<", "</a>", "<!-- <a></a>"})
        EXPECT_TRUE(checkInWith(body)) << body;
    EXPECT_EQ(file(), before);
}

TEST_F(FilterCheckin, AnErrorPageChangesNothingAndCountsAsAnAnswer) {
    Configuration::machineGUID();
    const std::string before = file();
    service.replyWithStatus(500, "<html><body><h1>500 Internal Server Error</h1></body></html>");
    EXPECT_TRUE(FilterCheck::runCheckin());
    EXPECT_EQ(file(), before);
}

TEST_F(FilterCheckin, TheStatusIsNotLookedAt) {
    service.replyWithStatus(503, "<a><Dormant>true</Dormant></a>");
    EXPECT_TRUE(FilterCheck::runCheckin());
    EXPECT_TRUE(FilterCheck::filteringDisabled());
}

TEST_F(FilterCheckin, AnAnswerWithAnEmptyBodyCountsAsAnAnswer) {
    EXPECT_TRUE(checkInWith(""));
    EXPECT_FALSE(FilterCheck::filteringDisabled());
}

TEST_F(FilterCheckin, AServiceThatCutsTheConnectionIsNoAnswerAndAProbeFollows) {
    service.start("location = /1/checkin { return 444; }");
    EXPECT_FALSE(checkInAndProbe());
    EXPECT_TRUE(log.holds("checkin response=(null)"));
}

TEST_F(FilterCheckin, OnlyACheckInWithoutAReplyIsNotLoggedAsComplete) {
    EXPECT_FALSE(checkInAndProbe());
    EXPECT_EQ(log.countContaining("checkin complete."), 0);
    service.reply("no document");
    EXPECT_TRUE(checkInAndProbe());
    EXPECT_EQ(log.countContaining("checkin complete."), 1);
}

TEST_F(FilterCheckin, AServiceThatNeverAnswersIsGivenUp) {
    service.takeAndNeverAnswer();
    testsupport::ManualClock::installed().setEventWait(200000, false);
    EXPECT_FALSE(checkInAndProbe());
    EXPECT_TRUE(comesTrue([&] { return service.requests().size() == 1; }));
}

TEST_F(FilterCheckin, AServiceThatIsNotThereIsNoAnswer) {
    EXPECT_FALSE(checkInAndProbe());
    EXPECT_TRUE(log.holds("checkin response=(null)"));
}

TEST_F(FilterCheckin, AServiceThatTheStoreDoesNotTrustIsNoAnswer) {
    service.reply("<a><Dormant>true</Dormant></a>");
    testsupport::trustNobody();
    EXPECT_FALSE(FilterCheck::runCheckin());
    EXPECT_FALSE(FilterCheck::filteringDisabled());
}

TEST_F(FilterCheckin, ACheckInLeavesNoObject) {
    holdProbesBack(); // they would have some of their own
    for (const char* reply :
         {"<a></a>", "<a><Dormant>0</Dormant><NextCheckIn>2027-01-02T03:04:05Z</NextCheckIn></a>",
          "no reply"})
        EXPECT_EQ(testsupport::objectsLeftBy([&] { EXPECT_TRUE(checkInWith(reply)); }), 0) << reply;
    loseInterfaces();
    EXPECT_EQ(testsupport::objectsLeftBy([] { EXPECT_FALSE(FilterCheck::runCheckin()); }), 0);
}

} // namespace
