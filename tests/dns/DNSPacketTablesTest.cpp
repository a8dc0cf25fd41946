#include "dns/DNSPacket.h"

#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"
#include "support/Await.h"
#include "support/DnsWorld.h"
#include "support/FixedNames.h"
#include "support/TestChild.h"

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

using Rows = std::vector<std::string>;

namespace {

Rows sorted(Rows rows) {
    std::sort(rows.begin(), rows.end());
    return rows;
}

const Rows builtInRows = {
    "encrypted.google.com,forcesafesearch.google.com",
    "google.com,forcesafesearch.google.com",
    "images.google.co.uk,forcesafesearch.google.com",
    "images.google.com,forcesafesearch.google.com",
    "www.bing.com,strict.bing.com",
    "www.google.co.uk,forcesafesearch.google.com",
    "www.google.co.zw,forcesafesearch.google.com",
    "www.google.com,forcesafesearch.google.com",
    "www.google.com.au,forcesafesearch.google.com",
    "www.youtube.com,restrict.youtube.com",
};

bool isSslIp(const char* dotted) { return DNSPacket::isSslIp(ntohl(inet_addr(dotted))); }

class DnsTables : public testsupport::DnsWorld {};

TEST_F(DnsTables, TheBuiltInTableHasItsTenHosts) {
    initMap();
    EXPECT_EQ(sorted(remaps()), builtInRows);
}

TEST_F(DnsTables, TheBuiltInRedirectHostsHaveTheirAddresses) {
    givenTables();
    EXPECT_EQ(redirectOf("google.com"), "forcesafesearch.google.com 216.239.38.120");
    EXPECT_EQ(redirectOf("www.youtube.com"), "restrict.youtube.com 216.239.38.120");
    EXPECT_EQ(redirectOf("www.bing.com"), "strict.bing.com 204.79.197.220");
}

TEST_F(DnsTables, TheFirstRemapMakesTheTableOfHostsAlone) {
    EXPECT_EQ(redirectOf("www.bing.com"), "strict.bing.com 0.0.0.0");
    EXPECT_FALSE(isSslIp("204.79.197.220"));
    EXPECT_EQ(DNSPacket::getNoSslIp(), 0u);
    EXPECT_TRUE(names.asked().empty());
}

TEST_F(DnsTables, ResolveRedirectIPLooksUpTheForcedSafeSearchHostForNoSslIpAlone) {
    givenTables();
    EXPECT_EQ(DNSPacket::getNoSslIp(), inet_addr("216.239.38.99"));
    EXPECT_FALSE(isSslIp("216.239.38.99")) << "the row stays the literal address";
    EXPECT_EQ(names.asked(), Rows{"forcesafesearch.google.com"});
}

TEST_F(DnsTables, ResolveRedirectIPRunsOnce) {
    givenTables();
    names.answer("forcesafesearch.google.com", AF_INET, {"192.0.2.1"});
    DNSPacket::resolveRedirectIP();
    EXPECT_EQ(DNSPacket::getNoSslIp(), inet_addr("216.239.38.99"));
    EXPECT_EQ(names.asked().size(), 1u);
}

TEST_F(DnsTables, ResolveRedirectIPAsksTooWhileTheAnswerToAnotherIsStillOut) {
    names.neverAnswer("forcesafesearch.google.com");
    std::thread first(DNSPacket::resolveRedirectIP);
    std::thread second(DNSPacket::resolveRedirectIP);
    EXPECT_TRUE(testsupport::comesTrue([this] { return names.asked().size() == 2; }));
    names.answerAgain("forcesafesearch.google.com");
    first.join();
    second.join();
}

TEST_F(DnsTables, AForcedSafeSearchHostThatDoesNotResolveGivesNoAddressAndIsNotAskedAgain) {
    DNSPacket::resolveRedirectIP();
    DNSPacket::resolveRedirectIP();
    EXPECT_EQ(DNSPacket::getNoSslIp(), 0u);
    EXPECT_EQ(names.asked().size(), 1u);
    EXPECT_TRUE(isSslIp("216.239.38.120"));
}

TEST_F(DnsTables, ResolveRedirectIPKeepsATableThatIsThere) {
    redirectOf("www.bing.com");
    givenTables();
    EXPECT_EQ(sorted(remaps()), builtInRows);
    EXPECT_EQ(redirectOf("www.bing.com"), "strict.bing.com 204.79.197.220");
}

TEST_F(DnsTables, IsSslIpKnowsTheAddressesOfAllRedirectHostsInHostOrder) {
    EXPECT_FALSE(isSslIp("216.239.38.120")) << "no table";
    givenTables();
    EXPECT_TRUE(isSslIp("216.239.38.120"));
    EXPECT_TRUE(isSslIp("204.79.197.220"));
    EXPECT_TRUE(DNSPacket::isSslIp(0xd8ef2678));
    EXPECT_FALSE(DNSPacket::isSslIp(0x7826efd8)) << "network order";
    EXPECT_FALSE(isSslIp("216.239.38.121"));
    EXPECT_FALSE(DNSPacket::isSslIp(0));
}

TEST_F(DnsTables, ARedirectHostWithAnAddressOfAnotherSizeCountsAsOneWithoutAny) {
    givenTables();
    testsupport::FixedNames odd({std::string(16, '\x01')});
    odd.install();
    setRemaps({"www.alder.test,safe.alder.test"});
    EXPECT_EQ(redirectOf("www.alder.test"), "(none)");
    EXPECT_EQ(sorted(remaps()), builtInRows);
    names.install();
}

TEST_F(DnsTables, IsSslIpBesideReplacementsOfTheTables) {
    givenTables();
    givenName("safe.alder.test", "192.0.2.1");
    std::atomic<bool> stop{false};
    std::thread asker([&] {
        while (!stop)
            isSslIp("198.51.100.1");
    });
    for (int i = 0; i < 20; ++i)
        setRemaps({"www.alder.test,safe.alder.test"});
    stop = true;
    asker.join();
    EXPECT_TRUE(isSslIp("192.0.2.1"));
}

TEST_F(DnsTables, RemapBesideReplacementsOfTheTables) {
    givenTables();
    givenName("safe.alder.test", "192.0.2.1");
    std::atomic<bool> stop{false};
    std::thread asker([&] {
        while (!stop) {
            const std::string answer = redirectOf("www.alder.test");
            EXPECT_TRUE(answer == "(none)" || answer.find("safe.alder.test ") == 0) << answer;
        }
    });
    for (int i = 0; i < 20; ++i)
        setRemaps({"www.alder.test,safe.alder.test"});
    stop = true;
    asker.join();
    EXPECT_EQ(redirectOf("www.alder.test"), "safe.alder.test 192.0.2.1");
}

TEST_F(DnsTables, TheLockIsNotHeldAcrossALookUp) {
    givenTables();
    names.neverAnswer("slow.test");
    EXPECT_TRUE(testsupport::passesInChild([&] {
        std::thread([] { setRemaps({"one.test,slow.test"}); }).detach();
        while (names.asked().back() != "slow.test")
            std::this_thread::yield();
        EXPECT_EQ(redirectOf("www.bing.com"), "strict.bing.com 204.79.197.220");
        EXPECT_EQ(sorted(remaps()), builtInRows);
        DNSPacket::checkHostsFile();
    }));
    EXPECT_NE(hosts(), "");
}

TEST_F(DnsTables, ClearMapsEmptiesBothTables) {
    givenTables();
    clearMaps();
    EXPECT_TRUE(remaps().empty());
    EXPECT_EQ(redirectOf("www.bing.com"), "(none)");
    EXPECT_FALSE(isSslIp("204.79.197.220"));
}

TEST_F(DnsTables, ClearMapsWithoutOneOfTheTablesChangesNothing) {
    clearMaps();
    initMap();
    clearMaps();
    EXPECT_EQ(sorted(remaps()), builtInRows);
}

TEST_F(DnsTables, ARemapElementReplacesTablesAndPins) {
    givenTables();
    DNSPacket::checkHostsFile();
    givenName("safe.alder.test", "192.0.2.1");
    givenName("safe.birch.test", "192.0.2.2");
    setRemaps({"www.alder.test,safe.alder.test", "www.birch.test,safe.birch.test"});
    EXPECT_EQ(sorted(remaps()), (Rows{"www.alder.test,safe.alder.test", "www.birch.test,safe.birch.test"}));
    EXPECT_EQ(redirectOf("www.birch.test"), "safe.birch.test 192.0.2.2");
    EXPECT_EQ(redirectOf("www.google.com"), "(none)");
    EXPECT_FALSE(isSslIp("204.79.197.220"));
    EXPECT_TRUE(isSslIp("192.0.2.1"));
    EXPECT_EQ(hosts(), "192.0.2.1 www.alder.test\n192.0.2.2 www.birch.test\n");
    EXPECT_EQ(record(), "www.alder.test\nwww.birch.test\n");
}

TEST_F(DnsTables, ALaterReplacementUndoesAnEarlierOne) {
    givenTables();
    givenHosts("127.0.0.1 localhost\n");
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test,safe.test", "two.test,safe.test"});
    setRemaps({"two.test,safe.test", "three.test,safe.test"});
    EXPECT_EQ(hosts(), "127.0.0.1 localhost\n192.0.2.1 two.test\n192.0.2.1 three.test\n");
    EXPECT_EQ(record(), "two.test\nthree.test\n");
    EXPECT_EQ(sorted(remaps()), (Rows{"three.test,safe.test", "two.test,safe.test"}));
}

TEST_F(DnsTables, TheFirstOfSeveralAddressesCounts) {
    givenTables();
    names.answer("safe.test", AF_INET, {"192.0.2.9", "192.0.2.1"});
    setRemaps({"one.test,safe.test"});
    EXPECT_EQ(redirectOf("one.test"), "safe.test 192.0.2.9");
}

TEST_F(DnsTables, AnAddressOfTheOtherFamilyIsNone) {
    givenTables();
    names.answer("safe.test", AF_INET6, {"2001:db8::1"});
    setRemaps({"one.test,safe.test"});
    EXPECT_EQ(sorted(remaps()), builtInRows);
}

TEST_F(DnsTables, APairIsSplitAtItsFirstComma) {
    givenTables();
    givenName("safe.test,more", "192.0.2.1");
    setRemaps({"one.test,safe.test,more"});
    EXPECT_EQ(remaps(), Rows{"one.test,safe.test,more"});
    EXPECT_EQ(redirectOf("one.test"), "safe.test,more 192.0.2.1");
}

TEST_F(DnsTables, ARedirectHostWithoutTextIsNoHit) {
    givenTables();
    givenName("", "192.0.2.1");
    setRemaps({"one.test,"});
    EXPECT_EQ(remaps(), Rows{"one.test,"});
    EXPECT_EQ(redirectOf("one.test"), "(none)");
}

TEST_F(DnsTables, AHostTextWithoutACommaIsSkipped) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test", "", "two.test,safe.test"});
    EXPECT_EQ(remaps(), Rows{"two.test,safe.test"});
    EXPECT_EQ(names.asked(), (Rows{"forcesafesearch.google.com", "safe.test"}));
}

