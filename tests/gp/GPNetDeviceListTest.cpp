// The listing of the machine's interfaces, as the system hands it out.

#include "gp/GPArray.h"
#include "gp/GPNetDevice.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/CapturedLog.h"
#include "support/PlayedInterfaces.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testsupport::CapturedLog;
using testsupport::EntryBuilder;
using testsupport::PlayedInterfaces;

const std::string ethernetAddress("\x00\x1b\x63\x84\x45\xe6", 6);
constexpr const char* ethernetText = "00:1b:63:84:45:e6";

std::vector<std::string> texts(GPArray* owned) {
    auto array = Owned<GPArray>::adopt(owned);
    std::vector<std::string> all;
    for (int i = 0; i < array->count(); ++i)
        all.emplace_back(static_cast<GPString*>(array->objectAtIndex(i))->cstr());
    return all;
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

TEST(GPNetDeviceList, ReadsTheSystemAfreshAndClosesItsSocket) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(oneEthernet());
    auto devices = Owned<GPArray>::adopt(GPNetDevice::deviceList(GPIPTypeAny));
    EXPECT_EQ(devices->count(), 2);
    EXPECT_EQ(interfaces.closed(), std::vector<int>{70});

    interfaces.show(oneEthernet().ipv4("en5", "10.5.5.5"));
    EXPECT_EQ(Owned<GPArray>::adopt(GPNetDevice::deviceList(GPIPTypeAny))->count(), 3);
}

TEST(GPNetDeviceList, AnEmptyListingGivesAnEmptyArray) {
    PlayedInterfaces interfaces;
    interfaces.install();
    auto devices = Owned<GPArray>::adopt(GPNetDevice::deviceList(GPIPTypeAny));
    ASSERT_TRUE(devices);
    EXPECT_EQ(devices->count(), 0);
    EXPECT_EQ(interfaces.rooms(), std::vector<int>{512})
        << "a length of 0 equals the 0 before the first call";
    EXPECT_EQ(interfaces.closed(), std::vector<int>{70});
}

TEST(GPNetDeviceList, AsksWithMoreRoomUntilTwoLengthsAreEqual) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(EntryBuilder().ipv4("en0", "10.0.0.1"));
    Owned<GPArray>::adopt(GPNetDevice::deviceList(GPIPTypeAny));
    EXPECT_EQ(interfaces.rooms(), (std::vector<int>{512, 1024}));
}

TEST(GPNetDeviceList, AListingLargerThanTheFirstRoomsComesWhole) {
    PlayedInterfaces interfaces;
    interfaces.install();
    EntryBuilder many;
    for (int i = 0; i < 60; ++i) // 32 bytes each
        many.ipv4("en" + std::to_string(i), "10.0.0." + std::to_string(i));
    interfaces.show(many);
    EXPECT_EQ(Owned<GPArray>::adopt(GPNetDevice::deviceList(GPIPTypeV4))->count(), 60);
    EXPECT_EQ(interfaces.rooms(), (std::vector<int>{512, 1024, 1536, 2048, 2560}));
}

TEST(GPNetDeviceList, ADescriptorBelowOneGivesNull) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(oneEthernet());
    for (int descriptor : {0, -1}) {
        interfaces.giveDescriptor(descriptor);
        EXPECT_EQ(GPNetDevice::deviceList(GPIPTypeAny), nullptr);
    }
    EXPECT_TRUE(interfaces.rooms().empty());
    EXPECT_TRUE(interfaces.closed().empty());
}

TEST(GPNetDeviceList, AListingThatFailsGivesNullAndClosesTheSocket) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(oneEthernet());
    interfaces.failAtCall(1);
    EXPECT_EQ(GPNetDevice::deviceList(GPIPTypeAny), nullptr);
    interfaces.failAtCall(3);
    EXPECT_EQ(GPNetDevice::deviceList(GPIPTypeAny), nullptr);
    EXPECT_EQ(interfaces.closed(), (std::vector<int>{70, 70}));
}

TEST(GPNetDeviceGuard, ALengthAboveTheRoomIsCutToIt) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(EntryBuilder().ipv4("en0", "10.0.0.1"));
    interfaces.reportTooMuch(2000);
    auto devices = Owned<GPArray>::adopt(GPNetDevice::deviceList(GPIPTypeAny));
    ASSERT_TRUE(devices);
    EXPECT_EQ(devices->count(), 1);
}

TEST(GPNetDeviceList, AllAddressesOfAllDevicesAreCopiedWhateverTypeIsAskedFor) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(oneEthernet());
    const std::vector<std::string> all{"127.0.0.1", "::1", "fe80::1", "192.168.1.7"};
    EXPECT_EQ(texts(GPNetDevice::ipAddresses(GPIPTypeAny)), all);
    EXPECT_EQ(texts(GPNetDevice::ipAddresses(GPIPTypeV4)), all);
}

TEST(GPNetDeviceList, TheCapacityOfTheAddressesIsTwiceTheNumberOfDevices) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(EntryBuilder().ipv4("en0", "10.0.0.1"));
    EXPECT_EQ(Owned<GPArray>::adopt(GPNetDevice::ipAddresses(GPIPTypeAny))->arraySpace(), 2);
    EXPECT_EQ(Owned<GPArray>::adopt(GPNetDevice::macAddresses(GPIPTypeAny))->arraySpace(), 2);
}

TEST(GPNetDeviceList, HardwareAddressesLeaveOutLocalHostAndAreLogged) {
    CapturedLog log;
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(oneEthernet());
    EXPECT_EQ(texts(GPNetDevice::macAddresses(GPIPTypeV6)), std::vector<std::string>{ethernetText});
    EXPECT_EQ(log.messages(), std::vector<std::string>{std::string("device 1 en0 ") + ethernetText});
}

TEST(GPNetDeviceList, HardwareAddressesDoNotLeaveOutOtherDevicesWithAMeaninglessOne) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(oneEthernet().link("utun0").ipv4("utun0", "10.8.0.1"));
    EXPECT_EQ(texts(GPNetDevice::macAddresses(GPIPTypeAny)).size(), 2u);
}

TEST(GPNetDeviceGuard, WithoutAListingTheAddressesAreEmpty) {
    PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.giveDescriptor(-1);
    EXPECT_TRUE(texts(GPNetDevice::ipAddresses(GPIPTypeAny)).empty());
    EXPECT_TRUE(texts(GPNetDevice::macAddresses(GPIPTypeAny)).empty());
}

TEST(GPNetDeviceConvert, TreatsTheTextAsIPv4UnlessIPv6IsAskedFor) {
    auto ipv4 = Owned<GPString>::adopt(new GPString("127.0.0.1"));
    auto ipv6 = Owned<GPString>::adopt(new GPString("::1"));
    unsigned char bytes[16] = {};
    EXPECT_TRUE(GPNetDevice::convertIPToNetwork(GPIPTypeAny, ipv4.get(), bytes));
    EXPECT_EQ(bytes[0], 127);
    EXPECT_EQ(bytes[3], 1);
    EXPECT_FALSE(GPNetDevice::convertIPToNetwork(GPIPTypeAny, ipv6.get(), bytes));
    EXPECT_FALSE(GPNetDevice::convertIPToNetwork(GPIPTypeV4, ipv6.get(), bytes));
    EXPECT_FALSE(GPNetDevice::convertIPToNetwork(GPIPTypeV6, ipv4.get(), bytes));
    EXPECT_TRUE(GPNetDevice::convertIPToNetwork(GPIPTypeV6, ipv6.get(), bytes));
    EXPECT_EQ(bytes[15], 1);
}

} // namespace
