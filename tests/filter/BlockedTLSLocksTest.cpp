// The locks of the blocked-address tables: each table has its own, and what is logged under it.

#include "filter/FilterQuery.h"

#include "config/Configuration.h"
#include "support/CapturedLog.h"
#include "support/FileCalls.h"
#include "support/LockCounter.h"
#include "support/ManualClock.h"
#include "support/PacketBuilder.h"
#include "support/Sanitizers.h"
#include "support/ScratchRoot.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using testsupport::PacketBuilder;

class BlockedTLSLocks : public testing::Test {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the lock functions";
        inet_pton(AF_INET6, "2001:db8::22", &server6_);
    }

    // For each line that the operation writes to the log, how many locks are held meanwhile.
    static std::vector<long> locksHeldAtLines(const std::function<void()>& operation) {
        std::vector<long> found;
        testsupport::LockCounter locks;
        testsupport::FileCalls files;
        files.beforeEachFstat([&] { found.push_back(locks.held()); });
        operation();
        EXPECT_EQ(locks.held(), 0);
        return found;
    }

    bool isBlocked() { return FilterQuery::isBlockedSSL(packet_.packet()); }
    bool isBlocked6() { return FilterQuery::isBlockedSSLIpv6(packet6_.packet()); }

    testsupport::ScratchRoot root_;
    testsupport::CapturedLog log_;
    in6_addr server6_{};
    testsupport::PacketBuffer packet_ = PacketBuilder::ipv4().build();
    testsupport::PacketBuffer packet6_ = PacketBuilder::ipv6().build();
};

} // namespace

TEST_F(BlockedTLSLocks, AdditionsAreLoggedUnderTheTablesLock) {
    Configuration::setLogLevel(128);

    EXPECT_EQ(locksHeldAtLines([] { FilterQuery::addToSSL(0x5db8d822); }), std::vector<long>{1});
    EXPECT_EQ(locksHeldAtLines([&] { FilterQuery::addToSSLIpv6(server6_); }), std::vector<long>{1});
}

TEST_F(BlockedTLSLocks, RemovalsAreLoggedUnderTheTablesLock) {
    FilterQuery::addToSSL(0x5db8d822);
    FilterQuery::addToSSLIpv6(server6_);
    testsupport::ManualClock::installed().advance(300000001);
    Configuration::setLogLevel(128);

    EXPECT_EQ(locksHeldAtLines([&] { EXPECT_FALSE(isBlocked()); }), std::vector<long>{1});
    EXPECT_EQ(locksHeldAtLines([&] { EXPECT_FALSE(isBlocked6()); }), std::vector<long>{1});
}

TEST_F(BlockedTLSLocks, HitsAreLoggedBehindTheTablesLock) {
    FilterQuery::addToSSL(0x5db8d822);
    FilterQuery::addToSSLIpv6(server6_);
    Configuration::setLogLevel(16);

    // The hit, and the packet.
    EXPECT_EQ(locksHeldAtLines([&] { EXPECT_TRUE(isBlocked()); }), (std::vector<long>{0, 0}));
    EXPECT_EQ(locksHeldAtLines([&] { EXPECT_TRUE(isBlocked6()); }), (std::vector<long>{0, 0}));
}

TEST_F(BlockedTLSLocks, ASearchTakesTheLockOnceAndNoneWhereNothingWasEverBlocked) {
    const auto locksOf = [](const std::function<void()>& operation) {
        const testsupport::LockCounter locks;
        operation();
        return locks.count();
    };

    EXPECT_EQ(locksOf([&] { isBlocked(); }), 0);
    EXPECT_EQ(locksOf([&] { isBlocked6(); }), 0);

    FilterQuery::addToSSL(1);
    FilterQuery::addToSSLIpv6(in6addr_loopback);
    // The table's, and the played clock's inside it.
    EXPECT_EQ(locksOf([&] { isBlocked(); }), 2);
    EXPECT_EQ(locksOf([&] { isBlocked6(); }), 2);
}