TEST_F(DnsTables, NothingButRowsWithoutACommaLeaveEverythingAsItWas) {
    givenTables();
    givenHosts("192.0.2.1 www.google.com\n");
    setRemaps({"one.test", "two.test"});
    EXPECT_EQ(sorted(remaps()), builtInRows);
    EXPECT_EQ(hosts(), "192.0.2.1 www.google.com\n");
}

TEST_F(DnsTables, AHostElementWithChildrenHasNoTextAndIsSkipped) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    setRemaps({"<name>one.test,safe.test</name>", "two.test,safe.test"});
    EXPECT_EQ(remaps(), Rows{"two.test,safe.test"});
    const auto asked = names.asked();
    EXPECT_EQ(std::count(asked.begin(), asked.end(), ""), 0) << "it names no host to look up";
}

TEST_F(DnsTables, ARowWhoseRedirectHostDoesNotResolveIsSkippedSilently) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test,missing.test", "two.test,safe.test"});
    EXPECT_EQ(remaps(), Rows{"two.test,safe.test"});
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DnsTables, IfNothingResolvesTheOldTablesAndPinsStay) {
    givenTables();
    DNSPacket::checkHostsFile();
    const std::string before = hosts();
    setRemaps({"one.test,missing.test", "two.test,missing.test"});
    EXPECT_EQ(sorted(remaps()), builtInRows);
    EXPECT_EQ(hosts(), before);
}

