#include "platform/InterfaceEntries.h"

#include "gp/GPArray.h"
#include "gp/GPNetDevice.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/linux/InterfaceEntryLayout.h"
#include "support/AllocationCounter.h"
#include "support/PlayedInterfaces.h"
#include "support/SystemCallFailure.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>

#include <arpa/inet.h>
#include <net/if.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>

namespace {

using platform::entriesInBSDForm;
using testsupport::EntryBuilder;

// A list such as getifaddrs makes: all links first, then the IPv4 and the IPv6 addresses.
class AddressList {
public:
    void link(const char* name, const std::string& hardwareAddress, unsigned flags = IFF_UP) {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = 1;
        address.sll_halen = static_cast<unsigned char>(hardwareAddress.size());
        std::memcpy(address.sll_addr, hardwareAddress.data(),
                    std::min(hardwareAddress.size(), sizeof address.sll_addr));
        add(name, flags, address);
    }

    void ipv4(const char* name, const char* printed) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        ASSERT_EQ(inet_pton(AF_INET, printed, &address.sin_addr), 1);
        add(name, IFF_UP, address);
    }

    void ipv6(const char* name, const char* printed) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        ASSERT_EQ(inet_pton(AF_INET6, printed, &address.sin6_addr), 1);
        add(name, IFF_UP, address);
    }

    void withoutAddress(const char* name) {
        nodes_.emplace_back();
        nodes_.back().entry.ifa_name = const_cast<char*>(name);
        chain();
    }

    std::string laidOut() const {
        std::string all;
        for (const std::string& one : entriesInBSDForm(nodes_.empty() ? nullptr : &nodes_.front().entry))
            all += one;
        return all;
    }

private:
    struct Node {
        ifaddrs entry{};
        sockaddr_storage address{};
    };

    template <class Address>
    void add(const char* name, unsigned flags, const Address& address) {
        nodes_.emplace_back();
        Node& node = nodes_.back();
        std::memcpy(&node.address, &address, sizeof address);
        node.entry.ifa_name = const_cast<char*>(name);
        node.entry.ifa_flags = flags;
        node.entry.ifa_addr = reinterpret_cast<sockaddr*>(&node.address);
        chain();
    }

    void chain() {
        if (nodes_.size() > 1) nodes_[nodes_.size() - 2].entry.ifa_next = &nodes_.back().entry;
    }

    std::deque<Node> nodes_;
};

TEST(InterfaceEntryLayout, PutsEachLinkAheadOfItsAddressesInTheBSDForm) {
    AddressList list;
    list.link("lo", std::string(6, '\0'), IFF_UP | IFF_LOOPBACK);
    list.link("eth0", "\x02\x42\x0a\x01\x02\x03");
    list.ipv4("lo", "127.0.0.1");
    list.ipv4("eth0", "10.1.2.3");
    list.ipv6("lo", "::1");
    list.ipv6("eth0", "fe80::1");

    std::string expected = EntryBuilder()
                               .link("lo")
                               .ipv4("lo", "127.0.0.1")
                               .ipv6("lo", "::1")
                               .link("eth0", "\x02\x42\x0a\x01\x02\x03")
                               .ipv4("eth0", "10.1.2.3")
                               .ipv6("eth0", "fe80::1")
                               .bytes();
    const std::size_t indexAndTypeOfLoopback = 18;
    std::memcpy(&expected[indexAndTypeOfLoopback], "\x01\x00\x18", 3);
    const std::size_t indexOfEthernet = 16 + 20 + 32 + 44 + 18;
    std::memcpy(&expected[indexOfEthernet], "\x01\x00", 2);
    EXPECT_EQ(list.laidOut(), expected);
}

TEST(InterfaceEntryLayout, ALinkHasTheNumberThatItsFamilyHasInBSD) {
    AddressList list;
    list.link("eth0", std::string(6, '\x7f'));
    EXPECT_EQ(list.laidOut()[16 + 1], 18);
}

TEST(InterfaceEntryLayout, ALoopbackHasNoHardwareAddress) {
    AddressList list;
    list.link("lo", std::string(6, '\0'), IFF_UP | IFF_LOOPBACK);
    EXPECT_EQ(list.laidOut()[16 + 6], 0);
}

TEST(InterfaceEntryLayout, AHardwareAddressOfAnotherLengthKeepsIt) {
    AddressList list;
    list.link("sit0", std::string(4, '\x7f'));
    EXPECT_EQ(list.laidOut()[16 + 6], 4);
}

