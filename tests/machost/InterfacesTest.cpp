// The list of interfaces in the Mac's form, of a list in this system's.

#include "machost/world/Interfaces.h"
#include "machost/libsystem/SocketLayouts.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netpacket/packet.h>

#include <cstring>
#include <deque>
#include <vector>

namespace {

namespace mac = machost::libsystem::mac;
using namespace std::string_literals;

// A list as getifaddrs gives it.
class AddressList {
public:
    void addLink(const char* name, std::uint16_t kind, unsigned char addressLength, unsigned flags = 0) {
        sockaddr_ll link{};
        link.sll_family = AF_PACKET;
        link.sll_ifindex = 7;
        link.sll_hatype = kind;
        link.sll_halen = addressLength;
        std::memcpy(link.sll_addr, "\x02\x11\x22\x33\x44\x55", 6);
        add(name, &link, sizeof link, flags);
    }

    void addIPv4(const char* name, const char* text) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, text, &address.sin_addr);
        add(name, &address, sizeof address, 0);
    }

    const ifaddrs* first() const { return entries_.empty() ? nullptr : &entries_.front(); }

private:
    void add(const char* name, const void* address, std::size_t size, unsigned flags) {
        std::memcpy(&addresses_.emplace_back(), address, size);
        ifaddrs& entry = entries_.emplace_back();
        entry.ifa_name = const_cast<char*>(name);
        entry.ifa_flags = flags;
        entry.ifa_addr = reinterpret_cast<sockaddr*>(&addresses_.back());
        if (entries_.size() > 1) entries_[entries_.size() - 2].ifa_next = &entry;
    }

    std::deque<sockaddr_storage> addresses_;
    std::deque<ifaddrs> entries_;
};

struct Entry {
    std::string name;
    mac::AddressLink address; // or the start of another
    std::string bytes;
};

std::vector<Entry> entriesOf(const AddressList& list) {
    const std::string all = machost::world::interfacesInMacForm(list.first());
    std::vector<Entry> entries;
    for (std::size_t at = 0; at < all.size();) {
        Entry entry;
        entry.name = all.substr(at, mac::interfaceNameSize).c_str();
        const std::string address = all.substr(at + mac::interfaceNameSize);
        entry.bytes = address.substr(0, static_cast<std::uint8_t>(address[0]));
        std::memcpy(&entry.address, entry.bytes.data(), std::min(sizeof entry.address, entry.bytes.size()));
        at += mac::interfaceNameSize + std::max(entry.bytes.size(), sizeof(mac::Address));
        entries.push_back(entry);
    }
    return entries;
}

TEST(MachineInterfaces, HaveALinkWithTheirNameAndAddressOneBehindTheOther) {
    AddressList list;
    list.addLink("eth0", ARPHRD_ETHER, 6);
    const auto entries = entriesOf(list);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].address.family, 18);
    EXPECT_EQ(entries[0].address.index, 7);
    EXPECT_EQ(entries[0].address.type, 6);
    EXPECT_EQ(entries[0].bytes.substr(8, 10), "eth0\x02\x11\x22\x33\x44\x55");
    EXPECT_EQ(entries[0].address.length, 20);
}

TEST(MachineInterfaces, FillALongLinkUpToWholeWords) {
    AddressList list;
    list.addLink("interface0", ARPHRD_ETHER, 6);
    EXPECT_EQ(entriesOf(list).at(0).address.length, 24);
    list.addLink("interface00", ARPHRD_ETHER, 6);
    EXPECT_EQ(entriesOf(list).at(1).address.length, 28);
}

TEST(MachineInterfaces, TellTheirKindByTheirFlagsAndTheAddressesLength) {
    AddressList list;
    list.addLink("lo", ARPHRD_LOOPBACK, 6, IFF_LOOPBACK);
    list.addLink("wlan0", ARPHRD_IEEE80211, 6);
    list.addLink("tun0", ARPHRD_NONE, 0);
    const auto entries = entriesOf(list);
    EXPECT_EQ(entries.at(0).address.type, 24);
    EXPECT_EQ(entries.at(0).address.addressLength, 0);
    EXPECT_EQ(entries.at(1).address.type, 6);
    EXPECT_EQ(entries.at(1).address.addressLength, 6);
    EXPECT_EQ(entries.at(2).address.type, 1);
}

TEST(MachineInterfaces, HaveTheAddressesOfTheirLabelsToo) {
    AddressList list;
    list.addLink("eth0", ARPHRD_ETHER, 6);
    list.addLink("eth01", ARPHRD_ETHER, 6);
    list.addIPv4("eth0", "192.0.2.1");
    list.addIPv4("eth0:1", "192.0.2.2");
    const auto entries = entriesOf(list);
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[2].name, "eth0");
    EXPECT_EQ(entries[2].bytes.substr(4, 4), "\xc0\x00\x02\x02"s);
    EXPECT_EQ(entries[3].name, "eth01");
}

} // namespace
