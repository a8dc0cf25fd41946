#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "gp/GPString.h"
#include "support/CapturedLog.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

namespace {

bool isBypassed(const char* url) {
    GPString text(url);
    const bool bypassed = inBypassedHostNames(&text);
    EXPECT_STREQ(text.cstr(), url);
    return bypassed;
}

} // namespace

TEST(BypassedHostNames, TheTenProbeHostsAreBypassed) {
    EXPECT_TRUE(isBypassed("http://captive.apple.com/hotspot-detect.html"));
    EXPECT_TRUE(isBypassed("http://connectivitycheck.gstatic.com/generate_204"));
    EXPECT_TRUE(isBypassed("http://connectivitycheck.android.com/generate_204"));
    EXPECT_TRUE(isBypassed("http://clients3.google.com/generate_204"));
    EXPECT_TRUE(isBypassed("http://detectportal.firefox.com/success.txt"));
    EXPECT_TRUE(isBypassed("http://www.msftconnecttest.com/connecttest.txt"));
    EXPECT_TRUE(isBypassed("http://www.msftncsi.com/ncsi.txt"));
    EXPECT_TRUE(isBypassed("http://network-test.debian.org/nm"));
    EXPECT_TRUE(isBypassed("http://nmcheck.gnome.org/check_network_status.txt"));
    EXPECT_TRUE(isBypassed("http://connectivity-check.ubuntu.com/"));
}

TEST(BypassedHostNames, AUrlWithoutAPathIsRead) { EXPECT_TRUE(isBypassed("https://captive.apple.com")); }

TEST(BypassedHostNames, ASubDomainOfATableEntryIsBypassed) {
    EXPECT_TRUE(isBypassed("https://eu.captive.apple.com"));
    EXPECT_TRUE(isBypassed("http://a.b.detectportal.firefox.com/x"));
}

TEST(BypassedHostNames, OtherHostsAreNotBypassed) {
    EXPECT_FALSE(isBypassed("http://www.example.org/"));
    EXPECT_FALSE(isBypassed("http://apple.com/captive.apple.com"));
    EXPECT_FALSE(isBypassed("http://captive.apple.com.example.org/"));
}

TEST(BypassedHostNames, AHostThatMerelyEndsInTheLettersOfAnEntryIsNotBypassed) {
    EXPECT_FALSE(isBypassed("http://notcaptive.apple.com/"));
}

TEST(BypassedHostNames, AHostWithAPortIsNotBypassed) {
    EXPECT_FALSE(isBypassed("http://captive.apple.com:80/"));
    EXPECT_FALSE(isBypassed("http://eu.captive.apple.com:80/"));
}

TEST(BypassedHostNames, TheComparisonIsCaseSensitive) {
    EXPECT_FALSE(isBypassed("http://Captive.apple.com/"));
    EXPECT_FALSE(isBypassed("http://eu.captive.Apple.com/"));
}

TEST(BypassedHostNames, TheDottedTextCountsOnlyAtItsFirstOccurrence) {
    EXPECT_FALSE(isBypassed("http://a.captive.apple.com.captive.apple.com/"));
}

TEST(BypassedHostNames, AHostThatBeginsWithTheDotIsNotBypassed) {
    EXPECT_FALSE(isBypassed("http://.captive.apple.com/"));
}

TEST(BypassedHostNames, ASlashThatStandsFirstCutsNothing) {
    EXPECT_TRUE(isBypassed("http:///.captive.apple.com"));
    EXPECT_FALSE(isBypassed("http:///captive.apple.com"));
    EXPECT_FALSE(isBypassed("http:///.captive.apple.com/x"));
}

TEST(BypassedHostNames, ABareAddressIsNeverBypassed) {
    EXPECT_FALSE(isBypassed("10.0.0.1"));
    EXPECT_FALSE(isBypassed("captive.apple.com"));
    EXPECT_FALSE(isBypassed("//captive.apple.com/"));
    EXPECT_FALSE(isBypassed(""));
}

TEST(BypassedHostNames, WhenVerboseTheHostAndTheReasonAreLogged) {
    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
    isBypassed("http://captive.apple.com/quiet");
    EXPECT_TRUE(log.messages().empty());
    Configuration::setLogLevel(1);

    isBypassed("http://captive.apple.com/x");
    isBypassed("http://eu.captive.apple.com/x");
    isBypassed("http://www.example.org:81/x");
    isBypassed("http://x/y");

    EXPECT_TRUE(log.holds("inBypassedHostNames parsed host: captive.apple.com"));
    EXPECT_TRUE(log.holds("inBypassedHostNames bypassing host: captive.apple.com"));
    EXPECT_TRUE(log.holds("inBypassedHostNames bypassing host(end): eu.captive.apple.com"));
    EXPECT_TRUE(log.holds("inBypassedHostNames parsed host: www.example.org:81"));
    EXPECT_TRUE(log.holds("inBypassedHostNames parsed host: x"))
        << "a host of one letter ends at its path too";
    EXPECT_EQ(log.countContaining("bypassing"), 2);
}
