#include "gp/GPSockets.h"

#include "support/CapturedLog.h"
#include "support/FixedNames.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedNames.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

namespace {

using testsupport::CapturedLog;
using testsupport::LoopbackListener;
using testsupport::ManualClock;
using testsupport::Peer;
using testsupport::PlayedNames;

// A client that finds "agent.test" at 127.0.0.1, where the test listens.
class GPSocketsClient : public testing::Test {
protected:
    GPSocketsClient() {
        signal(SIGPIPE, SIG_IGN);
        names_.answer("agent.test", AF_INET, {"127.0.0.1"});
        names_.install();
        ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    }

    CapturedLog log_;
    PlayedNames names_;
    LoopbackListener listener_;
};

TEST(GPSockets, StartsWithPort80NoHostNoTlsAndTheDefaultTimeout) {
    GPSockets socket;
    EXPECT_EQ(socket.port(), 80);
    EXPECT_EQ(socket.server(), nullptr);
    EXPECT_EQ(socket.timeout(), 5);
    EXPECT_FALSE(socket.useSSL());
    EXPECT_FALSE(socket.isUDP());
    EXPECT_EQ(socket.error(), 0);
    EXPECT_EQ(socket.IPAddress(), nullptr);
}

TEST(GPSockets, MadeWithPort443UsesTls) {
    EXPECT_TRUE(GPSockets(443, "a").useSSL());
    EXPECT_FALSE(GPSockets(8443, "a").useSSL());
    EXPECT_EQ(GPSockets(8443, "a").port(), 8443);
}

TEST(GPSockets, MadeWithAHostAloneHasPort80AndACopyOfTheHost) {
    char host[] = "agent.test";
    GPSockets socket(host);
    host[0] = 'X';
    EXPECT_EQ(socket.port(), 80);
    EXPECT_STREQ(socket.server(), "agent.test");
}

TEST(GPSockets, SetServerReplacesTheCopy) {
    GPSockets socket("first");
    socket.setServer("second");
    EXPECT_STREQ(socket.server(), "second");
    socket.setServer(socket.server());
    EXPECT_STREQ(socket.server(), "second");
    socket.setServer(nullptr);
    EXPECT_EQ(socket.server(), nullptr);
}

TEST(GPSockets, SetPort443TurnsTlsOnAndSetPort80TurnsItOffAlsoAfterSetUseSSL) {
    GPSockets socket;
    socket.setPort(443);
    EXPECT_TRUE(socket.useSSL());
    socket.setPort(80);
    EXPECT_FALSE(socket.useSSL());
    socket.setUseSSL(true);
    EXPECT_TRUE(socket.useSSL());
    socket.setPort(80);
    EXPECT_FALSE(socket.useSSL());
}

TEST(GPSockets, SetDefaultTimeoutAppliesToObjectsMadeLater) {
    GPSockets before;
    GPSockets::setDefaultTimeout(9);
    GPSockets after;
    GPSockets::setDefaultTimeout(5);
    EXPECT_EQ(before.timeout(), 5);
    EXPECT_EQ(after.timeout(), 9);
}

TEST(GPSockets, SaysGPObjectFromBothNames) {
    GPSockets socket;
    EXPECT_STREQ(socket.cclassName(), "GPObject");
}

TEST(GPSockets, OpenConnectionWithoutAHostFailsWithALogLine) {
    const CapturedLog log;
    GPSockets socket;
    EXPECT_FALSE(socket.openConnection());
    EXPECT_TRUE(log.holds("socket openConnection error no socketHost"));
}

TEST_F(GPSocketsClient, OpenConnectionToAnUnknownNameFailsWithALogLine) {
    GPSockets socket(80, "nobody.test");
    EXPECT_FALSE(socket.openConnection());
    EXPECT_TRUE(log_.holds("socket openConnection gethostbyname2 fail"));
    EXPECT_EQ(socket.IPAddress(), nullptr);
}

TEST_F(GPSocketsClient, OpenConnectionToANameWithoutAWholeAddressFailsWithALogLine) {
    for (const auto& addresses : {std::vector<std::string>{}, std::vector<std::string>{"\x7f\x01\x01"}}) {
        testsupport::FixedNames names(addresses);
        names.install();
        GPSockets socket(listener_.port(), "agent.test");
        EXPECT_FALSE(socket.openConnection());
        EXPECT_EQ(log_.messages().back(), "socket openConnection gethostbyname2 fail");
        EXPECT_EQ(socket.IPAddress(), nullptr);
        names_.install();
    }
}

TEST_F(GPSocketsClient, OpenConnectionStoresTheNumericTextOfThePeer) {
    GPSockets socket(listener_.port(), "agent.test");
    EXPECT_TRUE(socket.openConnection());
    EXPECT_STREQ(socket.IPAddress(), "127.0.0.1");
}

TEST_F(GPSocketsClient, OpenConnectionDoesNotWaitForTheConnection) {
    GPSockets socket(testsupport::freePort(), "agent.test");
    EXPECT_TRUE(socket.openConnection()) << "nobody listens there, and only the first write finds out";
    EXPECT_FALSE(socket.writeData("x", 1));
}

TEST_F(GPSocketsClient, OpenConnectionMakesTheSocketNonBlocking) {
    GPSockets socket(listener_.port(), "agent.test");
    ASSERT_TRUE(socket.writeData("x", 1));
    const Peer peer = listener_.accept();
    const std::string block(16 * 1024 * 1024, 'x');
    EXPECT_FALSE(socket.send(block.data(), static_cast<int>(block.size())));
}

TEST_F(GPSocketsClient, OpenConnectionWithTlsOnDescriptorZeroFailsWithALogLine) {
    EXPECT_TRUE(testsupport::passesInChild([this] {
        close(0);
        GPSockets socket(listener_.port(), "agent.test");
        socket.setUseSSL(true);
        EXPECT_FALSE(socket.openConnection());
        EXPECT_TRUE(log_.holds("socket openConnection openSSLConnection fail"));
    }));
}

TEST_F(GPSocketsClient, WriteDataOnAFreshObjectConnectsFirst) {
    GPSockets socket(listener_.port(), "agent.test");
    EXPECT_TRUE(socket.writeData("hello", 5));
    EXPECT_EQ(listener_.accept().read(5), "hello");
}

TEST_F(GPSocketsClient, WriteDataFailsWhenTheConnectionCannotBeOpened) {
    GPSockets socket(80, "nobody.test");
    EXPECT_FALSE(socket.writeData("hello", 5));
}

TEST_F(GPSocketsClient, ADatagramSocketSendsDatagrams) {
    Peer receiver(::socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(receiver.descriptor(), reinterpret_cast<sockaddr*>(&address), length);
    getsockname(receiver.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);

    GPSockets socket(ntohs(address.sin_port), "agent.test");
    socket.useUDP(true);
    EXPECT_TRUE(socket.writeData("datagram", 8));
    EXPECT_EQ(receiver.read(8), "datagram");
}

TEST(GPSockets, AdoptsOnlyDescriptorsFromOneOn) {
    GPSockets socket;
    EXPECT_FALSE(socket.openConnection(0));
    EXPECT_FALSE(socket.openConnection(-1));
}

TEST(GPSockets, OpenSSLConnectionWithoutASocketFails) {
    GPSockets socket;
    EXPECT_FALSE(socket.openSSLConnection());
}

TEST(GPSockets, DestructionClosesTheConnection) {
    Peer mine;
    Peer peer;
    testsupport::connectedPair(mine, peer);
    auto* socket = new GPSockets;
    socket->openConnection(mine.handOver());
    socket->release();
    EXPECT_EQ(peer.readAll(), "");
}

TEST(GPSockets, ValidateIPTakesFourNumbersUpTo255) {
    EXPECT_TRUE(GPSockets::validateIP("127.0.0.1"));
    EXPECT_TRUE(GPSockets::validateIP("255.255.255.255"));
    EXPECT_TRUE(GPSockets::validateIP("1.2.3.4.5")) << "only the first four are looked at";
    EXPECT_TRUE(GPSockets::validateIP("a.b.c.d")) << "no number counts as 0";
    EXPECT_TRUE(GPSockets::validateIP("1.2.3."));
}

TEST(GPSockets, ValidateIPOfANumberAbove255IsFalse) {
    EXPECT_FALSE(GPSockets::validateIP("256.0.0.1"));
    EXPECT_FALSE(GPSockets::validateIP("1.2.3.256"));
    EXPECT_FALSE(GPSockets::validateIP("1.-2.3.4")) << "taken as unsigned";
    EXPECT_FALSE(GPSockets::validateIP("1.2.2147483647.4"));
}

TEST(GPSockets, ValidateIPWithFewerThanThreeDotsIsFalse) {
    for (const char* text : {"", "1", "1.2", "1.2.3", "12345", "."})
        EXPECT_FALSE(GPSockets::validateIP(text)) << text;
    EXPECT_FALSE(GPSockets::validateIP(nullptr));
}

TEST(GPSockets, GetIPAddressFillsTheRecordFromNumericText) {
    sockaddr_in record;
    memset(&record, 0xff, sizeof record);
    EXPECT_TRUE(GPSockets::getIPAddress("10.1.2.3", reinterpret_cast<sockaddr*>(&record), 8080));
    EXPECT_EQ(record.sin_family, AF_INET);
    EXPECT_EQ(ntohs(record.sin_port), 8080);
    EXPECT_EQ(ntohl(record.sin_addr.s_addr), 0x0a010203u);
    for (const char byte : record.sin_zero)
        EXPECT_EQ(byte, 0);
}

TEST(GPSockets, GetIPAddressOfNumericTextThatIsNoAddressIsFalse) {
    sockaddr_in record{};
    EXPECT_FALSE(GPSockets::getIPAddress("300.1.1.1", reinterpret_cast<sockaddr*>(&record), 1));
    EXPECT_FALSE(GPSockets::getIPAddress("1.1", reinterpret_cast<sockaddr*>(&record), 1));
    EXPECT_FALSE(GPSockets::getIPAddress(nullptr, reinterpret_cast<sockaddr*>(&record), 1));
}

TEST_F(GPSocketsClient, GetIPAddressOfANameIsTrueButDoesNotGiveTheNamesAddress) {
    sockaddr_in record{};
    EXPECT_TRUE(GPSockets::getIPAddress("agent.test", reinterpret_cast<sockaddr*>(&record), 1));
    EXPECT_EQ(record.sin_addr.s_addr, 0u);
    // The raw bytes '1' '2' '3' '4' read as the text "1234".
    names_.answer("digits.test", AF_INET, {"49.50.51.52"});
    EXPECT_TRUE(GPSockets::getIPAddress("digits.test", reinterpret_cast<sockaddr*>(&record), 1));
    EXPECT_EQ(ntohl(record.sin_addr.s_addr), 1234u);
    EXPECT_FALSE(GPSockets::getIPAddress("nobody.test", reinterpret_cast<sockaddr*>(&record), 1));
}

TEST_F(GPSocketsClient, GetIPAddressLooksUpWhateverDoesNotBeginWithADigit) {
    sockaddr_in record{};
    EXPECT_FALSE(GPSockets::getIPAddress("-1.2.3.4", reinterpret_cast<sockaddr*>(&record), 1));
    EXPECT_EQ(names_.asked(), std::vector<std::string>{"-1.2.3.4"});
}

TEST_F(GPSocketsClient, GetIPAddressOfANameWithoutAnyAddressIsFalse) {
    testsupport::FixedNames none({});
    none.install();
    sockaddr_in record{};
    EXPECT_FALSE(GPSockets::getIPAddress("agent.test", reinterpret_cast<sockaddr*>(&record), 1));
    names_.install();
}

} // namespace
