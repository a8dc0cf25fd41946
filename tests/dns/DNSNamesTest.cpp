#include "dns/DNSPacket.h"

#include "support/CapturedLog.h"
#include "support/DnsMessageBuilder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using testsupport::CapturedLog;
using testsupport::dnsName;
using testsupport::dnsPointer;
using Lines = std::vector<std::string>;

namespace {

// Reads one name of a message that is exactly as large as its bytes.
class NameReading {
public:
    explicit NameReading(const std::string& message, int at = 0, const std::string& before = "")
        : message_(message.begin(), message.end()) {
        std::strcpy(name_, before.c_str());
        char* place = message_.data() + at;
        read_ = readName(place, name_, message_.data(), nameOffset_, message_.data(),
                         message_.data() + message_.size());
        position_ = static_cast<int>(place - message_.data());
    }

    bool wasRead() const { return read_; }
    std::string name() const { return name_; }
    int position() const { return position_; }
    int nameOffset() const { return nameOffset_; }

private:
    std::vector<char> message_;
    char name_[dnsNameBufferSize] = {};
    unsigned short nameOffset_ = 0;
    int position_ = -1;
    bool read_ = false;
};

constexpr int untouched = 0;

TEST(ReadName, APlainNameComesOutDottedWithoutATrailingDotAndInItsOwnCase) {
    const NameReading reading(dnsName("www.Alder.TEST") + "??");
    EXPECT_TRUE(reading.wasRead());
    EXPECT_EQ(reading.name(), "www.Alder.TEST");
    EXPECT_EQ(reading.position(), 16) << "behind the zero byte";
}

TEST(ReadName, ANameOfOneLabelHasNoDot) {
    EXPECT_EQ(NameReading(dnsName("a")).name(), "a");
    EXPECT_EQ(NameReading(dnsName(std::string(63, 'b'))).name(), std::string(63, 'b'));
}

TEST(ReadName, TheNameIsAppended) {
    EXPECT_EQ(NameReading(dnsName("alder.test"), 0, "www.").name(), "www.alder.test");
}

TEST(ReadName, TheOffsetGetsThePointersBytes) {
    const NameReading reading("????????????" + dnsName("alder.test"), 12);
    EXPECT_EQ(reading.nameOffset(), 0x0cc0) << "c0 0c in memory";
}

TEST(ReadName, AnOffsetOf256IsCutToItsLowByte) {
    EXPECT_EQ(NameReading(std::string(258, '?') + dnsName("a"), 258).nameOffset(), 0x02c0);
}

TEST(ReadName, TheRootNameWritesNothingAndStays) {
    const NameReading reading(std::string(3, '\0'), 1);
    EXPECT_TRUE(reading.wasRead());
    EXPECT_EQ(reading.name(), "");
    EXPECT_EQ(reading.position(), 1);
    EXPECT_EQ(reading.nameOffset(), untouched);
}

TEST(ReadName, AReservedLengthWritesNothingAndStays) {
    for (const char first : {'\x40', '\x7f', '\x80', '\xbf'}) {
        const NameReading reading(std::string(1, first) + dnsName("alder"));
        EXPECT_TRUE(reading.wasRead());
        EXPECT_EQ(reading.name(), "");
        EXPECT_EQ(reading.position(), 0);
        EXPECT_EQ(reading.nameOffset(), untouched);
    }
}

TEST(ReadName, APointerIsFollowedAndNotSteppedOver) {
    const NameReading reading("??" + dnsName("alder.test") + "??" + dnsPointer(2), 16);
    EXPECT_TRUE(reading.wasRead());
    EXPECT_EQ(reading.name(), "alder.test");
    EXPECT_EQ(reading.position(), 16);
    EXPECT_EQ(reading.nameOffset(), 0x02c0) << "that of the name it leads to";
}

TEST(ReadName, AllFourteenBitsOfAPointerCount) {
    const std::string message = dnsPointer(0x3ffe) + std::string(0x3ffc, '\0') + dnsName("far");
    EXPECT_EQ(NameReading(message).name(), "far");
}

TEST(ReadName, APointerToAPointerIsFollowed) {
    EXPECT_EQ(NameReading(dnsPointer(4) + dnsPointer(6) + dnsPointer(2) + dnsName("alder")).name(), "alder");
}

TEST(ReadName, ALongChainOfPointersThatEndsIsFollowed) {
    std::string chain;
    for (int i = 1; i <= 8000; ++i)
        chain += dnsPointer(2 * i);
    EXPECT_EQ(NameReading(chain + dnsName("alder")).name(), "alder");
}

TEST(ReadName, APointerToTheRootOrToAReservedLengthWritesNothing) {
    for (const char target : {'\0', '\x40'}) {
        const NameReading reading(dnsPointer(2) + target);
        EXPECT_TRUE(reading.wasRead());
        EXPECT_EQ(reading.name(), "");
        EXPECT_EQ(reading.position(), 0);
    }
}

TEST(ReadName, BehindTheFirstLabelALengthUpTo127IsALabel) {
    const std::string label(100, 'c');
    EXPECT_EQ(NameReading(std::string("\1a\x64") + label + '\0').name(), "a." + label);
}

TEST(ReadName, BehindTheFirstLabelALengthWithItsTopBitSetLeadsBackwards) {
    // Behind the label stands the length -5. So the text up to the zero byte is taken as it is, and the next
    // length is the zero byte in front of the name.
    const NameReading reading(std::string("\0\2ab\xfb"
                                          "tail\0",
                                          10),
                              1);
    EXPECT_TRUE(reading.wasRead());
    EXPECT_EQ(reading.name(), "abtail");
    EXPECT_EQ(reading.position(), 1);
}

TEST(ReadName, AZeroByteInALabelEndsItsText) {
    const NameReading reading(std::string("\3a\0b\1c\0", 7));
    EXPECT_EQ(reading.name(), "a.c");
    EXPECT_EQ(reading.position(), 7);
}

TEST(ReadName, APointerToItselfIsNoName) {
    const NameReading reading(dnsPointer(0));
    EXPECT_FALSE(reading.wasRead());
    EXPECT_EQ(reading.position(), 0);
}

TEST(ReadName, PointersInACircleAreNoName) {
    EXPECT_FALSE(NameReading(dnsPointer(2) + dnsPointer(4) + dnsPointer(2)).wasRead());
}

TEST(ReadName, ACircleOfLabelsIsNoName) {
    // Length -1 leads back to itself, with nothing to append.
    EXPECT_FALSE(NameReading(std::string("\1a\xff\0", 4)).wasRead());
}

TEST(ReadName, ANameMayLeaveItsMessageAtNeitherEnd) {
    EXPECT_FALSE(NameReading("\3ab").wasRead()) << "within a label";
    EXPECT_FALSE(NameReading("\3abc").wasRead()) << "in front of the next length";
    EXPECT_FALSE(NameReading("\xc0").wasRead()) << "within a pointer";
    EXPECT_FALSE(NameReading(dnsPointer(2)).wasRead()) << "by a pointer";
    EXPECT_FALSE(NameReading(dnsPointer(0x3fff)).wasRead()) << "by a pointer far behind";
    EXPECT_FALSE(NameReading(std::string("\1a\x80z\0", 5)).wasRead()) << "backwards";
    EXPECT_FALSE(NameReading("\1a\xfezzz").wasRead()) << "by a text without its zero byte";
}

TEST(ReadName, APlaceOutsideOfTheMessageIsNotRead) {
    char bytes[3] = {}; // the message is the one in the middle
    char name[dnsNameBufferSize] = {};
    unsigned short offset = 0;
    for (char* place : {bytes, bytes + 2})
        EXPECT_FALSE(readName(place, name, bytes + 1, offset, bytes + 1, bytes + 2));
}

TEST(ReadName, ANameThatFillsTheBufferToTheLastByteIsRead) {
    std::string name;
    for (int i = 0; i < 15; ++i)
        name += std::string(63, 'n') + '.';
    name += std::string(63, 'n');
    ASSERT_EQ(name.size(), dnsNameBufferSize - 1);
    EXPECT_EQ(NameReading(dnsName(name)).name(), name);
}

TEST(ReadName, ALongerNameIsNone) {
    std::string name;
    for (int i = 0; i < 15; ++i)
        name += std::string(63, 'n') + '.';
    EXPECT_FALSE(NameReading(dnsName(name + std::string(62, 'n')), 0, "xx").wasRead()) << "in a label";
    EXPECT_FALSE(NameReading(dnsName(name + std::string(62, 'n') + ".x")).wasRead()) << "behind a dot";
    EXPECT_FALSE(NameReading(dnsName(name + std::string(61, 'n')), 0, "xxx").wasRead())
        << "by what was there";
}

TEST(ReadName, WithoutBoundsTheLargestMessageIsAssumed) {
    std::vector<char> message(65535, '\0');
    const std::string name = dnsName("www.alder.test");
    std::memcpy(message.data() + 12, name.data(), name.size());
    char text[dnsNameBufferSize] = {};
    unsigned short nameOffset = 0;
    char* position = message.data() + 12;
    readName(position, text, message.data(), nameOffset);
    EXPECT_STREQ(text, "www.alder.test");
    EXPECT_EQ(position - message.data(), 28);
    EXPECT_EQ(nameOffset, 0x0cc0);

    message.assign(65535, '\0');
    message[65534] = 1;
    position = message.data() + 65534;
    EXPECT_FALSE(readName(position, text, message.data(), nameOffset));
}

// Reads one domain out of data that is exactly as large as its limit. Offsets of pointers count the 12 bytes
// of the header in front.
struct DomainReading {
    explicit DomainReading(const std::string& data, int at = 0) : position(at) {
        std::vector<unsigned char> bytes(data.begin(), data.end());
        char* text = parseDomain(bytes.data(), &position, static_cast<int>(bytes.size()));
        domain = text ? text : "(null)";
        std::free(text);
        lines = log.messages();
    }

