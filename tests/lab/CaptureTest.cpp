#include "lab/Capture.h"
#include "lab/Policy.h"

#include "lab/LabCaptures.h"
#include "support/PacketBuilder.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <string>
#include <vector>

namespace {

using lab::CapturedPacket;
using lab::InputError;
using labtest::CaptureWriter;
using labtest::Talk;
using testsupport::PacketBuilder;

std::string textOf(const CapturedPacket& packet) { return {packet.bytes.begin(), packet.bytes.end()}; }

class CaptureTest : public testing::Test {
protected:
    std::string path() const { return folder_.file("test.pcap"); }

    // Writes a capture of these records, a second apart.
    void write(int linkType, const std::vector<std::string>& records) {
        CaptureWriter writer(path(), linkType);
        for (std::size_t i = 0; i < records.size(); ++i)
            writer.add(static_cast<double>(i), records[i]);
    }

    std::vector<CapturedPacket> packets() {
        lab::Capture capture(path());
        std::vector<CapturedPacket> all;
        for (CapturedPacket packet; capture.next(packet);)
            all.push_back(packet);
        return all;
    }

    // The only packet of a capture that holds this record.
    std::string onlyPacket(int linkType, const std::string& record) {
        write(linkType, {record});
        const auto all = packets();
        return all.size() == 1 ? textOf(all[0]) : std::to_string(all.size()) + " packets";
    }

    std::size_t packetCount(int linkType, const std::string& record) {
        write(linkType, {record});
        return packets().size();
    }

    std::string error() {
        try {
            packets();
        } catch (const InputError& error) {
            return error.what();
        }
        return "";
    }

