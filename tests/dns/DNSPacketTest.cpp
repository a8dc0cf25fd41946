#include "dns/DNSPacket.h"

#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "support/AllocationCounter.h"
#include "support/DnsMessageBuilder.h"
#include "support/DnsWorld.h"

#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

using testsupport::DnsMessageBuilder;
using testsupport::dnsName;
using testsupport::dnsPointer;
using testsupport::dnsTypeAAAA;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;

namespace {

constexpr const char* listed = "www.google.com";
constexpr const char* safeHost = "forcesafesearch.google.com";

bool isUsable(const PacketBuilder& builder) {
    PacketBuffer packet = builder.build();
    return DNSPacket::isUsableDNSPacket(packet.packet());
}

PacketBuilder reply4() { return DnsMessageBuilder().question(listed).answer().ipv4(); }
PacketBuilder reply6() { return DnsMessageBuilder().question(listed).answer().ipv6(); }

TEST(UsableDNSPacket, RepliesOverIpv4AndIpv6Qualify) {
    EXPECT_TRUE(isUsable(reply4()));
    EXPECT_TRUE(isUsable(reply6()));
}

TEST(UsableDNSPacket, SourcePort53OverIpv6WithExtensionHeadersStillQualifies) {
    EXPECT_TRUE(isUsable(reply6().extension(0, 1).extension(60, 0)));
}

TEST(UsableDNSPacket, SourcePort53BehindIpv4OptionsQualifies) {
    EXPECT_TRUE(isUsable(reply4().ipOptions(3)));
}

TEST(UsableDNSPacket, AQueryToPort53DoesNotQualify) {
    EXPECT_FALSE(isUsable(reply4().reversed()));
    EXPECT_FALSE(isUsable(reply6().reversed()));
}

TEST(UsableDNSPacket, BothBytesOfThePortCount) {
    EXPECT_FALSE(isUsable(reply4().from("10.0.0.53", 0x0135)));
    EXPECT_FALSE(isUsable(reply4().from("10.0.0.53", 0x3500)));
    EXPECT_FALSE(isUsable(reply6().from("2001:db8::53", 54)));
}

TEST(UsableDNSPacket, TcpDoesNotQualify) {
    EXPECT_FALSE(isUsable(PacketBuilder::ipv4().from("10.0.0.53", 53)));
    EXPECT_FALSE(isUsable(PacketBuilder::ipv6().from("2001:db8::53", 53)));
}

TEST(UsableDNSPacket, AnyOtherIpVersionDoesNotQualify) {
    for (const char* version : {"\x05", "\x35", "\x55", "\x75", "\xf5"})
        EXPECT_FALSE(isUsable(reply4().put(0, version)));
}

class DnsRemap : public testsupport::DnsWorld {
protected:
    // Whether the packet is redirected; the record is in `result` afterwards.
    bool remap(const PacketBuilder& builder) {
        PacketBuffer packet = builder.build();
        const std::string before = packet.record();
        const bool redirected = DNSPacket::remap(packet.packet(), &result);
        EXPECT_EQ(packet.record(), before) << "no byte of the packet changes";
        return redirected;
    }

    bool isResultUntouched() const {
        const sysctl_result untouched{};
        return std::memcmp(&result, &untouched, sizeof result) == 0;
    }

