// The fetch of the tables from the filter server, and its rhythm.

#include "dns/DNSPacket.h"

#include "config/Configuration.h"
#include "config/FilterServer.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AnswerServer.h"
#include "support/DnsWorld.h"
#include "support/HeldLocks.h"
#include "support/LivingObjects.h"
#include "support/ManualClock.h"
#include "support/NetworkNamespace.h"
#include "support/Patience.h"
#include "support/TestChild.h"
#include "support/WebServer.h"

#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

using testsupport::AnswerServer;
using testsupport::ManualClock;
using testsupport::NamespaceResult;
using Rows = std::vector<std::string>;

namespace {

const std::string apiTarget = "/api/mobile/v1/dns_remaps?host_id=0123-4567";

class DnsCheckin : public testsupport::DnsWorld {
protected:
    DnsCheckin() {
        std::signal(SIGPIPE, SIG_IGN);
        ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
        givenFile("<Fernhill><MachineUUID>0123-4567</MachineUUID></Fernhill>");
        Configuration::loadConfig();
        for (const char* host : {"127.0.0.1", "server.test"})
            givenName(host, "127.0.0.1");
        givenName("safe.test", "192.0.2.1");
        givenTables();
    }

    static std::string documentOf(const Rows& rows) {
        return "<?xml version=\"1.0\"?>\n<dns_remaps>" + hostElements(rows) + "</dns_remaps>\n";
    }

    static std::string answerOf(const std::string& body, const std::string& status = "200 OK") {
        return "HTTP/1.1 " + status + "\r\nContent-Type: text/xml\r\n\r\n" + body;
    }

    // Runs one fetch from a server that answers with these bytes.
    bool fetch(const std::string& answer) {
        AnswerServer server({answer});
        Configuration::addServerName(("127.0.0.1:" + std::to_string(server.port())).c_str(), false, true);
        Configuration::resetCurrentServer();
        const bool worked = DNSPacket::runDnsApiCheckin();
        request_ = server.request();
        return worked;
    }

    const std::string& request() const { return request_; }