TEST(InterfaceEntryLayout, OfAHardwareAddressThatIsLongerThanItsPlaceThereIsWhatThePlaceHolds) {
    AddressList list;
    list.link("ib0", std::string(20, '\x7f'));
    EXPECT_EQ(list.laidOut()[16 + 6], 8);
}

TEST(InterfaceEntryLayout, ALabelledAddressCountsAsOneOfItsInterface) {
    AddressList list;
    list.link("eth0", "\x02\x42\x0a\x01\x02\x03");
    list.ipv4("eth0", "10.1.2.3");
    list.ipv4("eth0:1", "10.1.2.4");
    const std::string bytes = list.laidOut();
    auto devices = Owned<GPArray>::adopt(
        GPNetDevice::devicesInEntries(bytes.data(), static_cast<int>(bytes.size()), GPIPTypeAny));
    ASSERT_EQ(devices->count(), 1);
    auto* device = static_cast<GPNetDevice*>(devices->objectAtIndex(0));
    EXPECT_EQ(device->ipAddresses()->count(), 2);
    EXPECT_STREQ(device->macAddress()->cstr(), "02:42:0a:01:02:03");
}

TEST(InterfaceEntryLayout, LongNamesAndInterfacesWithoutAddressesAreLaidOutSafely) {
    AddressList list;
    list.withoutAddress("tun0");
    list.link("fifteen-letters", "\x02\x42\x0a\x01\x02\x03");
    list.ipv4("fifteen-letters", "10.1.2.3");
    const std::string bytes = list.laidOut();
    EXPECT_EQ(bytes.size(), 16u + 32u + 32u) << "8, 15 and 6 bytes round up to 32";
    EXPECT_EQ(bytes.substr(16 + 8, 15), "fifteen-letters");
    EXPECT_EQ(bytes.substr(16 + 8 + 15, 6), "\x02\x42\x0a\x01\x02\x03");
}

TEST(InterfaceEntries, OfThisSystemHoldTheLoopback) {
    platform::interfaceEntriesService.install(platform::systemInterfaceEntries());
    auto devices = Owned<GPArray>::adopt(GPNetDevice::deviceList(GPIPTypeV4));
    ASSERT_TRUE(devices);
    int localHosts = 0;
    for (int i = 0; i < devices->count(); ++i)
        if (static_cast<GPNetDevice*>(devices->objectAtIndex(i))->isLocalHost()) ++localHosts;
    EXPECT_EQ(localHosts, 1);
}

TEST(InterfaceEntries, OfThisSystemThatCannotBeListedAreAFailure) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        ASSERT_TRUE(testsupport::failSystemCall(SYS_socket, EMFILE, AF_NETLINK));
        char buffer[512];
        int length = sizeof buffer;
        EXPECT_FALSE(platform::systemInterfaceEntries().list(0, buffer, length));
    }));
}

TEST(InterfaceEntries, OfThisSystemLeaveNothingBehind) {
    char buffer[4096];
    const auto list = [&] {
        int length = sizeof buffer;
        const int socket = platform::systemInterfaceEntries().open();
        EXPECT_TRUE(platform::systemInterfaceEntries().list(socket, buffer, length));
        platform::systemInterfaceEntries().close(socket);
        EXPECT_EQ(fcntl(socket, F_GETFD), -1);
    };
    list();
    const testsupport::AllocationCounter allocations;
    list();
    EXPECT_EQ(allocations.left(), 0);
}

TEST(InterfaceEntries, OfThisSystemAreWholeHoweverSmallTheBuffer) {
    platform::InterfaceEntries& system = platform::systemInterfaceEntries();
    const int socket = system.open();
    ASSERT_GT(socket, 0);
    for (int room : {0, 35, 36, 40, 512}) {
        std::string buffer(static_cast<std::size_t>(room), '\0');
        int length = room;
        ASSERT_TRUE(system.list(socket, &buffer[0], length));
        EXPECT_LE(length, room);
        for (int at = 0; at < length;) {
            ASSERT_LE(at + 32, length);
            at += 16 + std::max(16, static_cast<int>(static_cast<unsigned char>(buffer[at + 16])));
            ASSERT_LE(at, length) << "an entry is cut";
        }
    }
    system.close(socket);
}

} // namespace
