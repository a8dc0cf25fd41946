// A queue of events of which one system call fails, each call in turn.

#include "platform/EventQueue.h"

#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

using namespace platform;

namespace {

class EventQueueFailedCalls : public testsupport::CallsFailIn<testing::Test> {};

KEvent readsOf(int descriptor) {
    KEvent wanted;
    wanted.ident = descriptor;
    wanted.filter = EVFILT_READ;
    wanted.flags = EV_ADD;
    return wanted;
}

TEST_F(EventQueueFailedCalls, GiveNoQueueOrAnEventOfTheErrorAndLeaveNoDescriptor) {
    const int source = eventfd(0, EFD_CLOEXEC);
    int queue = -1, error = 0, count = 0;
    KEvent event;
    const long failures = testsupport::failEachCallOf([] {},
                                                      [&] {
                                                          queue = kqueue();
                                                          error = errno;
                                                          const KEvent wanted = readsOf(source);
                                                          count = kevent(queue, &wanted, &event, 1, 5);
                                                          closeQueue(queue);
                                                      },
                                                      [&] {
                                                          if (queue < 0) {
                                                              EXPECT_EQ(error, EMFILE);
                                                              EXPECT_EQ(count, -1);
                                                          } else if (count == 1) {
                                                              EXPECT_EQ(event.flags, EV_ERROR);
                                                              EXPECT_EQ(event.data, ENOSPC);
                                                          }
                                                      });
    EXPECT_GE(failures, 4); // two sets, a change and an addition
    close(source);
}

} // namespace

TEST(EventQueueReads, OfWhatCannotTellItsBytesHaveNone) {
    const int source = eventfd(1, EFD_CLOEXEC);
    const int queue = kqueue();
    const KEvent wanted = readsOf(source);
    KEvent event;
    ASSERT_EQ(kevent(queue, &wanted, &event, 1, 5), 1);
    EXPECT_EQ(event.ident, source);
    EXPECT_EQ(event.data, 0);
    closeQueue(queue);
    close(source);
}
