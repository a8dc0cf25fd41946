// The locks of the filter queries: nothing of what they guard is read or changed without them.

#include "config/Configuration.h"
#include "filter/FilterQuery.h"
#include "gp/GPList.h"
#include "gp/GPString.h"
#include "support/CapturedLog.h"
#include "support/HeldLocks.h"
#include "support/LivingObjects.h"
#include "support/ManualClock.h"
#include "support/PacketBuilder.h"
#include "support/ProgramSymbols.h"
#include "support/ScratchRoot.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using testsupport::BeforeRelease;
using testsupport::firstLockOf;
using testsupport::locksTakenBy;
using testsupport::ManualClock;
using testsupport::PacketBuilder;
using testsupport::StoppedAtLock;

namespace {

using Locks = std::vector<const GPMutex*>;

in6_addr address6() {
    in6_addr address{};
    address.s6_addr[15] = 0x22;
    return address;
}

bool blocks() { return FilterQuery::isBlockedSSL(PacketBuilder::ipv4().build().packet()); }
bool blocks6() { return FilterQuery::isBlockedSSLIpv6(PacketBuilder::ipv6().build().packet()); }

bool cached(const char* url) {
    GPString text(url);
    return FilterQuery::queryCache(&text);
}

// For who holds the table's lock.
int entriesOf(const char* table) {
    return (*reinterpret_cast<GPList**>(testsupport::programVariable(table)))->count();
}

const GPMutex* serverLock() {
    return firstLockOf([] {
        FilterQuery::lockServers();
        FilterQuery::unlockServers();
    });
}

class FilterQueryLocks : public testing::Test {
protected:
    // Runs an operation that is held up at the lock, expects that nothing is logged there, and lets it go on.
    void expectNothingWithout(const GPMutex* lock, const std::function<void()>& operation) {
        const auto lines = log.messages().size();
        StoppedAtLock stopped(lock, operation);
        EXPECT_TRUE(stopped.waits());
        EXPECT_EQ(log.messages().size(), lines);
        stopped.letGo();
        EXPECT_EQ(log.messages().size(), lines + 1);
    }

    testsupport::ScratchRoot root;
    testsupport::CapturedLog log;
};

} // namespace

TEST_F(FilterQueryLocks, TheServerLockKeepsOthersOut) {
    ASSERT_TRUE(serverLock());
    StoppedAtLock stopped(serverLock(), [] {
        FilterQuery::lockServers();
        FilterQuery::unlockServers();
    });
    EXPECT_TRUE(stopped.waits());
}

TEST_F(FilterQueryLocks, TheSwitchChangesUnderALockOfItsOwn) {
    const auto setting = [] { FilterQuery::setFilteringDisabled(true); };
    const GPMutex* disableMutex = firstLockOf([] { FilterQuery::setFilteringDisabled(false); });
    ASSERT_TRUE(disableMutex);
    EXPECT_NE(disableMutex, serverLock());
    expectNothingWithout(disableMutex, setting);
    EXPECT_TRUE(FilterQuery::isFilteringDisabled());
}

TEST_F(FilterQueryLocks, TheSwitchFallsUnderItsLockAndIsLoggedBehindIt) {
    Configuration::setLogLevel(1);
    const GPMutex* disableMutex = firstLockOf([] { FilterQuery::setFilteringDisabled(true); });
    ManualClock::installed().advance(600000001);
    expectNothingWithout(disableMutex, [] { FilterQuery::isFilteringDisabled(); });
    ManualClock::installed().advance(600000001);
    EXPECT_EQ(locksTakenBy([] { FilterQuery::isFilteringDisabled(); }), Locks{disableMutex});
}

TEST_F(FilterQueryLocks, AReadOfTheSwitchTakesNoLock) {
    FilterQuery::isFilteringDisabled();
    EXPECT_EQ(locksTakenBy([] { FilterQuery::isFilteringDisabled(); }), Locks{});
}

TEST_F(FilterQueryLocks, TheQueryCacheIsReadUnderTheServerLock) {
    StoppedAtLock stopped(serverLock(), [] { cached("http://a/"); });
    EXPECT_TRUE(stopped.waits());
}

TEST_F(FilterQueryLocks, AUrlWithNothingInFrontOfItsQueryStringIsNotLookedFor) {
    EXPECT_EQ(locksTakenBy([] { EXPECT_FALSE(FilterQuery::queryCache(nullptr)); }), Locks{});
    for (const char* url : {"?q=1", " ?", ""})
        EXPECT_EQ(locksTakenBy([url] { EXPECT_FALSE(cached(url)); }), Locks{}) << url;
}

