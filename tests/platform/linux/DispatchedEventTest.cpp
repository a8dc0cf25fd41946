// What Linux's queue does and the Mac's does not.

#include "platform/EventQueue.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"

#include <gtest/gtest.h>

using namespace platform;

TEST(DispatchedEvent, ComesAgainOnLinuxWhenItIsAddedAgain) {
    testsupport::Peer mine;
    testsupport::Peer other;
    testsupport::connectedPair(mine, other);
    testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    const int queue = kqueue();
    KEvent wanted;
    wanted.ident = mine.descriptor();
    wanted.filter = EVFILT_WRITE;
    wanted.flags = EV_ADD | EV_DISPATCH;
    for (int times = 0; times < 3; ++times) {
        KEvent event;
        EXPECT_EQ(kevent(queue, &wanted, &event, 1, 5), 1);
        EXPECT_EQ(event.filter, EVFILT_WRITE);
    }
    closeQueue(queue);
}