TEST_F(DnsTables, AnEmptyRemapElementTurnsRemappingOffAltogether) {
    givenTables();
    DNSPacket::checkHostsFile();
    setRemaps({});
    EXPECT_TRUE(remaps().empty());
    EXPECT_EQ(redirectOf("www.google.com"), "(none)");
    EXPECT_EQ(hosts(), "");
    EXPECT_EQ(record(), "");
}

TEST_F(DnsTables, WithoutARemapElementNothingChanges) {
    const auto dom = Owned<GPDOMElement>::adopt(
        GPDOMElement::parse("<Configuration><host>one.test,safe.test</host></Configuration>"));
    DNSPacket::setDnsRemapFromDom(dom.get());
    EXPECT_TRUE(names.asked().empty());
    EXPECT_TRUE(remaps().empty()) << "no table was made";
}

TEST_F(DnsTables, ARemapElementMakesTheTablesIfThereAreNone) {
    givenName("forcesafesearch.google.com", "216.239.38.99");
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test,safe.test"});
    EXPECT_EQ(remaps(), Rows{"one.test,safe.test"});
    EXPECT_EQ(DNSPacket::getNoSslIp(), inet_addr("216.239.38.99"));
}

TEST_F(DnsTables, OnlyTheHostsBelowTheRemapElementCountAtAnyDepth) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    const auto dom = Owned<GPDOMElement>::adopt(
        GPDOMElement::parse("<Configuration><host>zero.test,safe.test</host><DNSRemap><group>"
                            "<host>one.test,safe.test</host></group></DNSRemap></Configuration>"));
    DNSPacket::setDnsRemapFromDom(dom.get());
    EXPECT_EQ(remaps(), Rows{"one.test,safe.test"});
}