    CapturedLog log;
    int position;
    std::string domain;
    Lines lines;
};

const std::string compressed = "Domain is compressed\n";
const std::string faultyCompression = "Domain compression is faulty\n";
const std::string faultyPointer = "Pointer is faulty\n";
const std::string faultyQuestion = "Question header faulty\n";

TEST(ParseDomain, APlainNameLeavesThePositionBehindItsZeroByte) {
    const DomainReading reading("?" + dnsName("www.Alder.test") + "??", 1);
    EXPECT_EQ(reading.domain, "www.Alder.test");
    EXPECT_EQ(reading.position, 17);
    EXPECT_TRUE(reading.lines.empty());
}

TEST(ParseDomain, APointerLeadsToTheNameAndThePositionGoesBehindIt) {
    const DomainReading reading(dnsName("alder.test") + dnsPointer(12), 12);
    EXPECT_EQ(reading.domain, "alder.test");
    EXPECT_EQ(reading.position, 14);
    EXPECT_EQ(reading.lines, Lines{compressed});
}

TEST(ParseDomain, APointerReachedAfterALabelIsHonoured) {
    const DomainReading reading(dnsName("alder.test") + "\3www" + dnsPointer(12), 12);
    EXPECT_EQ(reading.domain, "www.alder.test");
    EXPECT_EQ(reading.position, 18);
}

TEST(ParseDomain, ANameGoesOnThroughSeveralPointersAndThePositionStaysWhereTheFirstOneSetIt) {
    const std::string data = dnsName("test") + "\5alder" + dnsPointer(12) + "\3www" + dnsPointer(12 + 6);
    const DomainReading reading(data + "?", 14);
    EXPECT_EQ(reading.domain, "www.alder.test");
    EXPECT_EQ(reading.position, 20);
    EXPECT_EQ(reading.lines, (Lines{compressed, compressed}));
}

TEST(ParseDomain, AnyOfTheTwoTopBitsMakesAPointer) {
    for (const char bits : {'\x40', '\x80'}) {
        const DomainReading reading(dnsName("alder") + bits + '\x0c' + "?", 7);
        EXPECT_EQ(reading.domain, "alder");
    }
}

TEST(ParseDomain, APointerToAPointerReadsAsALongLabel) {
    // The target is the pointer c3 41: its first byte counts as a length of 195, its second one as text.
    const DomainReading reading(dnsPointer(14) + dnsPointer(0x341) + std::string(194, 'x') + '\0');
    EXPECT_EQ(reading.domain, "A" + std::string(194, 'x'));
    EXPECT_EQ(reading.lines, Lines{compressed});
}

TEST(ParseDomain, APointerWithPtr11GivesDomainCompressionIsFaulty) {
    const DomainReading reading(dnsPointer(11) + std::string(40, '\0'));
    EXPECT_EQ(reading.domain, "(null)");
    EXPECT_EQ(reading.lines, (Lines{compressed, faultyCompression}));
    EXPECT_EQ(reading.position, 0);
}

TEST(ParseDomain, APointerBeyondTheLimitGivesDomainCompressionIsFaulty) {
    const DomainReading reading(dnsPointer(12 + 7) + "\1a" + std::string(2, '\0'));
    EXPECT_EQ(reading.lines, (Lines{compressed, faultyCompression}));
    EXPECT_EQ(reading.position, 0);
}

TEST(ParseDomain, APointerToTheLimitItselfGivesPointerIsFaulty) {
    const DomainReading reading(dnsPointer(12 + 6) + "\1a" + std::string(2, '\0'));
    EXPECT_EQ(reading.domain, "(null)");
    EXPECT_EQ(reading.lines, (Lines{compressed, faultyPointer}));
    EXPECT_EQ(reading.position, 2) << "set before that check";
}

TEST(ParseDomain, AFirstLabelThatReachesBeyondTheLimitGivesPointerIsFaulty) {
    const DomainReading reading(dnsPointer(14) + "\5abcd");
    EXPECT_EQ(reading.domain, "(null)");
    EXPECT_EQ(reading.lines, (Lines{compressed, faultyPointer}));
}

TEST(ParseDomain, AFirstLabelThatReachesTheLimitGivesQuestionHeaderFaulty) {
    const DomainReading reading(dnsPointer(14) + "\4abcd");
    EXPECT_EQ(reading.domain, "(null)");
    EXPECT_EQ(reading.lines, (Lines{compressed, faultyQuestion}));
}

TEST(ParseDomain, ALabelAtOrBeyondTheLimitGivesQuestionHeaderFaulty) {
    for (const char* data : {"\4abcd", "\5abcd", "\1a\4abcd"}) {
        const DomainReading reading(data);
        EXPECT_EQ(reading.domain, "(null)");
        EXPECT_EQ(reading.lines, Lines{faultyQuestion});
        EXPECT_EQ(reading.position, 0);
    }
}

TEST(ParseDomain, ANameThatIsOnlyTheZeroByteIsNull) {
    const DomainReading reading(std::string(3, '\0'), 1);
    EXPECT_EQ(reading.domain, "(null)");
    EXPECT_EQ(reading.position, 1);
    EXPECT_TRUE(reading.lines.empty());
}

TEST(ParseDomain, APointerToTheZeroByteIsNull) {
    const DomainReading reading(dnsPointer(14) + std::string(2, '\0'));
    EXPECT_EQ(reading.domain, "(null)");
    EXPECT_EQ(reading.position, 2);
}

TEST(ParseDomain, APositionAtOrPastTheLimitIsNull) {
    for (const int position : {3, 4, 1000000, -1}) {
        const DomainReading reading("\1a\1", position);
        EXPECT_EQ(reading.domain, "(null)");
        EXPECT_EQ(reading.position, position);
        EXPECT_TRUE(reading.lines.empty());
    }
}

TEST(ParseDomain, HalfAPointerIsNull) {
    const DomainReading reading("\1a\xc0");
    EXPECT_EQ(reading.domain, "(null)");
    EXPECT_EQ(reading.lines, (Lines{compressed, faultyCompression}));
}

TEST(ParseDomain, HalfAPointerIsNullWhateverStandsBehindTheLimit) {
    const testsupport::CapturedLog log;
    std::string data = dnsName("a") + dnsPointer(12);
    int position = 3;
    EXPECT_EQ(parseDomain(reinterpret_cast<unsigned char*>(data.data()), &position, 4), nullptr);
    EXPECT_EQ(log.messages(), (Lines{compressed, faultyCompression}));
}

TEST(ParseDomain, ACircleOfPointersAndLabelsIsNull) {
    const DomainReading reading("\1a" + dnsPointer(12));
    EXPECT_EQ(reading.domain, "(null)");
    EXPECT_EQ(reading.lines.front(), compressed);
    EXPECT_EQ(reading.lines.back(), faultyCompression);
    EXPECT_LT(reading.lines.size(), 10u);
}

TEST(ParseDomain, ABitOfTheSameNameTwiceIsNoCircle) {
    // "b" is reached twice, by different ways.
    const std::string data = "\1b" + dnsPointer(12 + 4) + "\1a" + std::string(1, '\0');
    EXPECT_EQ(DomainReading(data).domain, "b.a");
}

} // namespace