    const std::string ipv4_ = PacketBuilder::ipv4().payload("four").bytes();
    const std::string ipv6_ = PacketBuilder::ipv6().payload("six").bytes();
    testsupport::TemporaryFolder folder_;
};

const std::string macs(12, '\x02');
const std::string typeIpv4("\x08\x00", 2);
const std::string typeIpv6("\x86\xdd", 2);

TEST_F(CaptureTest, EthernetCarriesBothVersions) {
    EXPECT_EQ(onlyPacket(DLT_EN10MB, macs + typeIpv4 + ipv4_), ipv4_);
    EXPECT_EQ(onlyPacket(DLT_EN10MB, macs + typeIpv6 + ipv6_), ipv6_);
}

TEST_F(CaptureTest, VlanTagsAreSkippedAlsoSeveral) {
    const std::string tag("\x81\x00\x00\x05", 4), service("\x88\xa8\x00\x07", 4), old("\x91\x00\x00\x07", 4);
    EXPECT_EQ(onlyPacket(DLT_EN10MB, macs + tag + typeIpv4 + ipv4_), ipv4_);
    EXPECT_EQ(onlyPacket(DLT_EN10MB, macs + service + tag + typeIpv6 + ipv6_), ipv6_);
    EXPECT_EQ(onlyPacket(DLT_EN10MB, macs + old + service + tag + typeIpv4 + ipv4_), ipv4_);
}

TEST_F(CaptureTest, RawIpCarriesBothVersions) {
    EXPECT_EQ(onlyPacket(DLT_RAW, ipv4_), ipv4_);
    EXPECT_EQ(onlyPacket(DLT_RAW, ipv6_), ipv6_);
    EXPECT_EQ(onlyPacket(DLT_IPV4, ipv4_), ipv4_);
    EXPECT_EQ(onlyPacket(DLT_IPV6, ipv6_), ipv6_);
}

TEST_F(CaptureTest, LinuxCookedHasItsTypeAtTheEndAndMayHaveVlanTags) {
    const std::string cooked(14, '\0'), tag("\x81\x00\x00\x05", 4);
    EXPECT_EQ(onlyPacket(DLT_LINUX_SLL, cooked + typeIpv4 + ipv4_), ipv4_);
    EXPECT_EQ(onlyPacket(DLT_LINUX_SLL, cooked + typeIpv6 + ipv6_), ipv6_);
    EXPECT_EQ(onlyPacket(DLT_LINUX_SLL, cooked + tag + typeIpv4 + ipv4_), ipv4_);
}

TEST_F(CaptureTest, TheSecondLinuxCookedFormHasItsTypeInFront) {
    const std::string rest(18, '\0');
    EXPECT_EQ(onlyPacket(DLT_LINUX_SLL2, typeIpv4 + rest + ipv4_), ipv4_);
    EXPECT_EQ(onlyPacket(DLT_LINUX_SLL2, typeIpv6 + rest + ipv6_), ipv6_);
}

TEST_F(CaptureTest, LoopbackIsReadByTheVersionWhateverTheFamilyNumber) {
    const std::string ofLinux("\x0a\0\0\0", 4), mac("\x1e\0\0\0", 4), network("\0\0\0\x02", 4);
    EXPECT_EQ(onlyPacket(DLT_NULL, ofLinux + ipv6_), ipv6_);
    EXPECT_EQ(onlyPacket(DLT_NULL, mac + ipv6_), ipv6_);
    EXPECT_EQ(onlyPacket(DLT_LOOP, network + ipv4_), ipv4_);
}

TEST_F(CaptureTest, WhatIsNotIpIsLeftOut) {
    const std::string arp("\x08\x06", 2), tag("\x81\x00\x00\x05", 4);
    EXPECT_EQ(packetCount(DLT_EN10MB, macs + arp + std::string(46, '\0')), 0u);
    EXPECT_EQ(packetCount(DLT_EN10MB, macs + tag + arp + std::string(46, '\0')), 0u);
    EXPECT_EQ(packetCount(DLT_LINUX_SLL, std::string(14, '\0') + arp + std::string(28, '\0')), 0u);
    EXPECT_EQ(packetCount(DLT_LINUX_SLL2, arp + std::string(46, '\0')), 0u);
    EXPECT_EQ(packetCount(DLT_RAW, "\x50" + ipv4_.substr(1)), 0u);
}

TEST_F(CaptureTest, WhatIsTooShortForAHeaderIsLeftOut) {
    for (const std::string& record :
         {std::string(), macs, macs + typeIpv4, macs + typeIpv4 + "\x45",
          macs + typeIpv4 + ipv4_.substr(0, 19), macs + typeIpv6 + ipv6_.substr(0, 39),
          macs + std::string("\x81\x00\x00", 3)})
        EXPECT_EQ(packetCount(DLT_EN10MB, record), 0u) << record.size();
    EXPECT_EQ(packetCount(DLT_NULL, std::string("\x02\0\0", 3)), 0u);
    EXPECT_EQ(packetCount(DLT_LINUX_SLL2, typeIpv4 + std::string(17, '\0')), 0u);
}

TEST_F(CaptureTest, AnIpv4HeaderThatCannotBeIsLeftOut) {
    EXPECT_EQ(packetCount(DLT_RAW, "\x44" + ipv4_.substr(1)), 0u);
    EXPECT_EQ(packetCount(DLT_RAW, PacketBuilder::ipv4().put(2, std::string("\0\x13", 2)).bytes()), 0u);
}

TEST_F(CaptureTest, PaddingIsCut) {
    EXPECT_EQ(onlyPacket(DLT_EN10MB, macs + typeIpv4 + ipv4_ + std::string(20, 'p')), ipv4_);
    EXPECT_EQ(onlyPacket(DLT_EN10MB, macs + typeIpv6 + ipv6_ + std::string(20, 'p')), ipv6_);
}

TEST_F(CaptureTest, BytesThatTheCaptureCutOffAreZero) {
    const std::string packet = PacketBuilder::ipv4().payload(std::string(100, 'x')).bytes();
    { CaptureWriter(path()).add(0, packet.substr(0, 60), packet.size()); }
    const auto all = packets();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(textOf(all[0]), packet.substr(0, 60) + std::string(80, '\0'));
}

TEST_F(CaptureTest, PacketsCountFromOneWithThoseThatAreLeftOut) {
    const std::string arp = macs + "\x08\x06" + std::string(46, '\0');
    write(DLT_EN10MB, {arp, macs + typeIpv4 + ipv4_, arp, macs + typeIpv6 + ipv6_});
    const auto all = packets();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].number, 2);
    EXPECT_EQ(all[1].number, 4);
    EXPECT_EQ(all[1].time, (CaptureWriter::startSecond + 3) * 1000000);
    EXPECT_EQ(lab::survey(path()).records, 4);
}

