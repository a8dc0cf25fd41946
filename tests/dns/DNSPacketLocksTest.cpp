// The locks of the DNS tables: what waits at which of them, and what no lock is held across.

#include "config/Configuration.h"
#include "dns/DNSPacket.h"
#include "platform/NameLookup.h"
#include "support/DnsMessageBuilder.h"
#include "support/DnsWorld.h"
#include "support/HeldLocks.h"
#include "support/LivingObjects.h"

#include <algorithm>
#include <functional>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using testsupport::DnsMessageBuilder;
using testsupport::firstLockOf;
using testsupport::locksTakenBy;
using testsupport::objectsLeftBy;
using testsupport::StoppedAtLock;
using Lines = std::vector<std::string>;
using Locks = std::vector<const GPMutex*>;

class DnsLocks : public testsupport::DnsWorld {
protected:
    DnsLocks() {
        givenFile("<Fernhill><MachineUUID>0123-4567</MachineUUID></Fernhill>");
        Configuration::loadConfig();
    }

    static void asks(const std::string& host) {
        auto packet = DnsMessageBuilder().question(host).answer().ipv4().build();
        DNSPacket::remap(packet.packet(), nullptr);
    }

    static const GPMutex* tablesLock() {
        return firstLockOf([] { DNSPacket::clearHostsDnsRemaps(); });
    }

    static const GPMutex* addressesLock() {
        return firstLockOf([] { DNSPacket::isSslIp(1); });
    }
};

// Names that all have one address, and the count of locks that are held at each look-up.
class WatchingNames final : public platform::NameLookup {
public:
    std::vector<std::size_t> held;

    bool gethostbyname2(const char*, int, platform::HostEntry& entry) override {
        held.push_back(testsupport::heldLocks().size());
        entry.addresses = {std::string("\xc0\x00\x02\x01", 4)};
        return true;
    }
    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }
};

TEST_F(DnsLocks, EveryUseOfTheTablesWaitsForTheirLock) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    const std::vector<std::function<void()>> uses = {
        [] { remaps(); },
        [] { asks("www.bing.com"); },
        [] { DNSPacket::resolveRedirectIP(); },
        [] { setRemaps({"one.test,safe.test"}); },
        [] { setRemaps({}); },
        [] { DNSPacket::checkHostsFile(); },
        [] { DNSPacket::removeHostsFile(); },
        [] { DNSPacket::clearHostsDnsRemaps(); },
        [] { DNSPacket::runDnsApiCheckin(); },
    };
    for (std::size_t i = 0; i < uses.size(); ++i) {
        StoppedAtLock stopped(tablesLock(), uses[i]);
        EXPECT_TRUE(stopped.waits()) << i;
    }
}

TEST_F(DnsLocks, ATableIsDescribedWholeUnderItsLock) {
    givenTables();
    beVerbose();
    StoppedAtLock stopped(tablesLock(), [] { remaps(); });
    ASSERT_TRUE(stopped.waits());
    EXPECT_EQ(logged(), Lines{});
    stopped.letGo();
    EXPECT_EQ(logged(), (Lines{"addDomDnsRemap map->count() = 10", "addDomDnsRemap counts = 10"}));
}

TEST_F(DnsLocks, WhoAsksForAnAddressWaitsForTheAddressesAlone) {
    givenTables();
    ASSERT_NE(addressesLock(), tablesLock());
    StoppedAtLock free(tablesLock(), [] { EXPECT_TRUE(DNSPacket::isSslIp(0xcc4fc5dc)); });
    EXPECT_FALSE(free.waits());
    free.letGo();
    StoppedAtLock stopped(addressesLock(), [] { DNSPacket::isSslIp(1); });
    EXPECT_TRUE(stopped.waits());
}

TEST_F(DnsLocks, EveryTouchOfTheAddressesWaitsForTheirLock) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    const std::vector<std::function<void()>> uses = {
        [] { asks("www.bing.com"); },
        [] { setRemaps({"one.test,safe.test"}); },
        [] { setRemaps({}); },
    };
    for (std::size_t i = 0; i < uses.size(); ++i) {
        StoppedAtLock stopped(addressesLock(), uses[i]);
        EXPECT_TRUE(stopped.waits()) << i;
    }
}

