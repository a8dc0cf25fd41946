#include "gp/GPNetDevice.h"

#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/Objects.h"
#include "support/PlayedInterfaces.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using testsupport::EntryBuilder;

const std::string ethernetAddress("\x00\x1b\x63\x84\x45\xe6", 6);
constexpr const char* ethernetText = "00:1b:63:84:45:e6";

// The devices that a walk over the listing makes.
class Devices {
public:
    explicit Devices(const EntryBuilder& listing, GPIPType type = GPIPTypeAny)
        : Devices(listing.bytes(), type) {}

    // The bytes are put where every read beyond them is one beyond their allocation.
    Devices(const std::string& bytes, GPIPType type) {
        const std::vector<char> exact(bytes.begin(), bytes.end());
        array_ = Owned<GPArray>::adopt(
            GPNetDevice::devicesInEntries(exact.data(), static_cast<int>(exact.size()), type));
    }

    int count() { return array_->count(); }
    GPNetDevice* at(int index) { return static_cast<GPNetDevice*>(array_->objectAtIndex(index)); }

    // "name family mac address address", with "-" for no hardware address.
    std::string line(int index) {
        GPNetDevice* device = at(index);
        std::string all = std::string(device->adapterName()->cstr()) + " " +
                          std::to_string(device->addressFamily()) + " " +
                          (device->macAddress() ? device->macAddress()->cstr() : "-");
        for (int i = 0; i < device->ipAddresses()->count(); ++i)
            all += std::string(" ") + static_cast<GPString*>(device->ipAddresses()->objectAtIndex(i))->cstr();
        return all;
    }

private:
    Owned<GPArray> array_;
};

Owned<GPNetDevice> device(const char* name, const char* address = "10.0.0.2") {
    return Owned<GPNetDevice>::adopt(new GPNetDevice(name, address, 2));
}

EntryBuilder oneEthernet() {
    return EntryBuilder()
        .link("lo0")
        .ipv4("lo0", "127.0.0.1")
        .ipv6("lo0", "::1")
        .link("en0", ethernetAddress)
        .ipv6("en0", "fe80::1")
        .ipv4("en0", "192.168.1.7");
}

TEST(GPNetDevice, HoldsCopiesOfWhatItIsMadeOf) {
    auto one = device("en0");
    EXPECT_STREQ(one->adapterName()->cstr(), "en0");
    ASSERT_EQ(one->ipAddresses()->count(), 1);
    EXPECT_EQ(one->macAddress(), nullptr);
    EXPECT_EQ(one->addressFamily(), 2);
    EXPECT_STREQ(one->cclassName(), "GPNetDevice");
    EXPECT_STREQ(Owned<GPString>::adopt(one->className())->cstr(), "GPObject");
}

TEST(GPNetDevice, MadeOfAHardwareAddressTakesItsReferenceOverAndHasNothingElse) {
    auto* text = new GPString("00:00:00:00:00:01");
    text->retain();
    auto one = Owned<GPNetDevice>::adopt(new GPNetDevice(text));
    EXPECT_EQ(one->macAddress(), text);
    EXPECT_EQ(one->adapterName(), nullptr);
    EXPECT_EQ(one->ipAddresses(), nullptr);
    EXPECT_EQ(one->addressFamily(), 0);
    one = Owned<GPNetDevice>();
    EXPECT_EQ(testsupport::references(text), 1);
    text->release();
}

TEST(GPNetDevice, IsEthernetByTheFirstLettersOfItsName) {
    EXPECT_TRUE(device("en0")->isEthernet());
    EXPECT_TRUE(device("en12")->isEthernet());
    EXPECT_FALSE(device("lo0")->isEthernet());
    EXPECT_FALSE(device("utun0")->isEthernet());
}

TEST(GPNetDevice, IsEthernetWithAnEmptyNameSinceThePrefixRuleHoldsBothWays) {
    EXPECT_TRUE(device("")->isEthernet());
    EXPECT_TRUE(device("e")->isEthernet());
}