    sysctl_result result{};
};

TEST_F(DnsRemap, AListedHostIsRedirectedToItsSafeSearchHost) {
    givenTables();
    EXPECT_TRUE(remap(reply4()));
    EXPECT_STREQ(result.redirectUrl, safeHost);
    EXPECT_EQ(result.redirectAddress, inet_addr("216.239.38.120"));

    sysctl_result expected{};
    std::strcpy(expected.redirectUrl, safeHost);
    expected.redirectAddress = result.redirectAddress;
    EXPECT_EQ(std::memcmp(&result, &expected, sizeof result), 0) << "nothing else is filled";
}

TEST_F(DnsRemap, OverIpv6WithExtensionHeadersTheMessageIsFound) {
    givenTables();
    EXPECT_TRUE(remap(reply6().extension(0, 1)));
    EXPECT_STREQ(result.redirectUrl, safeHost);
}

TEST_F(DnsRemap, BehindIpv4OptionsTheMessageIsFound) { EXPECT_TRUE(remap(reply4().ipOptions(2))); }

TEST_F(DnsRemap, WithoutAResultTheAnswerIsOnlyTold) {
    beVerbose();
    PacketBuffer packet = reply4().build();
    EXPECT_TRUE(DNSPacket::remap(packet.packet(), nullptr));
    PacketBuffer other = DnsMessageBuilder().question("www.alder.test").answer().ipv4().build();
    EXPECT_FALSE(DNSPacket::remap(other.packet(), nullptr));
    EXPECT_TRUE(logged().empty());
}

TEST_F(DnsRemap, AnUnknownRedirectAddressIsZeroWithTheUrlFilled) {
    // The first use makes the table of hosts, and no table of addresses.
    result.redirectAddress = 7;
    EXPECT_TRUE(remap(reply4()));
    EXPECT_STREQ(result.redirectUrl, safeHost);
    EXPECT_EQ(result.redirectAddress, 0u);
}

TEST_F(DnsRemap, AReplyWithAncount0SuchAsNxdomainGivesFalseWhateverTheName) {
    EXPECT_FALSE(remap(DnsMessageBuilder().question(listed).ipv4()));
    EXPECT_TRUE(isResultUntouched());
}

TEST_F(DnsRemap, AReplyWithoutQuestionsGivesFalse) {
    EXPECT_FALSE(remap(DnsMessageBuilder().question(listed).answer().questionCount(0).ipv4()));
}

TEST_F(DnsRemap, TheCountsAreBothBytes) {
    EXPECT_TRUE(remap(DnsMessageBuilder().question(listed).answerCount(0x0100).ipv4()));
    EXPECT_TRUE(remap(DnsMessageBuilder().question(listed).questionCount(0x0100).answer().ipv4()));
}

TEST_F(DnsRemap, AQuestionForAListedHostInCapitalsGivesFalseWhereTheLowerCaseNameHits) {
    EXPECT_FALSE(remap(DnsMessageBuilder().question("WWW.GOOGLE.COM").answer().ipv4()));
    EXPECT_TRUE(remap(reply4()));
}

TEST_F(DnsRemap, OnlyTheWholeNameHits) {
    for (const char* name : {"www.google.com.test", "a.www.google.com", "www.google", "google.co"})
        EXPECT_FALSE(remap(DnsMessageBuilder().question(name).answer().ipv4())) << name;
}

TEST_F(DnsRemap, AReplyWithTwoQuestionsTheFirstUnknownAndTheSecondListedGivesTrue) {
    EXPECT_TRUE(
        remap(DnsMessageBuilder().question("www.alder.test").question("www.bing.com").answer().ipv4()));
    EXPECT_STREQ(result.redirectUrl, "strict.bing.com");
}

TEST_F(DnsRemap, OfTwoListedQuestionsTheFirstCounts) {
    EXPECT_TRUE(remap(DnsMessageBuilder().question("www.youtube.com").question(listed).answer().ipv4()));
    EXPECT_STREQ(result.redirectUrl, "restrict.youtube.com");
}

TEST_F(DnsRemap, TheQuestionCountBoundsTheSearch) {
    EXPECT_FALSE(remap(
        DnsMessageBuilder().question("www.alder.test").question(listed).questionCount(1).answer().ipv4()));
}

TEST_F(DnsRemap, Qtype28ForAListedHostGivesFalse) {
    EXPECT_FALSE(remap(DnsMessageBuilder().question(listed, dnsTypeAAAA).answer().ipv4()));
    EXPECT_TRUE(isResultUntouched());
}

TEST_F(DnsRemap, EveryOtherTypeGivesFalse) {
    for (const int type : {0, 2, 5, 15, 16, 0x0100, 0x0101, 255, 0xff01})
        EXPECT_FALSE(remap(DnsMessageBuilder().question(listed, type).answer().ipv4())) << type;
}

TEST_F(DnsRemap, TheClassDoesNotCount) {
    const std::string chaos("\0\1\0\3", 4);
    EXPECT_TRUE(
        remap(DnsMessageBuilder().raw(dnsName(listed) + chaos).questionCount(1).answerCount(1).ipv4()));
}

TEST_F(DnsRemap, ARootQuestionMovesThePositionBy4OnlySoThatASecondQuestionIsReadOneByteEarly) {
    DnsMessageBuilder rootFirst;
    rootFirst.rawQuestion(std::string(1, '\0'));
    EXPECT_FALSE(remap(DnsMessageBuilder(rootFirst).question(listed).answer().ipv4()));

    // With the last byte of the root question's class left out, the listed name stands where it is looked for.
    DnsMessageBuilder oneByteEarly;
    oneByteEarly.raw(std::string("\0\0\1\0", 4) + dnsName(listed) + std::string("\0\1\0\1", 4));
    EXPECT_TRUE(remap(oneByteEarly.questionCount(2).answerCount(1).ipv4()));
}

TEST_F(DnsRemap, ACompressedQuestionIsNotSteppedOver) {
    // The pointer leads to the name, but its own two bytes are then taken as the type.
    DnsMessageBuilder message;
    message.rawQuestion(dnsPointer(12 + 2 + 4)).raw(dnsName(listed)).answerCount(1);
    EXPECT_FALSE(remap(message.ipv4()));
}

TEST_F(DnsRemap, AReservedLabelIsReadAsAnEmptyName) {
    EXPECT_FALSE(remap(DnsMessageBuilder().rawQuestion("\x41\x42").answer().ipv4()));
    EXPECT_FALSE(remap(DnsMessageBuilder().rawQuestion("\x81\x42").answer().ipv4()));
}

TEST_F(DnsRemap, ALongRedirectHostIsCutAt1024BytesWithoutAnEndingZero) {
    givenTables();
    const std::string redirect = std::string(1100, 'r');
    givenName(redirect, "192.0.2.7");
    setRemaps({"www.alder.test," + redirect});
    std::memset(result.reserved, 'x', sizeof result.reserved);
    EXPECT_TRUE(remap(DnsMessageBuilder().question("www.alder.test").answer().ipv4()));
    EXPECT_EQ(std::string(result.redirectUrl, 1024), std::string(1024, 'r'));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(result.reserved), 8), "xxxxxxxx");
    EXPECT_EQ(result.redirectAddress, inet_addr("192.0.2.7"));
}

