#include "packet/TCPPacket.h"

#include "config/Configuration.h"
#include "support/CapturedLog.h"
#include "support/ClientHelloBuilder.h"
#include "support/GuardedBytes.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

using testsupport::ClientHelloBuilder;

namespace {

constexpr int capacity = 255;

// What sslDomain says of exactly these bytes. A read beyond them is noticed.
struct Reading {
    explicit Reading(const std::string& bytes, int room = capacity) {
        const testsupport::GuardedBytes copy(bytes);
        std::string out(static_cast<std::size_t>(room), '~');
        found = sslDomain(copy.data(), static_cast<int>(bytes.size()), out.data(), room);
        untouched = out.find_first_not_of('~') == std::string::npos;
        name = untouched ? "" : out.c_str();
    }

    bool found;
    bool untouched;
    std::string name;
};

std::string bytes(std::initializer_list<int> values) {
    std::string text;
    for (int value : values)
        text += static_cast<char>(value);
    return text;
}

// A hello with some bytes replaced.
std::string withBytes(std::string hello, std::size_t at, const std::string& replacement) {
    return hello.replace(at, replacement.size(), replacement);
}

} // namespace

TEST(TCPPacketServerName, TheNameIsFound) {
    const Reading reading(ClientHelloBuilder().serverName("mail.example.org").build());

    EXPECT_TRUE(reading.found);
    EXPECT_EQ(reading.name, "mail.example.org");
}

TEST(TCPPacketServerName, SessionIdCipherSuitesAndCompressionMethodsAreSteppedOver) {
    for (int session : {0, 1, 32, 255}) {
        for (int ciphers : {0, 2, 3, 301}) {
            const Reading reading(ClientHelloBuilder()
                                      .sessionIdLength(session)
                                      .cipherSuitesLength(ciphers)
                                      .compressionMethods(session % 7)
                                      .build());
            EXPECT_EQ(reading.name, "www.example.org") << session << " " << ciphers;
        }
    }
}

TEST(TCPPacketServerName, TheNameIsFoundBehindOtherExtensions) {
    const Reading reading(ClientHelloBuilder()
                              .extensionBefore(0x2a2a, "")
                              .extensionBefore(11, "abc")
                              .extensionAfter(10, "defg")
                              .build());

    EXPECT_EQ(reading.name, "www.example.org");
}

TEST(TCPPacketServerName, AnEmptyServerNameExtensionIsSteppedOver) {
    const Reading reading(ClientHelloBuilder().extensionBefore(0, "").build());

    EXPECT_EQ(reading.name, "www.example.org");
}

TEST(TCPPacketServerName, TheFirstServerNameCounts) {
    const std::string other = bytes({0, 4, 0, 0, 1, 'a'});
    const Reading reading(ClientHelloBuilder().extensionBefore(0, other).build());

    EXPECT_EQ(reading.name, "a");
}

TEST(TCPPacketServerName, FewerThanFiveBytesYieldNothing) {
    const std::string hello = bytes({22, 3, 0, 0});

    for (std::size_t size = 0; size <= hello.size(); ++size)
        EXPECT_FALSE(Reading(hello.substr(0, size)).found) << size;
}

TEST(TCPPacketServerName, AnSslv2HelloOfVersion3IsAnOldHelloWithoutAName) {
    const Reading old(bytes({0x80, 46, 1, 3, 1}));

    EXPECT_TRUE(old.found);
    EXPECT_TRUE(old.untouched);
    EXPECT_FALSE(Reading(bytes({0x80, 46, 1, 2, 1})).found);
    EXPECT_FALSE(Reading(bytes({0x80, 46, 2, 3, 1})).found);
    EXPECT_TRUE(Reading(bytes({0xff, 0, 1, 3, 0})).found);
}

TEST(TCPPacketServerName, AnSsl30RecordOfFiveBytesIsAnOldHelloWithoutAName) {
    const Reading reading(bytes({22, 3, 0, 0xff, 0xff}));

    EXPECT_TRUE(reading.found);
    EXPECT_TRUE(reading.untouched);
}

TEST(TCPPacketServerName, RecordsThatAreNoHandshakeYieldNothing) {
    for (int type : {20, 21, 23, 24, 0, 71})
        EXPECT_FALSE(Reading(withBytes(ClientHelloBuilder().build(), 0, bytes({type}))).found) << type;
}

TEST(TCPPacketServerName, RecordVersionsOtherThan30To33YieldNothing) {
    EXPECT_EQ(Reading(ClientHelloBuilder().recordVersion(3, 1).build()).name, "www.example.org");
    EXPECT_EQ(Reading(ClientHelloBuilder().recordVersion(3, 3).build()).name, "www.example.org");
    EXPECT_FALSE(Reading(ClientHelloBuilder().recordVersion(3, 4).build()).found);
    EXPECT_FALSE(Reading(ClientHelloBuilder().recordVersion(2, 0).build()).found);
    EXPECT_FALSE(Reading(ClientHelloBuilder().recordVersion(4, 1).build()).found);
}

TEST(TCPPacketServerName, HandshakesOtherThanAClientHelloYieldNothing) {
    EXPECT_FALSE(Reading(ClientHelloBuilder().handshakeType(2).build()).found);
    EXPECT_FALSE(Reading(ClientHelloBuilder().handshakeType(0).build()).found);
}

TEST(TCPPacketServerName, AHelloThatIsNotTheRecordsOneMessageYieldsNothing) {
    const int right = static_cast<int>(ClientHelloBuilder().build().size()) - 5;

    EXPECT_TRUE(Reading(ClientHelloBuilder().recordLengthField(right).build()).found);
    EXPECT_FALSE(Reading(ClientHelloBuilder().recordLengthField(right + 1).build()).found);
    EXPECT_FALSE(Reading(ClientHelloBuilder().recordLengthField(right - 1).build()).found);
}