TEST_F(DnsTables, WithoutTheTableOfAddressesEveryRowIsSkippedAndTheHostsFileStays) {
    // Only the table of hosts is there, as the first remap leaves it.
    redirectOf("www.bing.com");
    givenHosts("192.0.2.1 www.google.com\n");
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test,safe.test"});
    setRemaps({});
    EXPECT_EQ(sorted(remaps()), builtInRows);
    EXPECT_EQ(hosts(), "192.0.2.1 www.google.com\n");
}

TEST_F(DnsTables, WithoutAHostsFileTheTablesAreReplacedAllTheSame) {
    givenTables();
    std::filesystem::remove(platform::HostPaths::hostsFile());
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test,safe.test"});
    EXPECT_EQ(redirectOf("one.test"), "safe.test 192.0.2.1");
    EXPECT_EQ(hosts(), "");
}

TEST_F(DnsTables, WhenVerboseTheReplacementIsLogged) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    beVerbose();
    setRemaps({"one.test,safe.test", "two.test,safe.test"});
    EXPECT_EQ(logged(), (Rows{"setDnsRemapFromDom setting 2 hosts", "setDnsRemapFromDom map->count() = 2"}));
}

TEST_F(DnsTables, WhenVerboseAnEmptyElementLogsTheCountAlone) {
    givenTables();
    beVerbose();
    setRemaps({});
    EXPECT_EQ(logged(), Rows{"setDnsRemapFromDom map->count() = 0"});
}

class AddDomDnsRemap : public DnsTables {
protected:
    AddDomDnsRemap() : parent(Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Configuration"))) {}

    std::string added() {
        DNSPacket::addDomDnsRemap(parent.get());
        const auto text = Owned<GPString>::adopt(parent->convertToString(false, nullptr, false));
        return text->cstr();
    }

    Owned<GPDOMElement> parent;
};

TEST_F(AddDomDnsRemap, OnTheBuiltInTableItWrites10HostChildren) {
    initMap();
    beVerbose();
    added();
    GPDOMElement* remap = parent->findElement("DNSRemap");
    ASSERT_NE(remap, nullptr);
    EXPECT_EQ(sorted(remaps()), builtInRows);
    const auto hostChildren = Owned<GPArray>::adopt(remap->findElements("host"));
    EXPECT_EQ(hostChildren->count(), 10);
    EXPECT_EQ(remap->children->count(), 10);
    EXPECT_EQ(logged()[0], "addDomDnsRemap map->count() = 10");
    EXPECT_EQ(logged()[1], "addDomDnsRemap counts = 10");
}

TEST_F(AddDomDnsRemap, ARowIsHostAndRedirectHostWithAComma) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test,safe.test"});
    EXPECT_EQ(added(), "<Configuration>\n<DNSRemap>\n<host>one.test,safe.test</host>\n</DNSRemap>\n"
                       "</Configuration>\n");
}

TEST_F(AddDomDnsRemap, TheRowsComeInTheKeyOrderOfAMapOfTenBuckets) {
    initMap();
    Rows written;
    const auto table = Owned<GPMap>::adopt(new GPMap(10));
    for (const std::string& row : remaps()) {
        written.push_back(row.substr(0, row.find(',')));
        table->setObject(GPString::staticstring(""), written.back().c_str());
    }
    Rows walked;
    for (const char* host = table->firstKey(); host; host = table->nextKey())
        walked.emplace_back(host);
    EXPECT_EQ(written, walked);
}

TEST_F(AddDomDnsRemap, WithoutATableItAddsNothing) {
    beVerbose();
    EXPECT_EQ(added(), "<Configuration>\n</Configuration>\n");
    EXPECT_EQ(logged(), Rows{"addDomDnsRemap map is null"});
}

TEST_F(AddDomDnsRemap, OfAnEmptyTableItAddsNothing) {
    givenTables();
    clearMaps();
    beVerbose();
    EXPECT_EQ(added(), "<Configuration>\n</Configuration>\n");
    EXPECT_EQ(logged(), (Rows{"addDomDnsRemap map->count() = 0", "addDomDnsRemap counts = 0"}));
}

TEST_F(AddDomDnsRemap, WhatItWritesCanBeSetAgain) {
    givenTables();
    for (const char* redirect : {"forcesafesearch.google.com", "restrict.youtube.com", "strict.bing.com"})
        givenName(redirect, "192.0.2.1");
    added();
    clearMaps();
    DNSPacket::setDnsRemapFromDom(parent.get());
    EXPECT_EQ(sorted(remaps()), builtInRows);
}

} // namespace