TEST_F(DnsRemap, AnOldUrlInTheRecordIsOverwrittenToItsEnd) {
    std::memset(result.redirectUrl, 'x', sizeof result.redirectUrl);
    EXPECT_TRUE(remap(reply4()));
    EXPECT_EQ(std::string(result.redirectUrl, 1024),
              safeHost + std::string(1024 - std::strlen(safeHost), '\0'));
}

TEST_F(DnsRemap, WhenVerboseHostAndAddressAreLogged) {
    givenTables();
    beVerbose();
    EXPECT_TRUE(remap(reply4()));
    EXPECT_EQ(logged(),
              (std::vector<std::string>{
                  "--redirecting DNS host forcesafesearch.google.com",
                  "-- got address=216.239.38.120 for redirect DNS host forcesafesearch.google.com"}));
}

TEST_F(DnsRemap, WhenVerboseAnUnknownAddressIsLoggedAsZero) {
    beVerbose();
    EXPECT_TRUE(remap(reply4()));
    EXPECT_EQ(logged().back(), "-- got address=0.0.0.0 for redirect DNS host forcesafesearch.google.com");
}

TEST_F(DnsRemap, WithoutQuestionsWithoutAnswersOrWithoutAHitNothingIsLogged) {
    beVerbose();
    EXPECT_FALSE(remap(DnsMessageBuilder().answer().ipv4()));
    EXPECT_FALSE(remap(DnsMessageBuilder().question(listed).ipv4()));
    EXPECT_FALSE(remap(DnsMessageBuilder().question("www.alder.test").answer().ipv4()));
    EXPECT_TRUE(logged().empty());
}

