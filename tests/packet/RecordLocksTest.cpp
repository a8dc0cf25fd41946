// The lock of the records: what takes it, what is done and logged under it, and what behind it.

#include "packet/HijackPacket.h"

#include "config/Configuration.h"
#include "platform/Clock.h"
#include "support/AllocationCounter.h"
#include "support/FileCalls.h"
#include "support/LockCounter.h"
#include "support/RecordWorld.h"
#include "support/Sanitizers.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using testsupport::PacketBuffer;

namespace {

// A clock that takes no lock of its own.
class PlainClock final : public platform::Clock {
public:
    std::int64_t microseconds() override { return now; }
    std::time_t seconds() override { return static_cast<std::time_t>(now / 1000000); }
    void sleepMicroseconds(unsigned) override {}
    void sleepSeconds(unsigned) override {}
    std::int64_t eventWaitLimit(int) override { return 0; }

    std::int64_t now = testsupport::ManualClock::start;
};

PlainClock plainClock;

class RecordLocks : public testsupport::RecordWorld {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the lock functions";
        platform::clockService.install(plainClock);
        create(request(49999)); // what is made once is made
        find(request(49999));
    }

    // How many locks the operation takes; none of them is held afterwards.
    static long locksOf(const std::function<void()>& operation) {
        const testsupport::LockCounter locks;
        operation();
        EXPECT_EQ(locks.held(), 0);
        return locks.count();
    }

    // For each line that the operation writes to the log, how many locks are held meanwhile.
    static std::vector<long> locksHeldAtLines(const std::function<void()>& operation) {
        std::vector<long> found;
        testsupport::LockCounter locks;
        testsupport::FileCalls files;
        files.beforeEachFstat([&] { found.push_back(locks.held()); });
        operation();
        return found;
    }

    // Allocations behind the first lock, up to the last unlock.
    static long allocationsUnderTheLock(const std::function<void()>& operation) {
        long at = -1;
        long under = 0;
        testsupport::LockCounter locks;
        const testsupport::AllocationCounter allocations;
        locks.behindEachLock([&] { at = allocations.count(); });
        locks.beforeEachUnlock([&] { under = allocations.count() - at; });
        operation();
        return under;
    }

    PacketBuffer packet_ = request();
};

} // namespace

TEST_F(RecordLocks, EachOperationTakesTheLockOnce) {
    EXPECT_EQ(locksOf([&] { HijackPacket::create(packet_.packet(), url, false); }), 1);
    EXPECT_EQ(locksOf([&] { HijackPacket::find(packet_.packet()); }), 1);
    EXPECT_EQ(locksOf([&] { HijackPacket::resolve(url, nullptr); }), 1);
    EXPECT_EQ(locksOf([&] { HijackPacket::resolve("http://unknown.example/", nullptr); }), 1);
    HijackPacket* record = HijackPacket::find(packet_.packet());
    EXPECT_EQ(locksOf([&] { HijackPacket::remove(record); }), 1);
    EXPECT_EQ(locksOf([&] { HijackPacket::remove(nullptr); }), 1);
}

TEST_F(RecordLocks, AFoundRecordIsTakenAndGivenBackUnderTheLock) {
    HijackPacket::create(packet_.packet(), url, false);

    EXPECT_EQ(locksOf([&] { const HijackPacket::Found found(packet_.packet()); }), 2);
    auto other = request(50001);
    EXPECT_EQ(locksOf([&] { const HijackPacket::Found found(other.packet()); }), 1) << "nothing to give back";
}

TEST_F(RecordLocks, AFoundRecordThatIsListedNoMoreIsDestroyedUnderTheLock) {
    HijackPacket::create(packet_.packet(), url, false);
    auto found = std::make_unique<HijackPacket::Found>(packet_.packet());
    HijackPacket::remove(found->get());
    long atLock = 0;
    long atUnlock = 0;
    testsupport::LockCounter locks;
    const testsupport::AllocationCounter allocations;
    locks.behindEachLock([&] { atLock = allocations.left(); });
    locks.beforeEachUnlock([&] { atUnlock = allocations.left(); });

    found.reset();

    EXPECT_EQ(locks.count(), 1);
    EXPECT_EQ(atLock, 0);
    EXPECT_LT(atUnlock, 0) << "given back";
}

TEST_F(RecordLocks, APacketWithoutPayloadIsRefusedWithoutTheLock) {
    auto ack = bareAck();

    EXPECT_EQ(locksOf([&] { HijackPacket::create(ack.packet(), url, false); }), 0);
}

TEST_F(RecordLocks, ANewRecordIsListedUnderTheLockAndItsUrlCopiedBefore) {
    const auto createOne = [&] { HijackPacket::create(packet_.packet(), url, false); };
    createOne();

    EXPECT_GT(allocationsUnderTheLock(createOne), 0);
    const std::string longUrl = "http://www.example.org/" + std::string(100000, 'p');
    const testsupport::AllocationCounter allocations;
    long atLock = 0;
    testsupport::LockCounter locks;
    locks.behindEachLock([&] { atLock = allocations.bytes(); });
    HijackPacket::create(packet_.packet(), longUrl.c_str(), false);
    EXPECT_GT(atLock, 100000);
}

TEST_F(RecordLocks, ARedirectIsStoredUnderTheLock) {
    HijackPacket::create(packet_.packet(), url, false);

    EXPECT_GT(allocationsUnderTheLock([] { HijackPacket::resolve(url, "http://block.example/", 30); }), 0);
}

TEST_F(RecordLocks, AdditionsAndRemovalsAreLoggedUnderTheLockAndAnswersBehindIt) {
    Configuration::setLogLevel(64 | 128);

    EXPECT_EQ(locksHeldAtLines([&] { HijackPacket::create(packet_.packet(), url, false); }),
              std::vector<long>{1});
    EXPECT_EQ(locksHeldAtLines([] { HijackPacket::resolve(url, "http://block.example/"); }),
              std::vector<long>{0});
    EXPECT_EQ(locksHeldAtLines([] { HijackPacket::resolve("http://unknown.example/", nullptr); }),
              std::vector<long>{0});
    HijackPacket* record = HijackPacket::find(packet_.packet());
    EXPECT_EQ(locksHeldAtLines([&] { HijackPacket::remove(record); }), std::vector<long>{1});
    plainClock.now += 120000001;
    EXPECT_EQ(locksHeldAtLines([&] { HijackPacket::find(packet_.packet()); }), std::vector<long>{1});
}

TEST_F(RecordLocks, ARecordLeavesNothingBehind) {
    const auto live = [&] {
        HijackPacket::create(packet_.packet(), url, false);
        HijackPacket::resolve(url, "http://block.example/", 30);
        { const HijackPacket::Found found(packet_.packet()); }
        HijackPacket::remove(HijackPacket::find(packet_.packet()));
        HijackPacket::create(packet_.packet(), url, true);
        plainClock.now += 120000001;
        HijackPacket::find(packet_.packet());
    };
    live();
    live();
    const testsupport::AllocationCounter allocations;
    live();
    EXPECT_EQ(allocations.left(), 0);
}