TEST_F(FilterQueryLocks, EachTableOfBlockedAddressesIsWalkedUnderALockOfItsOwn) {
    Configuration::setLogLevel(128);
    FilterQuery::addToSSL(1);
    FilterQuery::addToSSLIpv6(address6());
    ManualClock::installed().advance(300000001);
    const GPMutex* sslMutex = firstLockOf([] { FilterQuery::addToSSL(2); });
    const GPMutex* sslMutexIpv6 = firstLockOf([] { FilterQuery::addToSSLIpv6(address6()); });
    EXPECT_NE(sslMutex, sslMutexIpv6);
    expectNothingWithout(sslMutex, blocks);
    expectNothingWithout(sslMutexIpv6, blocks6);
}

TEST_F(FilterQueryLocks, EachTableOfBlockedAddressesGrowsUnderItsLock) {
    Configuration::setLogLevel(128);
    const GPMutex* sslMutex = firstLockOf([] { FilterQuery::addToSSL(3); });
    const GPMutex* sslMutexIpv6 = firstLockOf([] { FilterQuery::addToSSLIpv6(address6()); });
    expectNothingWithout(sslMutex, [] { FilterQuery::addToSSL(1); });
    expectNothingWithout(sslMutexIpv6, [] { FilterQuery::addToSSLIpv6(address6()); });
    {
        StoppedAtLock stopped(sslMutex, [] { FilterQuery::addToSSL(2); });
        EXPECT_EQ(entriesOf("sslList"), 2);
    }
    StoppedAtLock stopped(sslMutexIpv6, [] { FilterQuery::addToSSLIpv6(address6()); });
    EXPECT_EQ(entriesOf("sslListIpv6"), 2);
}

TEST_F(FilterQueryLocks, ALookUpTakesOneLockWithAHitAndWithout) {
    const GPMutex* sslMutex = firstLockOf([] { FilterQuery::addToSSL(0x5db8d822); });
    EXPECT_EQ(locksTakenBy([] { EXPECT_TRUE(blocks()); }), Locks{sslMutex});
    ManualClock::installed().advance(300000001);
    EXPECT_EQ(locksTakenBy([] { EXPECT_FALSE(blocks()); }), Locks{sslMutex});
}

TEST_F(FilterQueryLocks, AHitIsLoggedBehindTheLock) {
    Configuration::setLogLevel(16);
    const GPMutex* sslMutex = firstLockOf([] { FilterQuery::addToSSL(0x5db8d822); });
    const GPMutex* sslMutexIpv6 = firstLockOf([] {
        in6_addr address{};
        inet_pton(AF_INET6, "2001:db8::22", &address);
        FilterQuery::addToSSLIpv6(address);
    });
    {
        const BeforeRelease released(sslMutex, [this] { EXPECT_TRUE(log.messages().empty()); });
        EXPECT_TRUE(blocks());
        EXPECT_EQ(released.count(), 1);
    }
    const std::size_t before = log.messages().size();
    EXPECT_EQ(before, 2u);
    const BeforeRelease released(sslMutexIpv6, [&] { EXPECT_EQ(log.messages().size(), before); });
    EXPECT_TRUE(blocks6());
    EXPECT_EQ(released.count(), 1);
}

TEST_F(FilterQueryLocks, NoOperationLeavesAnObject) {
    using testsupport::objectsLeftBy;
    EXPECT_EQ(objectsLeftBy([] { cached("http://a/?q=1"); }), 0);
    EXPECT_EQ(objectsLeftBy([] {
                  FilterQuery::addToSSL(1);
                  FilterQuery::addToSSLIpv6(address6());
                  ManualClock::installed().advance(300000001);
                  blocks();
                  blocks6();
              }),
              0);
    Configuration::setLogLevel(16);
    FilterQuery::addToSSL(0x5db8d822);
    EXPECT_EQ(objectsLeftBy([] { EXPECT_TRUE(blocks()); }), 0);
    in6_addr end{};
    inet_pton(AF_INET6, "2001:db8::2", &end);
    FilterQuery::addToSSLIpv6(end);
    EXPECT_EQ(objectsLeftBy([] { EXPECT_TRUE(blocks6()); }), 0);
}