TEST_F(CaptureTest, EndsAndFlagsOfATcpPacketAreRead) {
    write(DLT_RAW, {Talk(50001).out(labtest::syn), Talk(50001).in(labtest::synAck),
                    Talk(50001, true).out(labtest::finAck), Talk(50001).in(labtest::reset)});
    const auto all = packets();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0].source.text(), "10.0.0.2:50001");
    EXPECT_EQ(all[0].destination.text(), "93.184.216.34:80");
    EXPECT_TRUE(all[0].syn && !all[0].ack && !all[0].fin && !all[0].rst);
    EXPECT_TRUE(all[1].syn && all[1].ack);
    EXPECT_EQ(all[2].source.text(), "[2001:db8::2]:50001");
    EXPECT_EQ(all[2].destination.text(), "[2001:db8::22]:80");
    EXPECT_TRUE(all[2].fin && all[2].ack);
    EXPECT_TRUE(all[3].rst && !all[3].ack);
}

TEST_F(CaptureTest, Ipv4OptionsAreSteppedOver) {
    write(DLT_RAW, {PacketBuilder::ipv4().ipOptions(2).from("10.0.0.2", 1234).bytes()});
    EXPECT_EQ(packets().at(0).source.text(), "10.0.0.2:1234");
}

TEST_F(CaptureTest, UdpHasPortsAndOtherProtocolsHaveNone) {
    write(DLT_RAW, {PacketBuilder::ipv4().udp().from("10.0.0.2", 53).bytes(),
                    PacketBuilder::ipv4().protocol(1).bytes()});
    const auto all = packets();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].protocol, 17);
    EXPECT_EQ(all[0].source.text(), "10.0.0.2:53");
    EXPECT_FALSE(all[1].hasPorts);
    EXPECT_EQ(all[1].source.text(), "10.0.0.2");
}

TEST_F(CaptureTest, ALaterFragmentHasNoPorts) {
    write(DLT_RAW, {PacketBuilder::ipv4().put(6, std::string("\x00\x01", 2)).bytes(),
                    PacketBuilder::ipv4().put(6, std::string("\x20\x00", 2)).bytes()});
    const auto all = packets();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_FALSE(all[0].hasPorts);
    EXPECT_TRUE(all[1].hasPorts);
}

TEST_F(CaptureTest, Ipv6ExtensionHeadersAreSteppedOver) {
    enum { hopByHop = 0, routing = 43, fragment = 44, authentication = 51, destination = 60 };
    write(DLT_RAW, {PacketBuilder::ipv6().extension(hopByHop, 0).from("2001:db8::2", 1001).bytes(),
                    PacketBuilder::ipv6()
                        .extension(routing, 2)
                        .extension(destination, 1)
                        .extension(fragment, 0)
                        .from("2001:db8::2", 1002)
                        .bytes()});
    const auto all = packets();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].protocol, 6);
    EXPECT_EQ(all[0].source.text(), "[2001:db8::2]:1001");
    EXPECT_EQ(all[1].protocol, 6);
    EXPECT_EQ(all[1].source.text(), "[2001:db8::2]:1002");
}

// Authentication headers count their length in 32-bit words, minus two.
TEST_F(CaptureTest, AnIpv6AuthenticationHeaderIsMeasuredInWords) {
    std::string packet = PacketBuilder::ipv6().from("2001:db8::2", 1003).bytes();
    const std::string header("\x06\x01\0\0\0\0\0\0\0\0\0\0", 12);
    packet.insert(40, header);
    packet[5] = static_cast<char>(packet[5] + 12);
    packet[6] = 51;
    write(DLT_RAW, {packet});
    EXPECT_EQ(packets().at(0).source.text(), "[2001:db8::2]:1003");
}

