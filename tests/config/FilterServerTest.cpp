#include "config/FilterServer.h"

#include "gp/GPString.h"
#include "gp/GPTimer.h"
#include "gp/Owned.h"
#include "support/HeldLocks.h"

#include <gtest/gtest.h>

namespace {

Owned<FilterServer> server(const char* name) { return Owned<FilterServer>::adopt(new FilterServer(name)); }

// A timer with one reference for the server and one for the test, to look at afterwards.
GPTimer* sharedTimer() {
    auto* timer = new GPTimer(true);
    timer->retain();
    return timer;
}

// Whether the reference of the test is the only one left; gives it back.
bool isLastReference(GPTimer* timer) {
    const bool last = timer->retainonly() == 2;
    timer->release();
    timer->release();
    return last;
}

TEST(FilterServer, ANewServerIsOrdinaryActiveAndWithoutAddress) {
    auto fresh = server("a.example");
    EXPECT_STREQ(fresh->getName()->cstr(), "a.example");
    EXPECT_EQ(fresh->getServerType(), ServerTypeOrdinary);
    EXPECT_EQ(fresh->getIPAddr(), 0u);
    EXPECT_TRUE(fresh->isActive());
    EXPECT_EQ(fresh->getTimer(), nullptr);
    EXPECT_FALSE(fresh->isUseHttps());
}

TEST(FilterServer, TheNameIsACopyInBothConstructors) {
    auto text = Owned<GPString>::adopt(new GPString("a.example"));
    auto fresh = Owned<FilterServer>::adopt(new FilterServer(text.get()));
    text->reset("changed");
    EXPECT_STREQ(fresh->getUrl(), "a.example");
}

TEST(FilterServer, TheTypesHaveTheirStoredValues) {
    EXPECT_EQ(static_cast<int>(ServerTypeUnknown), 0);
    EXPECT_EQ(static_cast<int>(ServerTypeOrdinary), 1);
    EXPECT_EQ(static_cast<int>(ServerTypeIIS), 2);
    EXPECT_EQ(sizeof(ServerType), 4u);
}

TEST(FilterServer, ANewNameLeavesTheOldTextAlive) {
    auto renamed = server("a.example");
    GPString* old = renamed->getName();
    auto name = Owned<GPString>::adopt(new GPString("b.example"));
    renamed->setName(name.get());
    EXPECT_STREQ(renamed->getUrl(), "b.example");
    EXPECT_STREQ(old->cstr(), "a.example");
    old->release();
}

TEST(FilterServer, ANullNameIsStoredAsAnEmptyText) {
    auto renamed = server("a.example");
    GPString* old = renamed->getName();
    renamed->setName(nullptr);
    EXPECT_STREQ(renamed->getUrl(), "");
    old->release();
}

TEST(FilterServer, NamesAreComparedExactly) {
    auto named = server("a.example");
    EXPECT_TRUE(named->nameEquals("a.example"));
    EXPECT_FALSE(named->nameEquals("A.example"));
    EXPECT_FALSE(named->nameEquals("a.exampl"));
    EXPECT_FALSE(named->nameEquals(nullptr));
}

TEST(FilterServer, PlainFieldsKeepWhatIsStored) {
    auto changed = server("a.example");
    changed->setServerType(ServerTypeIIS);
    changed->setIPAddr(0x7f000001);
    changed->setUseHttps(true);
    changed->setActive(false);
    EXPECT_EQ(changed->getServerType(), ServerTypeIIS);
    EXPECT_EQ(changed->getIPAddr(), 0x7f000001u);
    EXPECT_TRUE(changed->isUseHttps());
    EXPECT_FALSE(changed->isActive());
}

TEST(FilterServer, ANewTimerReplacesAndReleasesTheOldOne) {
    auto down = server("a.example");
    GPTimer* first = sharedTimer();
    down->setTimer(first);
    auto* second = new GPTimer(true);
    down->setTimer(second);
    EXPECT_EQ(down->getTimer(), second);
    EXPECT_TRUE(isLastReference(first));
}

TEST(FilterServer, TheSameTimerIsNotReleased) {
    auto down = server("a.example");
    auto* timer = new GPTimer(true);
    down->setTimer(timer);
    down->setTimer(timer);
    EXPECT_EQ(timer->retainonly(), 2);
    timer->release();
}

TEST(FilterServer, TheDownStateTakesATimerAndItsRemovalReleasesIt) {
    auto down = server("a.example");
    GPTimer* timer = sharedTimer();
    down->setDownState(timer);
    EXPECT_FALSE(down->isActive());
    EXPECT_EQ(down->getTimer(), timer);
    down->removeDownState();
    EXPECT_TRUE(down->isActive());
    EXPECT_EQ(down->getTimer(), nullptr);
    EXPECT_TRUE(isLastReference(timer));
}

TEST(FilterServer, TheEndOfAServerReleasesItsTimer) {
    GPTimer* timer = sharedTimer();
    server("a.example")->setDownState(timer);
    EXPECT_TRUE(isLastReference(timer));
}

TEST(FilterServer, TheLockKeepsOthersOutUntilItIsGivenBack) {
    auto locked = server("a.example");
    const auto takeAndGive = [&] {
        locked->lock();
        locked->unlock();
    };
    testsupport::StoppedAtLock stopped(testsupport::firstLockOf(takeAndGive), takeAndGive);
    EXPECT_TRUE(stopped.waits());
    stopped.letGo();
    testsupport::StoppedAtLock again(testsupport::firstLockOf(takeAndGive),
                                     [&] { locked->removeDownState(); });
    EXPECT_TRUE(again.waits());
}

TEST(FilterServer, NamesItsClassInOneOfTheTwoWays) {
    auto named = server("a.example");
    auto name = Owned<GPString>::adopt(named->className());
    EXPECT_STREQ(name->cstr(), "FilterServer");
    EXPECT_STREQ(named->cclassName(), "GPObject");
}

} // namespace