TEST(TCPPacketServerName, AHandshakeLengthAbove16BitsYieldsNothing) {
    EXPECT_FALSE(Reading(withBytes(ClientHelloBuilder().build(), 6, bytes({1}))).found);
}

TEST(TCPPacketServerName, EveryCutOfAHelloIsReadInsideItsBytes) {
    const std::string hello = ClientHelloBuilder()
                                  .sessionIdLength(32)
                                  .compressionMethods(3)
                                  .extensionBefore(10, "abcd")
                                  .extensionAfter(11, "ef")
                                  .build();
    const std::size_t nameEnd = hello.find("www.example.org") + 15;

    for (std::size_t size = 5; size < hello.size(); ++size) {
        const Reading reading(hello.substr(0, size));
        EXPECT_EQ(reading.found, size >= nameEnd) << size;
    }
}

TEST(TCPPacketServerName, LengthFieldsThatLeadOutOfTheHelloYieldNothing) {
    const std::string hello = ClientHelloBuilder().build();

    EXPECT_FALSE(Reading(withBytes(hello, 43, bytes({255}))).found);
    EXPECT_FALSE(Reading(withBytes(hello, 44, bytes({255, 255}))).found);
    EXPECT_FALSE(Reading(withBytes(hello, 50, bytes({255}))).found);
}

TEST(TCPPacketServerName, TheListLengthTheNameTypeAndTheHighByteOfTheNameLengthAreNotRead) {
    const std::string hello = ClientHelloBuilder().build();
    const std::size_t name = hello.find("www.example.org");

    EXPECT_EQ(Reading(withBytes(hello, name - 5, bytes({99, 98, 97, 96}))).name, "www.example.org");
}

TEST(TCPPacketServerName, OfANameLengthAbove255OnlyTheLowByteCounts) {
    const Reading reading(
        ClientHelloBuilder().serverName(std::string(300, 'a')).nameLengthField(256 + 44).build());

    EXPECT_EQ(reading.name, std::string(44, 'a'));
}

TEST(TCPPacketServerName, TheTwoBytesOfTheExtensionsTotalAreSkippedUnread) {
    const std::string hello = ClientHelloBuilder().build();
    const std::size_t name = hello.find("www.example.org");

    EXPECT_EQ(Reading(withBytes(hello, name - 11, bytes({0, 0}))).name, "www.example.org");
}

TEST(TCPPacketServerName, AServerNameOfExactly254BytesIsTakenWithCapacity255) {
    const Reading reading(ClientHelloBuilder().serverName(std::string(254, 'n')).build());

    EXPECT_TRUE(reading.found);
    EXPECT_EQ(reading.name, std::string(254, 'n'));
}

TEST(TCPPacketServerName, BehindANameOf255BytesTheWalkStepsOnWithFiveBytesTooMany) {
    const std::string second = bytes({0, 4, 0, 0, 1, 'b'});
    const auto hello = ClientHelloBuilder().serverName(std::string(255, 'n'));

    // The bytes behind the long name are an extension right away, and five bytes later.
    const Reading rightAway(ClientHelloBuilder(hello).extensionAfter(0, second).build());
    EXPECT_FALSE(rightAway.found);

    // An unknown extension of one byte covers just the five bytes that are stepped over.
    const Reading fiveLater(
        ClientHelloBuilder(hello).extensionAfter(77, "x").extensionAfter(0, second).build());
    EXPECT_TRUE(fiveLater.found);
    EXPECT_EQ(fiveLater.name, "b");
}

TEST(TCPPacketServerName, TheCapacityDecidesWhatIsTooLong) {
    const std::string hello = ClientHelloBuilder().serverName("abcd").build();

    EXPECT_EQ(Reading(hello, 5).name, "abcd");
    EXPECT_FALSE(Reading(hello, 4).found);
}

TEST(TCPPacketServerName, AnExtensionCutBeforeItsNameLengthYieldsNothing) {
    // A server_name extension whose length byte would be the first one behind the hello.
    std::string hello = ClientHelloBuilder().withoutServerName().extensionAfter(0, "abcd").build();

    EXPECT_FALSE(Reading(hello).found);
}

TEST(TCPPacketServerName, ANameThatLeadsOutOfTheHelloEndsTheWalkThoughAGoodOneFollows) {
    // Both lengths lead out; the second would also be too long for the capacity, and be stepped over.
    for (const int length : {254, 255}) {
        const std::string leadsOut = bytes({0, length + 3, 0, 0, length, 'a'});
        const std::string hello = ClientHelloBuilder()
                                      .extensionBefore(0, leadsOut)
                                      .extensionBefore(77, "x")
                                      .extensionAfter(0, bytes({0, 4, 0, 0, 1, 'b'}))
                                      .build();
        ASSERT_LT(hello.size(), 255u);

        const Reading reading(hello);
        EXPECT_FALSE(reading.found) << length;
        EXPECT_TRUE(reading.untouched) << length;
    }
}

TEST(TCPPacketServerName, AtLevel16TheNameIsLoggedWithItsLengthAndTheCapacity) {
    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
    const std::string hello = ClientHelloBuilder().build();

    Configuration::setLogLevel(32 | 64 | 128);
    Reading quiet(hello);
    EXPECT_EQ(log.countContaining("extracted"), 0);

    Configuration::setLogLevel(16);
    Reading logged(hello);
    EXPECT_TRUE(log.holds("--extracted SSL url: subjectlength=15 buflen=255 url=www.example.org"));
}