TEST(GPNetDevice, IsLocalHostWithTheIPv4LoopbackAmongItsAddresses) {
    Devices both(EntryBuilder().ipv4("lo0", "10.0.0.1").ipv6("lo0", "::1").ipv4("lo0", "127.0.0.1"));
    EXPECT_TRUE(both.at(0)->isLocalHost());
    Devices second(EntryBuilder().ipv4("lo0", "127.0.0.2"));
    EXPECT_FALSE(second.at(0)->isLocalHost());
}

TEST(GPNetDevice, IsNotLocalHostWithTheIPv6LoopbackAlone) {
    Devices devices(EntryBuilder().ipv6("lo0", "::1"));
    EXPECT_FALSE(devices.at(0)->isLocalHost());
}

TEST(GPNetDeviceWalk, ADeviceOfBothFamiliesHasFamilyZeroAndOneOfIPv4AloneHasTwo) {
    Devices devices(EntryBuilder().ipv4("en0", "10.0.0.1").ipv6("en0", "fe80::1").ipv4("en1", "10.0.0.2"));
    ASSERT_EQ(devices.count(), 2);
    EXPECT_EQ(devices.at(0)->addressFamily(), 0);
    EXPECT_EQ(devices.at(1)->addressFamily(), 2);
}

TEST(GPNetDeviceWalk, ADeviceOfIPv6AloneHasTheFamilyOfItsEntries) {
    Devices devices(EntryBuilder().ipv6("en0", "fe80::1").ipv6("en0", "2001:db8::7"));
    EXPECT_EQ(devices.at(0)->addressFamily(), 30);
}

TEST(GPNetDeviceWalk, AFamilyOfZeroStaysZero) {
    Devices devices(EntryBuilder().ipv4("en0", "10.0.0.1").ipv6("en0", "::2").ipv4("en0", "10.0.0.2"));
    EXPECT_EQ(devices.at(0)->addressFamily(), 0);
}

TEST(GPNetDeviceWalk, WithIPv4WantedAnInterfaceOfIPv6AloneIsNotInTheList) {
    Devices devices(
        EntryBuilder().link("en0", ethernetAddress).ipv6("en0", "fe80::1").ipv4("en1", "10.0.0.2"),
        GPIPTypeV4);
    ASSERT_EQ(devices.count(), 1);
    EXPECT_STREQ(devices.at(0)->adapterName()->cstr(), "en1");
}

TEST(GPNetDeviceWalk, WithIPv6WantedAnInterfaceOfIPv4AloneIsNotInTheList) {
    Devices devices(oneEthernet().ipv4("en9", "10.9.9.9"), GPIPTypeV6);
    ASSERT_EQ(devices.count(), 2);
    EXPECT_EQ(devices.line(1), std::string("en0 30 ") + ethernetText + " fe80::1");
}

TEST(GPNetDeviceWalk, TwoIPv4AddressesOnOneInterfaceGiveOneDeviceWithTwoAddresses) {
    Devices devices(
        EntryBuilder().link("en0", ethernetAddress).ipv4("en0", "10.0.0.1").ipv4("en0", "10.0.0.2"));
    ASSERT_EQ(devices.count(), 1);
    EXPECT_EQ(devices.line(0), std::string("en0 2 ") + ethernetText + " 10.0.0.1 10.0.0.2");
}

TEST(GPNetDeviceWalk, AnEthernetInterfaceTakesTheHardwareAddressOfItsLinkEntry) {
    Devices devices(oneEthernet());
    ASSERT_EQ(devices.count(), 2);
    EXPECT_EQ(devices.line(1), std::string("en0 0 ") + ethernetText + " fe80::1 192.168.1.7");
}

TEST(GPNetDeviceWalk, BehindALinkEntryAnUnwantedEntryGivesTheHardwareAddressAgain) {
    Devices devices(oneEthernet(), GPIPTypeV4);
    ASSERT_EQ(devices.count(), 2);
    EXPECT_EQ(devices.line(1), std::string("en0 2 ") + ethernetText + " 192.168.1.7");
}