    // Everything that a fetch can change, as one text.
    std::string state() const {
        std::string all = hosts() + "|" + record() + "|";
        for (const std::string& row : remaps())
            all += row + ";";
        return all;
    }

private:
    std::string request_;
};

TEST_F(DnsCheckin, TheReplyReplacesTablesAndPins) {
    DNSPacket::checkHostsFile();
    EXPECT_TRUE(fetch(answerOf(documentOf({"one.test,safe.test", "two.test,safe.test"}))));
    EXPECT_EQ(redirectOf("one.test"), "safe.test 192.0.2.1");
    EXPECT_EQ(redirectOf("www.google.com"), "(none)");
    EXPECT_EQ(hosts(), "192.0.2.1 one.test\n192.0.2.1 two.test\n");
    EXPECT_EQ(record(), "one.test\ntwo.test\n");
}

TEST_F(DnsCheckin, TheRequestIsAGetOfTheApiWithTheMachinesIdentifier) {
    fetch(answerOf(documentOf({})));
    EXPECT_EQ(request().substr(0, request().find("\r\n")), "GET " + apiTarget + " HTTP/1.1");
}

TEST_F(DnsCheckin, HostElementsCountAtAnyDepth) {
    EXPECT_TRUE(
        fetch(answerOf("<a><b><host>one.test,safe.test</host></b><host>two.test,safe.test</host></a>")));
    EXPECT_EQ(remaps().size(), 2u);
}

TEST_F(DnsCheckin, AChunkedReplyIsPutTogether) {
    EXPECT_TRUE(fetch("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                      "16\r\n<a><host>one.test,safe\r\nf\r\n.test</host></a>\r\n0\r\n\r\n"));
    EXPECT_EQ(remaps(), Rows{"one.test,safe.test"});
}

TEST_F(DnsCheckin, AReplyWithNoHostElementAtAllEmptiesBothMapsAndRemovesAllPinsAndTheRecord) {
    givenHosts("127.0.0.1 localhost\n192.0.2.7 added.test\n");
    givenRecord("added.test\n");
    DNSPacket::checkHostsFile();
    EXPECT_TRUE(fetch(answerOf(documentOf({}))));
    EXPECT_EQ(hosts(), "127.0.0.1 localhost\n");
    EXPECT_EQ(record(), "");
    EXPECT_TRUE(remaps().empty());
    EXPECT_FALSE(DNSPacket::isSslIp(0xd8ef2678));
}

TEST_F(DnsCheckin, AReplyWithOneRowWhoseRedirectHostDoesNotResolveLeavesEverythingAsItWas) {
    DNSPacket::checkHostsFile();
    const std::string before = state();
    EXPECT_TRUE(fetch(answerOf(documentOf({"one.test,missing.test"}))));
    EXPECT_EQ(state(), before);
}

TEST_F(DnsCheckin, ABodyThatDoesNotParseChangesNothing) {
    DNSPacket::checkHostsFile();
    const std::string before = state();
    EXPECT_TRUE(fetch(answerOf("no document")));
    EXPECT_EQ(state(), before);
}

TEST_F(DnsCheckin, AnyOtherStatusChangesNothing) {
    DNSPacket::checkHostsFile();
    const std::string before = state();
    for (const char* status : {"404 Not Found", "500 Internal Server Error", "204 No Content", "201 Created"})
        EXPECT_FALSE(fetch(answerOf(documentOf({"one.test,safe.test"}), status))) << status;
    EXPECT_EQ(state(), before);
}

TEST_F(DnsCheckin, AnEmptyReplyChangesNothing) {
    DNSPacket::checkHostsFile();
    const std::string before = state();
    EXPECT_FALSE(fetch("")) << "no byte";
    EXPECT_FALSE(fetch(answerOf(""))) << "headers alone";
    EXPECT_FALSE(fetch("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"));
    EXPECT_EQ(state(), before);
}

TEST_F(DnsCheckin, AServerThatIsNotThereChangesNothing) {
    const std::string before = state();
    Configuration::addServerName(("127.0.0.1:" + std::to_string(testsupport::freePort())).c_str(), false);
    EXPECT_FALSE(DNSPacket::runDnsApiCheckin());
    EXPECT_EQ(state(), before);
}

TEST_F(DnsCheckin, NoCurrentServerIsLoggedAndGivesFalse) {
    Configuration::removeAllServers(false);
    Configuration::resetCurrentServer();
    EXPECT_FALSE(DNSPacket::runDnsApiCheckin());
    EXPECT_EQ(log.messages().back(), "dns checkin server for api isnt initialized");
}

TEST_F(DnsCheckin, AServerWithoutANameIsNoServer) {
    Configuration::addServerName("server.test", false, true);
    Configuration::resetCurrentServer();
    // A server does not give its replaced name back.
    const auto replaced = Owned<GPString>::adopt(Configuration::getCurrentServer()->getName());
    Configuration::getCurrentServer()->setName(nullptr);
    EXPECT_FALSE(DNSPacket::runDnsApiCheckin());
    EXPECT_EQ(log.messages().back(), "dns checkin server for api isnt initialized");
}

TEST_F(DnsCheckin, TheLockIsNotHeldAcrossTheFetch) {
    names.neverAnswer("server.test");
    Configuration::addServerName("server.test", false, true);
    Configuration::resetCurrentServer();
    EXPECT_TRUE(testsupport::passesInChild([&] {
        std::thread(DNSPacket::runDnsApiCheckin).detach();
        while (names.asked().back() != "server.test")
            std::this_thread::yield();
        EXPECT_EQ(redirectOf("www.bing.com"), "strict.bing.com 204.79.197.220");
        DNSPacket::checkHostsFile();
    }));
    EXPECT_NE(hosts(), "");
}

TEST_F(DnsCheckin, TheTablesAreNotPersisted) {
    EXPECT_TRUE(fetch(answerOf(documentOf({"one.test,safe.test"}))));
    ASSERT_NE(file(), "");
    EXPECT_EQ(file().find("DNSRemap"), std::string::npos);
    EXPECT_EQ(file().find("one.test"), std::string::npos);
}

TEST_F(DnsCheckin, TheSettingsAreSavedAfterAFetchThatWorkedThoughNothingOfThemHasChanged) {
    const auto saves = [this](const std::string& answer) {
        AnswerServer server({answer});
        Configuration::addServerName(("127.0.0.1:" + std::to_string(server.port())).c_str(), false, true);
        Configuration::resetCurrentServer();
        Configuration::saveConfig(true);
        const bool saved = writesFile([] { DNSPacket::runDnsApiCheckin(); });
        server.request();
        return saved;
    };
    EXPECT_TRUE(saves(answerOf(documentOf({"one.test,safe.test"}))));
    EXPECT_TRUE(saves(answerOf("no document")));
    EXPECT_FALSE(saves(answerOf("", "404 Not Found")));
}

TEST_F(DnsCheckin, TheSettingsAreSavedBehindTheReplacement) {
    const GPMutex* mutex = testsupport::firstLockOf([] { Configuration::saveConfig(true); });
    const testsupport::BeforeRelease saved(mutex, [] { EXPECT_EQ(remaps(), Rows{"one.test,safe.test"}); });
    EXPECT_TRUE(fetch(answerOf(documentOf({"one.test,safe.test"}))));
    EXPECT_EQ(saved.count(), 1);
}

TEST_F(DnsCheckin, AFetchLeavesNoObject) {
    for (const std::string& answer : {answerOf(documentOf({"one.test,safe.test"})), answerOf("no document"),
                                      answerOf("", "404 Not Found"), answerOf("")}) {
        // The list keeps every server that it ever held.
        const long added = testsupport::objectsLeftBy([] {
            Configuration::addServerName("127.0.0.1:1", false, true);
            Configuration::resetCurrentServer();
        });
        EXPECT_EQ(testsupport::objectsLeftBy([&] { fetch(answer); }), added) << answer;
    }
}

TEST_F(DnsCheckin, WhenVerboseTheFetchIsLogged) {
    beVerbose();
    const std::string body = documentOf({"one.test,safe.test"});
    EXPECT_TRUE(fetch(answerOf(body)));
    const Rows lines = logged();
    const std::string target = apiTarget;
    Rows own;
    for (const std::string& line : lines)
        if (line.find("dns") != std::string::npos || line.find("safe.test") != std::string::npos)
            own.push_back(line);
    ASSERT_EQ(own.size(), 7u);
    EXPECT_EQ(own[0], "Started dns checkin processing.");
    EXPECT_EQ(own[1].find("dns checkin using: http://127.0.0.1:"), 0u);
    EXPECT_EQ(own[1].substr(own[1].size() - target.size()), target);
    EXPECT_EQ(own[2], "dns checkin response=" + body);
    EXPECT_EQ(own[3], "dns checkin setting 1 hosts");
    EXPECT_EQ(own[4], "dns host domain: one.test redirect host domain: safe.test");
    EXPECT_EQ(own[5], "safe.test address: 192.0.2.1");
    EXPECT_EQ(own[6], "dns checkin complete.");
}

TEST_F(DnsCheckin, WhenVerboseAFailedFetchIsLoggedToItsEnd) {
    beVerbose();
    EXPECT_FALSE(fetch(""));
    const Rows lines = logged();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "dns checkin response=(null)");
    EXPECT_EQ(lines.back(), "dns checkin complete.");
}

TEST_F(DnsCheckin, ARealWebServerIsAskedOverHttp) {
    const auto result = testsupport::runInNetworkNamespace([&] {
        const testsupport::Certificate certificate("server.test");
        testsupport::WebServer server(80, 0, certificate);
        server.put("api/mobile/v1/dns_remaps", documentOf({"one.test,safe.test"}));
        Configuration::addServerName("server.test", false);
        EXPECT_TRUE(DNSPacket::runDnsApiCheckin());
        EXPECT_EQ(remaps(), Rows{"one.test,safe.test"});
        EXPECT_EQ(server.accessLog().find("GET " + apiTarget + " 200 "), 0u);
    });
    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no network namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

TEST_F(DnsCheckin, ARealWebServerWithoutTheApiGivesFalse) {
    const auto result = testsupport::runInNetworkNamespace([&] {
        const testsupport::Certificate certificate("server.test");
        testsupport::WebServer server(80, 0, certificate);
        Configuration::addServerName("server.test", false);
        const std::string before = state();
        EXPECT_FALSE(DNSPacket::runDnsApiCheckin());
        EXPECT_EQ(state(), before);
        EXPECT_EQ(server.accessLog().find("GET " + apiTarget + " 404 "), 0u);
    });
    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no network namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

TEST_F(DnsCheckin, AServerThatAnsweredTheHttpsProbeIsAskedOverHttps) {
    const auto result = testsupport::runInNetworkNamespace([&] {
        const testsupport::Certificate certificate("server.test");
        certificate.trust();
        testsupport::WebServer server(80, 443, certificate);
        server.put("api/mobile/v1/dns_remaps", documentOf({"one.test,safe.test"}));
        Configuration::addServerName("server.test", false);
        Configuration::getCurrentServer()->setUseHttps(true);
        beVerbose();
        EXPECT_TRUE(DNSPacket::runDnsApiCheckin());
        EXPECT_EQ(remaps(), Rows{"one.test,safe.test"});
        const std::string line = server.accessLog();
        EXPECT_EQ(line.find("GET " + apiTarget + " 200 "), 0u);
        EXPECT_NE(line.find(" https\n"), std::string::npos);
        EXPECT_TRUE(log.holds("dns checkin using: https://server.test" + apiTarget));
    });
    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no network namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

TEST_F(DnsCheckin, AnUntrustedHttpsServerChangesNothing) {
    const auto result = testsupport::runInNetworkNamespace([&] {
        const testsupport::Certificate certificate("server.test");
        testsupport::trustNobody();
        testsupport::WebServer server(80, 443, certificate);
        server.put("api/mobile/v1/dns_remaps", documentOf({"one.test,safe.test"}));
        Configuration::addServerName("server.test", false);
        Configuration::getCurrentServer()->setUseHttps(true);
        const std::string before = state();
        EXPECT_FALSE(DNSPacket::runDnsApiCheckin());
        EXPECT_EQ(state(), before);
    });
    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no network namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

// A process that never made the table of addresses.
class DnsCheckinAlone : public testsupport::DnsWorld {};

TEST_F(DnsCheckinAlone, WithoutTheTableOfAddressesAFetchTakesNoRowAndLeavesTheHostsFile) {
    std::signal(SIGPIPE, SIG_IGN);
    ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    givenFile("<Fernhill><MachineUUID>0123-4567</MachineUUID></Fernhill>");
    Configuration::loadConfig();
    givenName("127.0.0.1", "127.0.0.1");
    givenName("safe.test", "192.0.2.1");
    givenHosts("192.0.2.9 www.google.com\n");
    const std::string headers = "HTTP/1.1 200 OK\r\n\r\n";
    AnswerServer server({headers + "<a><host>one.test,safe.test</host></a>", headers + "<a>nothing</a>"});
    Configuration::addServerName(("127.0.0.1:" + std::to_string(server.port())).c_str(), false);

    EXPECT_TRUE(DNSPacket::runDnsApiCheckin());
    EXPECT_TRUE(DNSPacket::runDnsApiCheckin());
    EXPECT_EQ(remaps().size(), 10u) << "the built-in table, made by the fetch";
    EXPECT_EQ(hosts(), "192.0.2.9 www.google.com\n");
}

// Follows the check-in thread through its sleeps. Fetches are counted by what they log, and each answer is
// decided by whether there is a server at that time.
class DnsCheckinRhythm : public DnsCheckin {
protected:
    DnsCheckinRhythm() {
        givenFetchesFail();
        beVerbose();
        DNSPacket::startDnsApiCheckin();
        slept_ = 60;
        awaitSleep();
    }

    void givenFetchesFail() {
        Configuration::removeAllServers(false);
        Configuration::resetCurrentServer();
    }

    // The next so many fetches find a server that answers them.
    void givenFetchesWork(int count) {
        server_ = std::make_unique<AnswerServer>(
            Rows(static_cast<std::size_t>(count), answerOf(documentOf({"one.test,safe.test"}))));
        Configuration::addServerName(("127.0.0.1:" + std::to_string(server_->port())).c_str(), false, true);
        Configuration::resetCurrentServer();
    }

    // Plays the sleep that the thread is in and waits for its next one, of 15 minutes.
    void passSleep(int seconds) {
        slept_ += 900;
        ManualClock::installed().advanceSeconds(seconds);
        awaitSleep();
    }

    void passQuarters(int count) {
        for (int i = 0; i < count; ++i)
            passSleep(900);
    }

    int fetches() const { return log.countContaining("Started dns checkin processing."); }

private:
    // Blocks until the thread has gone to sleep as often as it should have.
    void awaitSleep() {
        const auto limit = std::chrono::steady_clock::now() + testsupport::patience;
        while (ManualClock::installed().sleptMicroseconds() != slept_ * 1000000) {
            ASSERT_LT(std::chrono::steady_clock::now(), limit) << "the thread sleeps otherwise";
            std::this_thread::yield();
        }
    }

    std::unique_ptr<AnswerServer> server_;
    std::int64_t slept_ = 0;
};

TEST_F(DnsCheckinRhythm, TheFirstFetchComesAfter60Seconds) {
    EXPECT_EQ(fetches(), 0);
    passSleep(60);
    EXPECT_EQ(fetches(), 1);
    EXPECT_TRUE(log.holds("starting dns checkin thread"));
}

TEST_F(DnsCheckinRhythm, TheThreadTellsOfItsStartBehindTheFirstFetchAndOfEachRoundBeforeItsSleep) {
    givenFetchesWork(1);
    passSleep(60);
    Rows own;
    for (const std::string& line : logged())
        if (line.find("checkin thread") != std::string::npos ||
            line.find("checkin loop") != std::string::npos || line.find("Started dns") != std::string::npos ||
            line.find("checkin complete") != std::string::npos)
            own.push_back(line);
    EXPECT_EQ(own, (Rows{"Started dns checkin processing.", "dns checkin complete.",
                         "starting dns checkin thread", "dns checkin loop"}));
}

TEST_F(DnsCheckinRhythm, AFailureIsRepeatedEvery15Minutes) {
    passSleep(60);
    for (int i = 2; i <= 6; ++i) {
        passQuarters(1);
        EXPECT_EQ(fetches(), i);
    }
    EXPECT_FALSE(log.holds("dns checkin loop"));
}

TEST_F(DnsCheckinRhythm, ASuccessIsRepeatedOnceADay) {
    givenFetchesWork(3);
    passSleep(60);
    EXPECT_EQ(remaps(), Rows{"one.test,safe.test"});
    passQuarters(96);
    EXPECT_EQ(fetches(), 1) << "due, but not past due";
    passQuarters(1);
    EXPECT_EQ(fetches(), 2);
    passQuarters(95);
    EXPECT_EQ(fetches(), 2);
    passQuarters(1);
    EXPECT_EQ(fetches(), 3) << "a day behind the first due time, not behind the second fetch";
    EXPECT_EQ(log.countContaining("dns checkin loop"), 97 + 96 + 1);
}

TEST_F(DnsCheckinRhythm, AFailureLeavesTheDueTimeAlone) {
    passSleep(60);
    passQuarters(1);
    givenFetchesWork(2);
    passQuarters(1);
    EXPECT_EQ(fetches(), 3);
    passQuarters(94);
    EXPECT_EQ(fetches(), 3);
    passQuarters(1);
    EXPECT_EQ(fetches(), 4) << "a day after the first fetch";
}

TEST_F(DnsCheckinRhythm, AfterASuccessAFailureIsRepeatedEvery15MinutesAgain) {
    givenFetchesWork(1);
    passSleep(60);
    passQuarters(96);
    givenFetchesFail();
    passQuarters(3);
    EXPECT_EQ(fetches(), 4);
}

} // namespace