TEST_F(DnsRemap, OtherwiseNothingIsLogged) {
    EXPECT_TRUE(remap(reply4()));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DnsRemap, OnceThereIsATableNothingIsAllocated) {
    givenTables();
    PacketBuffer hit = reply4().build();
    PacketBuffer miss = DnsMessageBuilder().question("www.alder.test").answer().ipv4().build();
    const testsupport::AllocationCounter allocations;
    const bool redirected = DNSPacket::remap(hit.packet(), &result);
    const bool passed = !DNSPacket::remap(miss.packet(), &result);
    EXPECT_EQ(allocations.count(), 0);
    EXPECT_TRUE(redirected && passed);
}

// What would lead the readers out of the buffer or round in a circle passes.

TEST_F(DnsRemap, QuestionsAreReadUpToTheEndOfTheRoomAndNoFurther) {
    // Questions for the root, of five bytes each, and then one for a host of the table.
    const auto isRedirectedBehind = [](int questions) {
        std::vector<char> room(TCPPacket::packetRoom + 64);
        room[0] = 0x45;
        char* const message = room.data() + 20 + 8;
        std::memcpy(message + 4, "\xff\xff\0\1", 4);
        const std::string question = dnsName("www.bing.com") + std::string("\0\1\0\1", 4);
        std::memcpy(message + 12 + 5 * questions, question.data(), question.size());
        return DNSPacket::remap(room.data(), nullptr);
    };
    EXPECT_TRUE(isRedirectedBehind(13120));
    EXPECT_FALSE(isRedirectedBehind(13124)) << "its name begins four bytes ahead of the end";
}

TEST_F(DnsRemap, APointerToItselfGivesFalse) {
    EXPECT_FALSE(remap(DnsMessageBuilder().rawQuestion(dnsPointer(12)).answer().ipv4()));
    EXPECT_TRUE(isResultUntouched());
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DnsRemap, PointersInACircleGiveFalse) {
    const std::string circle = dnsPointer(14) + dnsPointer(16) + dnsPointer(12);
    EXPECT_FALSE(remap(DnsMessageBuilder().raw(circle).questionCount(1).answer().ipv4()));
}

TEST_F(DnsRemap, ANameThatFillsTheBufferGivesFalse) {
    std::string name;
    for (int i = 0; i < 17; ++i)
        name += '\x3f' + std::string(63, 'a');
    EXPECT_FALSE(remap(DnsMessageBuilder().rawQuestion(name + '\0').question(listed).answer().ipv4()));
}

TEST_F(DnsRemap, AMessageThatReachesTheEndOfTheRoomGivesFalse) {
    // Every question is well-formed, and there are more of them than the buffer has room for.
    const std::string question = dnsName("a") + std::string("\0\1\0\1", 4);
    DnsMessageBuilder message;
    while (message.bytes().size() + 28 + question.size() < TCPPacket::packetRoom)
        message.raw(question);
    const std::size_t left = TCPPacket::packetRoom - message.bytes().size() - 28;
    for (std::size_t cut = 0; cut < left; ++cut) {
        const auto packet = DnsMessageBuilder(message).raw(question.substr(0, cut));
        EXPECT_FALSE(remap(DnsMessageBuilder(packet).questionCount(65535).answerCount(1).ipv4()));
    }
}

TEST_F(DnsRemap, AMessageWhoseHeaderIsTheEndOfTheRoomGivesFalse) {
    // Extension headers up to the last place where a transport header fits.
    PacketBuilder packet = DnsMessageBuilder().questionCount(1).answerCount(1).ipv6();
    int size = 40;
    while (size + 1024 <= TCPPacket::packetRoom - 20) {
        packet.extension(60, 127);
        size += 8 + 8 * 127;
    }
    packet.extension(60, (TCPPacket::packetRoom - 20 - size) / 8 - 1);
    PacketBuffer built = packet.build();
    ASSERT_GE(TCPPacket::ipHeaderSize(built.packet()), TCPPacket::packetRoom - 27);
    EXPECT_FALSE(remap(packet));
}

} // namespace
