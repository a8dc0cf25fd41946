#include "agent/OstComm.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AgentLinkWorld.h"
#include "support/PlayedInterfaces.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class IpAddressesTest : public testing::Test {
protected:
    IpAddressesTest() {
        interfaces.install();
        interfaces.show(testsupport::EntryBuilder());
    }

    std::string text() { return Owned<GPString>::adopt(getIpAddresses())->cstr(); }

    testsupport::PlayedInterfaces interfaces;
};

// Sends the addresses over a link of its own and answers the frame's bytes.
class AddressFrameTest : public IpAddressesTest {
protected:
    std::string sent() {
        auto& agent = world.startAgent();
        OstComm* link = OstComm::Instance();
        agent.awaitFrame();
        EXPECT_TRUE(link->sendIpAddressesCommand());
        return agent.awaitFrame().bytes;
    }

    testsupport::AgentLinkWorld world;
};

} // namespace

TEST_F(IpAddressesTest, BothFamiliesAreListedInTheirOrder) {
    interfaces.show(testsupport::EntryBuilder()
                        .ipv4("en0", "192.168.1.20")
                        .ipv6("en0", "fe80::1")
                        .ipv4("en1", "10.0.0.9")
                        .ipv6("en1", "fe80::2"));
    EXPECT_EQ(text(), R"("IPv4":["192.168.1.20","10.0.0.9"],"IPv6":["fe80::1","fe80::2"])");
}

TEST_F(IpAddressesTest, WithIpv4OnlyTheTextEndsInAComma) {
    interfaces.show(testsupport::EntryBuilder().ipv4("en0", "192.168.1.20"));
    EXPECT_EQ(text(), R"("IPv4":["192.168.1.20"],)");
}

TEST_F(IpAddressesTest, WithIpv6OnlyThereIsNoCommaInFront) {
    interfaces.show(testsupport::EntryBuilder().ipv6("en0", "fe80::1"));
    EXPECT_EQ(text(), R"("IPv6":["fe80::1"])");
}

TEST_F(IpAddressesTest, AnAddressThatBeginsWithItsColonsIsIPv6) {
    interfaces.show(testsupport::EntryBuilder().ipv6("en0", "::5"));
    EXPECT_EQ(text(), R"("IPv6":["::5"])");
}

TEST_F(IpAddressesTest, WithNoAddressesTheTextIsEmpty) { EXPECT_EQ(text(), ""); }

TEST_F(AddressFrameTest, TheAddressesGoOutInBraces) {
    interfaces.show(testsupport::EntryBuilder().ipv4("en0", "192.168.1.20").ipv6("en0", "fe80::1"));
    const std::string body = R"({"IPv4":["192.168.1.20"],"IPv6":["fe80::1"]})";
    EXPECT_EQ(body.size(), 44u);
    EXPECT_EQ(sent(), std::string("\0\0\0\x38\0\0\0\x06\0\0\0\x02", 12) + body);
    EXPECT_TRUE(world.log.holds("OstComm sendIpAddressesCommand sending " + body));
    EXPECT_TRUE(world.log.holds("OstComm sendIpAddressesCommand send success"));
}

TEST_F(AddressFrameTest, WithNoNetworkAddressesAtAllTheBodyIsEmptyBraces) {
    EXPECT_EQ(sent().substr(12), "{}");
}

TEST_F(AddressFrameTest, WithIpv4OnlyTheBodyEndsInACommaAndAClosingBrace) {
    interfaces.show(testsupport::EntryBuilder().ipv4("en0", "192.168.1.20"));
    EXPECT_EQ(sent().substr(12), R"({"IPv4":["192.168.1.20"],})");
}

TEST_F(AddressFrameTest, MoreAddressesThanAFrameHoldsAreAFailedSend) {
    auto& agent = world.startAgent();
    OstComm* link = OstComm::Instance();
    testsupport::EntryBuilder many;
    for (int i = 0; i < 60; ++i)
        many.ipv4("en0", "192.168.100." + std::to_string(i));
    interfaces.show(many);
    EXPECT_FALSE(link->sendIpAddressesCommand());
    EXPECT_EQ(world.log.countContaining("OstComm sendIpAddressesCommand socket send failed errno is "), 1);
    EXPECT_EQ(agent.awaitFrame().type, 3u);
    EXPECT_TRUE(link->getConfigurationCommand());
    EXPECT_EQ(agent.awaitFrame().type, 5u);
}

TEST_F(AddressFrameTest, OnAClosedLinkTheAddressesStay) {
    world.holdReaderBack();
    world.startAgent();
    OstComm* link = OstComm::Instance();
    link->OstCommClose();
    EXPECT_FALSE(link->sendIpAddressesCommand());
    EXPECT_TRUE(world.log.holds("OstComm sendIpAddressesCommand no socket."));
}
