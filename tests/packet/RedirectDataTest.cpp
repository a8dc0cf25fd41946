#include "packet/PacketVerdicts.h"

#include "config/Configuration.h"
#include "packet/SysctlResult.h"
#include "support/CapturedLog.h"
#include "support/FixedNames.h"
#include "support/PlayedNames.h"
#include "support/ScratchRoot.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>

namespace {

class RedirectData : public testing::Test {
protected:
    RedirectData() { names.install(); }

    void fill(const std::string& url, bool ipv6 = false) { setRedirectData(&result, url.c_str(), ipv6); }

    std::string field() const {
        return std::string(result.redirectUrl, strnlen(result.redirectUrl, sizeof result.redirectUrl));
    }

    std::string address6() const {
        char text[INET6_ADDRSTRLEN];
        return inet_ntop(AF_INET6, &result.redirectAddressIpv6, text, sizeof text);
    }

    std::string lastAsked() const { return names.asked().empty() ? "" : names.asked().back(); }

    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
    testsupport::PlayedNames names;
    sysctl_result result{};
};

} // namespace

TEST_F(RedirectData, NothingHappensWithoutARecordOrAUrl) {
    setRedirectData(nullptr, "http://block.example/", false);
    setRedirectData(&result, nullptr, false);

    EXPECT_TRUE(names.asked().empty());
    EXPECT_EQ(field(), "");
}

TEST_F(RedirectData, TheUrlIsStoredZeroPadded) {
    std::memset(result.redirectUrl, 'x', sizeof result.redirectUrl);

    fill("http://block.example/page");

    EXPECT_EQ(std::string(result.redirectUrl, sizeof result.redirectUrl),
              "http://block.example/page" + std::string(1024 - 25, '\0'));
}

TEST_F(RedirectData, TheHostStandsBehindTheSchemeAndBeforeTheFirstSlash) {
    fill("https://secure.example/page/x");
    EXPECT_EQ(lastAsked(), "secure.example");
    fill("http://plain.example");
    EXPECT_EQ(lastAsked(), "plain.example");
    fill("bare.example/page");
    EXPECT_EQ(lastAsked(), "bare.example");
    EXPECT_EQ(field(), "bare.example/page");
}

TEST_F(RedirectData, AnHttpsSchemeAnywhereInTheFieldComesBeforeAnHttpOne) {
    fill("http://block.example/?u=https://www.example.org/x");

    EXPECT_EQ(lastAsked(), "www.example.org");
}

TEST_F(RedirectData, TheAddressIsStoredInNetworkOrderAndTheLastOneStays) {
    names.answer("block.example", AF_INET, {"198.51.100.7", "198.51.100.8"});

    fill("http://block.example/");

    EXPECT_EQ(result.redirectAddress, inet_addr("198.51.100.8"));
    EXPECT_EQ(address6(), "::");
}

TEST_F(RedirectData, TheIPv6AddressIsStoredAndTheLastOneStays) {
    names.answer("block.example", AF_INET6, {"2001:db8::1", "2001:db8::2"});

    fill("http://block.example/", true);

    EXPECT_EQ(address6(), "2001:db8::2");
    EXPECT_EQ(result.redirectAddress, 0u);
}

TEST_F(RedirectData, AddressesOfAnotherSizeArePassedOver) {
    const std::string ipv4 = "\xc6\x33\x64\x07", ipv6(16, '\x20');
    testsupport::FixedNames odd({ipv6, ipv4, ipv6, std::string(2, '\x30')});
    odd.install();

    fill("http://block.example/");
    EXPECT_EQ(result.redirectAddress, inet_addr("198.51.100.7"));
    EXPECT_EQ(address6(), "::");

    fill("http://block.example/", true);
    EXPECT_EQ(address6(), "2020:2020:2020:2020:2020:2020:2020:2020");
}

TEST_F(RedirectData, TheLocalBlockPageIsLookedUpWithItsPortAndGetsNoAddress) {
    names.answer("localhost", AF_INET, {"127.0.0.1"});

    fill("http://localhost:6543/block_screen.html/?id=error");

    EXPECT_EQ(lastAsked(), "localhost:6543");
    EXPECT_EQ(result.redirectAddress, 0u);
    EXPECT_EQ(field(), "http://localhost:6543/block_screen.html/?id=error");
}