TEST_F(DnsLocks, AStoredRowWaitsForTheLockOfTheAddresses) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test,safe.test"});
    const Locks locks = locksTakenBy([] { setRemaps({"two.test,safe.test", "one.test,safe.test"}); });
    // Once to empty them, once for each row.
    EXPECT_EQ(std::count(locks.begin(), locks.end(), addressesLock()), 3);
}

TEST_F(DnsLocks, TheFirstTableOfAddressesIsMadeUnderTheirLock) {
    StoppedAtLock stopped(addressesLock(), [] { DNSPacket::resolveRedirectIP(); });
    EXPECT_TRUE(stopped.waits());
}

TEST_F(DnsLocks, NoneIsHeldAcrossALookUp) {
    static WatchingNames watching;
    static platform::NameLookup* const replaced = &platform::nameLookup(); // for the leak check's sight
    ASSERT_NE(replaced, nullptr);
    platform::nameLookupService.install(watching);
    DNSPacket::resolveRedirectIP();
    setRemaps({"one.test,safe.test", "two.test,other.test"});
    Configuration::addServerName("server.test", false, true);
    Configuration::resetCurrentServer();
    DNSPacket::runDnsApiCheckin();
    EXPECT_EQ(watching.held, (std::vector<std::size_t>{0, 0, 0, 0}));
}

TEST_F(DnsLocks, WithoutAServerACheckInStillMakesTheTableOfHosts) {
    EXPECT_FALSE(DNSPacket::runDnsApiCheckin());
    EXPECT_EQ(remaps().size(), 10u);
}

TEST_F(DnsLocks, TheLaterOfTwoRowsOfOneHostCounts) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    givenName("other.test", "192.0.2.2");
    setRemaps({"one.test,safe.test", "two.test,safe.test", "one.test,other.test"});
    EXPECT_EQ(redirectOf("one.test"), "other.test 192.0.2.2");
    EXPECT_EQ(redirectOf("two.test"), "safe.test 192.0.2.1");
    EXPECT_EQ(hosts(), "192.0.2.1 one.test\n192.0.2.1 two.test\n");
}

TEST_F(DnsLocks, TheLastOfTwoRowsIsTakenLikeTheFirst) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    setRemaps({"one.test,gone.test", "two.test,safe.test"});
    EXPECT_EQ(remaps(), Lines{"two.test,safe.test"});
    setRemaps({"one.test,safe.test", "two.test,gone.test"});
    EXPECT_EQ(remaps(), Lines{"one.test,safe.test"});
}

TEST_F(DnsLocks, AHostWithoutARedirectHostIsPassedOverForTheNextQuestion) {
    givenTables();
    givenName("", "192.0.2.1");
    givenName("safe.test", "192.0.2.2");
    setRemaps({"one.test,", "two.test,safe.test"});
    auto packet = DnsMessageBuilder().question("one.test").question("two.test").answer().ipv4().build();
    EXPECT_TRUE(DNSPacket::remap(packet.packet(), nullptr));
}

TEST_F(DnsLocks, AHostOfOneCharacterIsAHost) {
    givenTables();
    givenName("s", "192.0.2.1");
    setRemaps({"h,s"});
    EXPECT_EQ(redirectOf("h"), "s 192.0.2.1");
    EXPECT_EQ(hosts(), "192.0.2.1 h\n");
    EXPECT_EQ(record(), "h\n");
    setRemaps({});
    EXPECT_EQ(hosts(), "");
}

TEST_F(DnsLocks, NoOperationLeavesAnObject) {
    givenTables();
    givenName("safe.test", "192.0.2.1");
    EXPECT_EQ(objectsLeftBy([] { remaps(); }), 0);
    EXPECT_EQ(objectsLeftBy([] { redirectOf("www.bing.com"); }), 0);
    EXPECT_EQ(objectsLeftBy([] { setRemaps({"one.test,safe.test", "two.test,gone.test", "three"}); }), 0);
    EXPECT_EQ(objectsLeftBy([] { setRemaps({}); }), 0);
    EXPECT_EQ(objectsLeftBy([] { DNSPacket::runDnsApiCheckin(); }), 0);
    Configuration::addServerName("nowhere.test", false, true);
    Configuration::resetCurrentServer();
    EXPECT_EQ(objectsLeftBy([] { DNSPacket::runDnsApiCheckin(); }), 0);
}

} // namespace