TEST_F(CaptureTest, ALaterIpv6FragmentHasNoPorts) {
    const std::string later =
        PacketBuilder::ipv6().extension(44, 0).put(42, std::string("\x00\x08", 2)).bytes();
    write(DLT_RAW, {later});
    EXPECT_FALSE(packets().at(0).hasPorts);
}

TEST_F(CaptureTest, AnIpv6ExtensionThatLeadsOutOfThePacketLeavesThePortsOut) {
    write(DLT_RAW, {PacketBuilder::ipv6().extension(60, 0).put(41, "\xff").bytes()});
    const auto all = packets();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_FALSE(all[0].hasPorts);
}

// A field of the netfilter log: length, kind, content, and what fills it up to four bytes.
std::string logField(std::uint16_t kind, const std::string& content) {
    const auto length = static_cast<std::uint16_t>(4 + content.size());
    std::string field(reinterpret_cast<const char*>(&length), 2);
    field.append(reinterpret_cast<const char*>(&kind), 2);
    return field + content + std::string((4 - content.size() % 4) % 4, '\0');
}

TEST_F(CaptureTest, TheNetfilterLogHasThePacketBehindItsOtherFields) {
    const std::string head("\x02\0\0\x05", 4);
    EXPECT_EQ(onlyPacket(DLT_NFLOG, head + logField(10, "out") + logField(5, "1234") + logField(9, ipv4_)),
              ipv4_);
}

TEST_F(CaptureTest, ANetfilterLogWithoutAPacketOrWithAnImpossibleFieldHasNone) {
    const std::string head("\x02\0\0\x05", 4);
    EXPECT_EQ(packetCount(DLT_NFLOG, head), 0u);
    EXPECT_EQ(packetCount(DLT_NFLOG, head + logField(10, "out")), 0u);
    EXPECT_EQ(packetCount(DLT_NFLOG, head + std::string("\3\0\x0a\0", 4) + logField(9, ipv4_)), 0u);
}

TEST_F(CaptureTest, ATruncatedFileIsAnErrorThatNamesFileAndPacket) {
    write(DLT_RAW, {ipv4_, ipv4_});
    const std::string whole = testsupport::readAll(path());
    testsupport::writeAll(path(), whole.substr(0, whole.size() - 5));
    EXPECT_EQ(error().rfind(path() + ": packet 2: truncated dump file", 0), 0u) << error();
    EXPECT_THROW(lab::survey(path()), InputError);
}

TEST_F(CaptureTest, AnUnknownLinkTypeIsAnErrorThatNamesIt) {
    write(DLT_IEEE802_11, {});
    EXPECT_EQ(error(), path() + ": link type 105 (IEEE802_11) cannot be replayed; Ethernet, raw IP, Linux "
                                "cooked, loopback and netfilter log can");
}

TEST_F(CaptureTest, AFileThatIsNotThereIsAnErrorThatNamesItOnce) {
    EXPECT_EQ(error(), path() + ": No such file or directory");
}

TEST_F(CaptureTest, WhatIsNoCaptureAtAllIsAnErrorThatNamesTheFile) {
    testsupport::writeAll(path(), "this is a shopping list, long enough to hold a file header");
    EXPECT_EQ(error(), path() + ": unknown file format");
    testsupport::writeAll(path(), "");
    EXPECT_EQ(error().rfind(path() + ": ", 0), 0u) << error();
}

TEST_F(CaptureTest, AFolderAndStandardInputAreNoCaptures) {
    EXPECT_THROW(
        {
            try {
                lab::Capture capture(folder_.path());
            } catch (const InputError& error) {
                EXPECT_EQ(error.what(), folder_.path() + ": not a regular file");
                throw;
            }
        },
        InputError);
    EXPECT_THROW(lab::Capture("-"), InputError);
}