TEST_F(RedirectData, AUrlOf1024BytesOrMoreFillsTheFieldWithoutAnEndingZeroAndItsHostIsStillFound) {
    names.answer("block.example", AF_INET, {"198.51.100.7"});
    for (std::size_t size : {std::size_t(1024), std::size_t(1025), std::size_t(5000)}) {
        result = {};
        std::string url = "http://block.example/";
        url.resize(size, 'p');

        fill(url);

        EXPECT_EQ(field(), url.substr(0, 1024));
        EXPECT_EQ(result.redirectAddress, inet_addr("198.51.100.7"));
        EXPECT_EQ(result.reserved[0], 0);
    }
}

TEST_F(RedirectData, AFullFieldWithoutASlashIsNotReadBeyondItsEnd) {
    std::memset(result.reserved, 'r', sizeof result.reserved);

    fill("http://" + std::string(2000, 'h'));

    EXPECT_EQ(lastAsked(), std::string(1024 - 7, 'h'));
}

TEST_F(RedirectData, ASchemeAtTheVeryEndOfAFullFieldLeavesAnEmptyHost) {
    fill(std::string(1024 - 7, 'x') + "http://more");

    EXPECT_EQ(lastAsked(), "");
}

TEST_F(RedirectData, AHostThatIsAnIPv6AddressIsStoredWhenItsLookUpFails) {
    fill("http://2001:db8::7/page", true);

    EXPECT_EQ(address6(), "2001:db8::7");
    EXPECT_EQ(field(), "http://2001:db8::7/page");
}

TEST_F(RedirectData, AHostThatIsAnIPv6AddressHasWhatItsLookUpGives) {
    names.answer("2001:db8::7", AF_INET6, {"2001:db8::9"});

    fill("http://2001:db8::7/page", true);

    EXPECT_EQ(address6(), "2001:db8::9");
}

TEST_F(RedirectData, APrintedAddressThatFitsIsWrittenBackOverTheHostInsideTheField) {
    Configuration::setLogLevel(64);
    result.packetId = 0xabc;

    fill("http://2001:0db8:0:0:0:0:0:7/page", true);

    EXPECT_EQ(address6(), "2001:db8::7");
    EXPECT_EQ(field(), "http://2001:db8::7");
    EXPECT_STREQ(result.redirectUrl + 19, "0:0:0:0:7/page");
    EXPECT_TRUE(log.holds("[0xabc] Ipv6 has address  2001:db8::7\n"));
}

TEST_F(RedirectData, AnAddressThatIsWrittenBackIsLoggedAtLevel64Alone) {
    fill("http://2001:0db8:0:0:0:0:0:7/page", true);

    EXPECT_EQ(address6(), "2001:db8::7");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(RedirectData, APrintedAddressAsLongAsTheHostHasNoRoomForItsZeroAndIsNotWritten) {
    Configuration::setLogLevel(64);

    fill("http://2001:db8::7/page", true);

    EXPECT_EQ(field(), "http://2001:db8::7/page");
    EXPECT_EQ(log.countContaining("Ipv6 has address"), 0);
}

TEST_F(RedirectData, AnIPv6AddressInTheHostIsNotTriedForAnIPv4Packet) {
    fill("http://2001:db8::7/page", false);

    EXPECT_EQ(address6(), "::");
}

TEST_F(RedirectData, TheLookUpIsLoggedAtLevel64) {
    names.answer("block.example", AF_INET, {"198.51.100.7"}, {"alias-a.example", "alias-b.example"});
    names.answer("block.example", AF_INET6, {"2001:db8::1"}, {"alias-c.example"});
    result.packetId = 0x7777000000000abc;
    fill("http://block.example/");
    EXPECT_TRUE(log.messages().empty());
    Configuration::setLogLevel(64);

    fill("http://block.example/");
    fill("http://block.example/", true);

    const std::vector<std::string> expected = {
        "[0xabc] host is block.example official name is official.block.example\n",
        "[0xabc] has alias  alias-a.example\n",
        "[0xabc] has alias  alias-b.example\n",
        "[0xabc] has address  198.51.100.7\n",
        "[0xabc] Ipv6 host is block.example official name is official.block.example\n",
        "[0xabc] Ipv6 has alias  alias-c.example\n",
        "[0xabc] Ipv6 has address  2001:db8::1\n",
    };
    EXPECT_EQ(log.messages(), expected);
}