TEST(GPNetDeviceWalk, ALinkEntryWithoutASixByteAddressGivesTheLeftoversOfTheWorkArea) {
    Devices first(EntryBuilder().link("lo0").ipv4("lo0", "127.0.0.1"));
    EXPECT_EQ(first.line(0), "lo0 2 00:00:00:00:00:00 127.0.0.1");

    // "10.0.0" in characters.
    Devices later(EntryBuilder().ipv4("en0", "10.0.0.1").link("utun0").ipv4("utun0", "10.8.0.1"));
    EXPECT_EQ(later.line(1), "utun0 2 31:30:2e:30:2e:30 10.8.0.1");
}

TEST(GPNetDeviceWalk, AnAddressEntryWithoutALinkEntryGetsTheCharactersOfItsOwnText) {
    Devices devices(EntryBuilder().ipv4("en0", "10.0.0.1"));
    EXPECT_EQ(devices.line(0), "en0 2 31:30:2e:30:2e:30 10.0.0.1");
}

TEST(GPNetDeviceWalk, TheWorkAreaIsClearedForEachAddress) {
    // The text of the second is shorter than the six bytes that are read of it.
    Devices devices(EntryBuilder().ipv4("en0", "10.123.0.1").ipv6("en1", "::1"));
    EXPECT_EQ(devices.line(1), "en1 30 3a:3a:31:00:00:00 ::1");
}

TEST(GPNetDeviceWalk, APendingTextGoesWhenAnEntryOfADeviceThatIsThereFollows) {
    // 17 is the family of a link on no system that lists an address in it.
    Devices devices(EntryBuilder()
                        .ipv4("lo0", "127.0.0.1")
                        .link("en0", ethernetAddress)
                        .raw("lo0", std::string("\x10\x11", 2))
                        .ipv4("en0", "10.0.0.1"));
    EXPECT_EQ(devices.line(1), "en0 2 31:30:2e:30:2e:30 10.0.0.1");
}

TEST(GPNetDeviceWalk, AnInterfaceWithoutAWantedAddressLeavesNoDeviceAndNoPendingText) {
    Devices devices(EntryBuilder()
                        .link("en0", "\x02\x02\x02\x02\x02\x02")
                        .link("en1", ethernetAddress)
                        .ipv4("en1", "10.0.0.1"));
    ASSERT_EQ(devices.count(), 1);
    EXPECT_EQ(devices.line(0), std::string("en1 2 ") + ethernetText + " 10.0.0.1");
}

TEST(GPNetDeviceWalk, APendingTextReplacesTheHardwareAddressOfADeviceThatHadOne) {
    Devices devices(EntryBuilder()
                        .link("en0", "\x02\x02\x02\x02\x02\x02")
                        .ipv4("en0", "10.0.0.1")
                        .link("en1", ethernetAddress)
                        .ipv4("en0", "10.0.0.2"));
    EXPECT_EQ(devices.line(0), std::string("en0 2 ") + ethernetText + " 10.0.0.1 10.0.0.2");
}

TEST(GPNetDeviceWalk, ALinkEntryBehindItsAddressesChangesNothing) {
    Devices devices(EntryBuilder()
                        .link("en0", ethernetAddress)
                        .ipv4("en0", "10.0.0.1")
                        .link("en0", "\x02\x02\x02\x02\x02\x02")
                        .ipv4("en1", "10.0.0.2"));
    EXPECT_EQ(devices.line(0), std::string("en0 2 ") + ethernetText + " 10.0.0.1");
    EXPECT_EQ(devices.line(1), "en1 2 31:30:2e:30:2e:30 10.0.0.2");
}

TEST(GPNetDeviceWalk, AnIPv4AddressWithSixAsItsThirdNumberIsReadAsALinkEntry) {
    // Byte 5 is 4, so six bytes come from place 12 of the socket address: four zeros of its own and the first
    // two characters of the next name.
    Devices devices(EntryBuilder().ipv4("en0", "10.4.6.1").ipv4("zz9", "10.0.0.2"));
    EXPECT_EQ(devices.line(0), "en0 2 00:00:00:00:7a:7a 10.4.6.1");
}