TEST_F(CaptureTest, AnImpossibleTimeIsAnErrorThatNamesThePacket) {
    // A pcapng file whose interface counts whole seconds, and a packet at second 2^40.
    const std::string section("\x0a\x0d\x0d\x0a\x1c\0\0\0\x4d\x3c\x2b\x1a\x01\0\0\0"
                              "\xff\xff\xff\xff\xff\xff\xff\xff\x1c\0\0\0",
                              28);
    const std::string interface(
        "\x01\0\0\0\x20\0\0\0\x65\0\0\0\0\0\0\0\x09\0\x01\0\0\0\0\0\0\0\0\0\x20\0\0\0", 32);
    const std::string packet("\x06\0\0\0\x24\0\0\0\0\0\0\0\0\x01\0\0\0\0\0\0\x04\0\0\0\x04\0\0\0"
                             "\x45\0\0\0\x24\0\0\0",
                             36);
    testsupport::writeAll(path(), section + interface + packet);
    EXPECT_EQ(error(), path() + ": packet 1: its time cannot be");
}

TEST_F(CaptureTest, MicrosecondsThatAreNoPartOfASecondAreAnImpossibleTime) {
    // A pcap file of raw IP packets, and one at second 1 and 2^31 microseconds.
    const std::string head("\xd4\xc3\xb2\xa1\x02\0\x04\0\0\0\0\0\0\0\0\0\xff\xff\0\0\x65\0\0\0", 24);
    const std::string packet("\x01\0\0\0\0\0\0\x80\x14\0\0\0\x14\0\0\0", 16);
    testsupport::writeAll(path(),
                          head + packet + "\x45" + std::string(2, '\0') + "\x14" + std::string(16, '\0'));
    EXPECT_EQ(error(), path() + ": packet 1: its time cannot be");
}

TEST_F(CaptureTest, ThisComputerIsTheSenderOfTheFirstSynWithoutAck) {
    write(DLT_RAW, {Talk(50001).in(labtest::ack), Talk(50001).in(labtest::synAck),
                    Talk(50001).out(labtest::syn), Talk(50001).in(labtest::syn)});
    EXPECT_EQ(lab::Endpoint({lab::survey(path()).computers[0], 0}).text(), "10.0.0.2");
}

TEST_F(CaptureTest, WithoutASynItIsTheReceiverOfTheFirstSynAck) {
    write(DLT_RAW, {Talk(50001).in(labtest::ack), Talk(50001).in(labtest::synAck)});
    EXPECT_EQ(lab::Endpoint({lab::survey(path()).computers[0], 0}).text(), "10.0.0.2");
}

TEST_F(CaptureTest, WithoutAHandshakeItIsTheSenderOfTheFirstPacket) {
    write(DLT_RAW, {Talk(50001).in(labtest::ack), Talk(50001).out(labtest::ack)});
    EXPECT_EQ(lab::Endpoint({lab::survey(path()).computers[0], 0}).text(), "93.184.216.34");
}

TEST_F(CaptureTest, EachAddressFamilyHasItsOwnComputer) {
    write(DLT_RAW, {Talk(50001, true).in(labtest::ack), Talk(50001).out(labtest::syn),
                    Talk(50001, true).in(labtest::synAck)});
    const lab::CaptureFacts facts = lab::survey(path());
    EXPECT_EQ(lab::Endpoint({facts.computers[0], 0}).text(), "10.0.0.2");
    EXPECT_EQ(lab::Endpoint({facts.computers[1], 0}).text(), "[2001:db8::2]");
}

TEST_F(CaptureTest, ACaptureWithoutIpHasNoComputerAndNoTime) {
    write(DLT_EN10MB, {macs + "\x08\x06" + std::string(46, '\0')});
    const lab::CaptureFacts facts = lab::survey(path());
    EXPECT_EQ(facts.firstTime, 0);
    EXPECT_EQ(facts.computers[0] + facts.computers[1], "");
    EXPECT_EQ(facts.records, 1);
}

} // namespace
