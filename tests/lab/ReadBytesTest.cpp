// The bytes that the daemon's readers go by, found by changing them.

#include "lab/ReadBytes.h"

#include "packet/TCPPacket.h"
#include "support/PacketBuilder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using lab::ReadBytes;
using testsupport::PacketBuilder;

// A packet in front of the room that the daemon's buffer has behind it.
std::vector<char> memoryOf(const std::string& packet) {
    std::vector<char> memory(TCPPacket::packetRoom);
    std::copy(packet.begin(), packet.end(), memory.begin());
    return memory;
}

std::vector<ReadBytes> readIn(const std::string& packet) {
    return lab::bytesReadIn(memoryOf(packet), packet.size());
}

std::string offsetsOf(const std::vector<ReadBytes>& read, char letter) {
    for (const ReadBytes& reader : read)
        if (reader.letter == letter) return lab::rangesOf(reader.offsets);
    return "left out";
}

TEST(ReadBytes, TheEndsAreAddressesAndPorts) {
    EXPECT_EQ(offsetsOf(readIn(PacketBuilder::ipv4().bytes()), 'e'), "0, 12-23");
    EXPECT_EQ(offsetsOf(readIn(PacketBuilder::ipv6().bytes()), 'e'), "8-43");
}

TEST(ReadBytes, APayloadsSizeHangsOnLengthAndBothHeaders) {
    EXPECT_EQ(offsetsOf(readIn(PacketBuilder::ipv4().payload("hello").bytes()), 's'), "0, 2-3, 32");
}

TEST(ReadBytes, AUrlHangsOnRequestLineAndHost) {
    const std::string get = "GET /a HTTP/1.1\r\nHost: b\r\nCookie: c\r\n\r\n";
    const std::vector<ReadBytes> read = readIn(PacketBuilder::ipv4().payload(get).bytes());
    ASSERT_EQ(read.back().letter, 'U');
    EXPECT_EQ(read.back().answer, "http://b/a");
    EXPECT_TRUE(std::count(read.back().offsets.begin(), read.back().offsets.end(), 40u)); // the G
    // The cookie is behind all that counts.
    EXPECT_LT(read.back().offsets.back(), 40 + get.find("Cookie"));
}

TEST(ReadBytes, OfAPacketThatCannotBeWorkedOnOnlyThatIsAsked) {
    const std::vector<ReadBytes> read = readIn(PacketBuilder::ipv4().udp().bytes());
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read[0].answer, "no");
    EXPECT_EQ(lab::rangesOf(read[0].offsets), "9"); // the protocol alone would make it another
}

TEST(ReadBytes, AByteBehindThePacketIsToldApart) {
    std::vector<char> memory = memoryOf(PacketBuilder::ipv4().bytes());
    const std::vector<ReadBytes> read = {{'U', "URL", "", {1, 44}}};
    const std::string view = lab::hexView(memory, 40, read);
    EXPECT_NE(view.find("(behind the packet)"), std::string::npos) << view;
    EXPECT_EQ(view.find("0010  "), std::string::npos) << view; // nothing is read there
    EXPECT_NE(view.find("      ...\n"), std::string::npos) << view;
}

TEST(ReadBytes, RangesAreShort) {
    EXPECT_EQ(lab::rangesOf({1, 2, 3, 7}), "1-3, 7");
    EXPECT_EQ(lab::rangesOf({}), "");
}

} // namespace