TEST(GPNetDeviceWalk, NamesAreComparedExactlyAndMayFillAllSixteenBytes) {
    Devices devices(EntryBuilder().ipv4("interface-of-016", "10.0.0.1").ipv4("interface-of-01", "10.0.0.2"));
    ASSERT_EQ(devices.count(), 2);
    EXPECT_STREQ(devices.at(0)->adapterName()->cstr(), "interface-of-016");
}

// An interface's link entry, its IPv6 and its IPv4 address, byte for byte as a Mac's kernel lays them out.
TEST(GPNetDeviceWalk, TheEntriesOfAMacAreReadByTheirBytes) {
    const std::string name("en0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16);
    const std::string link("\x14\x12\x04\x00\x06\x03\x06\x00"
                           "en0"
                           "\x00\x1b\x63\x84\x45\xe6\x00\x00\x00",
                           20);
    const std::string ipv6("\x1c\x1e\x00\x00\x00\x00\x00\x00"
                           "\xfe\x80\x00\x00\x00\x00\x00\x00\x02\x1b\x63\xff\xfe\x84\x45\xe6"
                           "\x04\x00\x00\x00",
                           28);
    const std::string ipv4("\x10\x02\x00\x00\xc0\xa8\x01\x07\0\0\0\0\0\0\0\0", 16);
    Devices devices(name + link + name + ipv6 + name + ipv4, GPIPTypeAny);
    ASSERT_EQ(devices.count(), 1);
    EXPECT_EQ(devices.line(0), "en0 0 00:1b:63:84:45:e6 fe80::21b:63ff:fe84:45e6 192.168.1.7");
}

TEST(GPNetDeviceWalk, EntriesOfOtherFamiliesAreSteppedOverByTheirLength) {
    std::string other(200, 'x');
    other[0] = static_cast<char>(200);
    other[1] = 33;
    Devices devices(
        EntryBuilder().raw("en0", other).raw("en0", std::string("\x08\x21", 2)).ipv4("en0", "10.0.0.1"));
    ASSERT_EQ(devices.count(), 1);
    EXPECT_EQ(devices.line(0).substr(0, 5), "en0 2");
}

TEST(GPNetDeviceWalk, DevicesBelongToTheArrayAlone) {
    Devices devices(oneEthernet());
    EXPECT_EQ(testsupport::references(devices.at(0)), 1);
    EXPECT_EQ(testsupport::references(devices.at(1)->macAddress()), 1);
    EXPECT_EQ(testsupport::references(devices.at(1)->ipAddresses()->objectAtIndex(0)), 1);
}

TEST(GPNetDeviceGuard, AHardwareAddressBeyondTheListingIsNotRead) {
    Devices offset(EntryBuilder().ipv4("en0", "10.200.6.1"));
    EXPECT_EQ(offset.line(0), "en0 2 31:30:2e:32:30:30 10.200.6.1");

    std::string link("\x14\x12\x01\x00\x06\xff\x06\x00", 8);
    Devices nameLength(EntryBuilder().raw("en0", link).ipv4("en0", "10.0.0.1"));
    EXPECT_EQ(nameLength.line(0), "en0 2 00:00:00:00:00:00 10.0.0.1");
}

TEST(GPNetDeviceGuard, AnIPv6AddressBeyondTheListingIsNotRead) {
    EntryBuilder listing;
    listing.raw("en0", std::string("\x10\x1e", 2));
    EXPECT_EQ(Devices(listing).count(), 0);
}

TEST(GPNetDeviceGuard, ALengthBeyondTheListingEndsTheWalk) {
    std::string bytes = EntryBuilder().ipv4("en0", "10.0.0.1").bytes();
    bytes[16] = static_cast<char>(255);
    Devices devices(bytes, GPIPTypeAny);
    ASSERT_EQ(devices.count(), 1);
    EXPECT_EQ(devices.at(0)->ipAddresses()->count(), 1);
}

TEST(GPNetDeviceGuard, AListingCutAnywhereIsReadAsFarAsItGoes) {
    const std::string whole = oneEthernet().bytes();
    int most = 0;
    for (std::size_t length = 0; length <= whole.size(); ++length)
        most = std::max(most, Devices(whole.substr(0, length), GPIPTypeAny).count());
    EXPECT_EQ(most, 2);
}

} // namespace
