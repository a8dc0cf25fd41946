#include "platform/EventQueue.h"

#include "platform/Clock.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <utility>
#include <vector>

namespace {

using namespace platform;
using testsupport::connectedPair;
using testsupport::LoopbackListener;
using testsupport::ManualClock;
using testsupport::Peer;

KEvent change(int descriptor, std::int16_t filter, int flags) {
    KEvent wanted;
    wanted.ident = descriptor;
    wanted.filter = filter;
    wanted.flags = static_cast<std::uint16_t>(flags);
    return wanted;
}

class EventQueue : public testing::Test {
protected:
    EventQueue() {
        connectedPair(mine_, other_);
        ManualClock::installed().setEventWait(0, false);
    }
    ~EventQueue() override { closeQueue(queue_); }

    // Applies a change and waits with a limit of no real time; the number of events.
    int waitShortly(const KEvent* wanted) { return kevent(queue_, wanted, &event_, 1, 5); }
    int waitShortly(const KEvent& wanted) { return waitShortly(&wanted); }

    // Waits with a limit that only a broken system reaches.
    int waitLong(const KEvent& wanted) {
        ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
        const int count = kevent(queue_, &wanted, &event_, 1, 5);
        ManualClock::installed().setEventWait(0, false);
        return count;
    }

    int queue_ = kqueue();
    KEvent event_;
    Peer mine_;
    Peer other_;
};

TEST(EventQueueWords, HaveTheValuesOfKqueue) {
    EXPECT_EQ(EV_ADD | EV_CLEAR, 33);
    EXPECT_EQ(EV_ADD | EV_DISPATCH, 129);
    EXPECT_EQ(EV_DELETE, 2);
    EXPECT_EQ(EV_EOF, 32768);
    EXPECT_EQ(EV_ERROR, 16384);
    EXPECT_EQ(EVFILT_READ, -1);
    EXPECT_EQ(EVFILT_WRITE, -2);
}

TEST_F(EventQueue, AReadEventTellsTheBytesWaiting) {
    other_.send("seventy");
    ASSERT_EQ(waitLong(change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR)), 1);
    EXPECT_EQ(event_.ident, mine_.descriptor());
    EXPECT_EQ(event_.filter, EVFILT_READ);
    EXPECT_EQ(event_.flags & (EV_EOF | EV_ERROR), 0);
    EXPECT_EQ(event_.data, 7);
}

TEST_F(EventQueue, ALimitedWaitOnAQuietDescriptorAnswersZeroAfterWhatTheClockAllows) {
    ManualClock::installed().setEventWait(1000, true);
    const auto before = ManualClock::installed().microseconds();
    EXPECT_EQ(waitShortly(change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR)), 0);
    EXPECT_EQ(ManualClock::installed().microseconds(), before + 5 * 1000000);
}

TEST_F(EventQueue, OneSecondIsALimitToo) {
    ManualClock::installed().setEventWait(1000, true);
    const KEvent wanted = change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR);
    EXPECT_EQ(kevent(queue_, &wanted, &event_, 1, 1), 0);
}

TEST_F(EventQueue, AWaitWithoutLimitAsksNoClockAndEndsWithTheEvent) {
    ManualClock::installed().setEventWait(0, true);
    const auto before = ManualClock::installed().microseconds();
    auto waited = std::async(std::launch::async, [&] {
        const KEvent wanted = change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR);
        return kevent(queue_, &wanted, &event_, 1, 0);
    });
    EXPECT_EQ(waited.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    other_.send("x");
    EXPECT_EQ(waited.get(), 1);
    EXPECT_EQ(event_.data, 1);
    EXPECT_EQ(ManualClock::installed().microseconds(), before);
}

TEST_F(EventQueue, AClearedEventComesOnceForWhatIsThere) {
    other_.send("abc");
    ASSERT_EQ(waitLong(change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR)), 1);
    EXPECT_EQ(waitShortly(nullptr), 0);
}

TEST_F(EventQueue, AClearedEventComesAgainWhenItIsAddedAgain) {
    other_.send("abc");
    const KEvent wanted = change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR);
    ASSERT_EQ(waitLong(wanted), 1);
    ASSERT_EQ(waitShortly(wanted), 1);
    EXPECT_EQ(event_.data, 3);
}

TEST_F(EventQueue, AClearedEventComesAgainForNewBytes) {
    other_.send("abc");
    ASSERT_EQ(waitLong(change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR)), 1);
    other_.send("de");
    ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    ASSERT_EQ(waitShortly(nullptr), 1);
    EXPECT_EQ(event_.data, 5);
}

TEST_F(EventQueue, ADispatchedEventComesOnce) {
    const KEvent wanted = change(mine_.descriptor(), EVFILT_WRITE, EV_ADD | EV_DISPATCH);
    ASSERT_EQ(waitLong(wanted), 1);
    EXPECT_EQ(event_.filter, EVFILT_WRITE);
    EXPECT_EQ(waitShortly(nullptr), 0);
}

TEST_F(EventQueue, ADeletedEventComesNoMore) {
    const KEvent wanted = change(mine_.descriptor(), EVFILT_WRITE, EV_ADD);
    ASSERT_EQ(waitLong(wanted), 1);
    ASSERT_EQ(waitShortly(nullptr), 1) << "without EV_DISPATCH it comes each time";
    EXPECT_EQ(waitShortly(change(mine_.descriptor(), EVFILT_WRITE, EV_DELETE)), 0);
}

TEST_F(EventQueue, DeletingOneFilterLeavesTheOther) {
    other_.send("abc");
    ASSERT_EQ(waitLong(change(mine_.descriptor(), EVFILT_WRITE, EV_ADD)), 1);
    ASSERT_EQ(waitShortly(change(mine_.descriptor(), EVFILT_READ, EV_ADD)), 1);
    ASSERT_EQ(waitLong(change(mine_.descriptor(), EVFILT_WRITE, EV_DELETE)), 1);
    EXPECT_EQ(event_.filter, EVFILT_READ);
}

TEST_F(EventQueue, DeletingWhatIsNotThereIsAnErrorEvent) {
    ASSERT_EQ(waitShortly(change(mine_.descriptor(), EVFILT_WRITE, EV_DELETE)), 1);
    EXPECT_EQ(event_.flags, EV_ERROR);
    EXPECT_EQ(event_.data, ENOENT);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(EventQueue, AChangeOfAClosedDescriptorIsAnErrorEvent) {
    const int gone = mine_.descriptor();
    mine_.close();
    ASSERT_EQ(waitShortly(change(gone, EVFILT_READ, EV_ADD | EV_CLEAR)), 1);
    EXPECT_EQ(event_.ident, gone);
    EXPECT_EQ(event_.flags, EV_ERROR);
    EXPECT_EQ(event_.data, EBADF);
}

TEST_F(EventQueue, AnErrorWithoutRoomForItsEventIsMinusOne) {
    const KEvent wanted = change(-1, EVFILT_READ, EV_ADD);
    EXPECT_EQ(kevent(queue_, &wanted, &event_, 0, 5), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(EventQueue, AnUnknownFilterIsAnErrorEvent) {
    ASSERT_EQ(waitShortly(change(mine_.descriptor(), -7, EV_ADD)), 1);
    EXPECT_EQ(event_.data, EINVAL);
}

TEST_F(EventQueue, AChangeThatNeitherAddsNorDeletesIsAnErrorEvent) {
    ASSERT_EQ(waitShortly(change(mine_.descriptor(), EVFILT_READ, EV_CLEAR)), 1);
    EXPECT_EQ(event_.flags, EV_ERROR);
    EXPECT_EQ(event_.data, EINVAL);
    other_.send("unseen");
    EXPECT_EQ(waitShortly(nullptr), 0);
}

TEST_F(EventQueue, AClosedPeerIsEndOfFileWithTheBytesThatAreLeft) {
    other_.send("rest");
    other_.close();
    const KEvent wanted = change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR);
    do
        ASSERT_EQ(waitLong(wanted), 1);
    while (!(event_.flags & EV_EOF));
    EXPECT_EQ(event_.data, 4);
    EXPECT_EQ(mine_.read(4), "rest");
    ASSERT_EQ(waitShortly(wanted), 1);
    EXPECT_TRUE(event_.flags & EV_EOF);
    EXPECT_EQ(event_.data, 0);
}

TEST_F(EventQueue, AHalfClosedPeerCanStillBeWrittenTo) {
    shutdown(other_.descriptor(), SHUT_WR);
    ASSERT_EQ(waitLong(change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR)), 1);
    ASSERT_TRUE(event_.flags & EV_EOF);
    ASSERT_EQ(waitShortly(change(mine_.descriptor(), EVFILT_WRITE, EV_ADD | EV_DISPATCH)), 1);
    EXPECT_EQ(event_.filter, EVFILT_WRITE);
    EXPECT_FALSE(event_.flags & EV_EOF);
}

TEST_F(EventQueue, ARefusedConnectionIsEndOfFileForTheWriter) {
    const Peer refused(socket(AF_INET, SOCK_STREAM, 0));
    fcntl(refused.descriptor(), F_SETFL, O_NONBLOCK);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(testsupport::freePort()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(refused.descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ASSERT_EQ(waitLong(change(refused.descriptor(), EVFILT_WRITE, EV_ADD | EV_DISPATCH)), 1);
    EXPECT_TRUE(event_.flags & EV_EOF);
}

TEST_F(EventQueue, AListeningSocketIsReadableWhenAConnectionWaits) {
    const LoopbackListener listener;
    const KEvent wanted = change(listener.descriptor(), EVFILT_READ, EV_ADD);
    EXPECT_EQ(waitShortly(wanted), 0);
    const Peer client = testsupport::connectTo(listener.port());
    ASSERT_EQ(waitLong(wanted), 1);
    EXPECT_GE(event_.data, 1);
}

TEST_F(EventQueue, OneWaitBringsAsManyEventsAsThereIsRoomFor) {
    other_.send("ab");
    mine_.send("cde");
    ASSERT_EQ(waitLong(change(mine_.descriptor(), EVFILT_READ, EV_ADD)), 1);
    ASSERT_EQ(waitLong(change(other_.descriptor(), EVFILT_READ, EV_ADD)), 1);
    std::vector<KEvent> events(5);
    ASSERT_EQ(kevent(queue_, nullptr, events.data(), 5, 5), 2);
    EXPECT_EQ(events[0].data + events[1].data, 5);
    EXPECT_EQ(kevent(queue_, nullptr, events.data(), 0, 0), 0) << "no room, no wait";
}

TEST_F(EventQueue, OneLookBringsSixtyFourEventsAtMostAndTheNextOneTheRest) {
    constexpr int ready = 65;
    std::vector<KEvent> events(ready + 5);
    std::vector<int> descriptors;
    for (int i = 0; i < ready; ++i) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        descriptors.insert(descriptors.end(), {ends[0], ends[1]});
        ASSERT_EQ(write(ends[1], "a", 1), 1);
        const KEvent wanted = change(ends[0], EVFILT_READ, EV_ADD | EV_CLEAR);
        ASSERT_EQ(kevent(queue_, &wanted, nullptr, 0, 5), 0);
    }

    EXPECT_EQ(kevent(queue_, nullptr, events.data(), ready + 5, 5), 64);
    EXPECT_EQ(kevent(queue_, nullptr, events.data(), ready + 5, 5), 1);
    for (const int descriptor : descriptors)
        close(descriptor);
}

TEST_F(EventQueue, ANegativeLimitIsRefused) {
    const KEvent wanted = change(mine_.descriptor(), EVFILT_READ, EV_ADD);
    EXPECT_EQ(kevent(queue_, &wanted, &event_, 1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(EventQueue, AWaitThatSucceedsLeavesErrnoAlone) {
    other_.send("abc");
    errno = 0;
    ASSERT_EQ(waitLong(change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR)), 1);
    EXPECT_EQ(errno, 0);
    errno = EXDEV;
    ASSERT_EQ(waitShortly(change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR)), 1);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(EventQueue, AWaitThatRunsOutLeavesErrnoAlone) {
    errno = EXDEV;
    ASSERT_EQ(waitShortly(change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR)), 0);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(EventQueue, AClosedQueueAnswersMinusOne) {
    const int closed = kqueue();
    closeQueue(closed);
    const KEvent wanted = change(mine_.descriptor(), EVFILT_READ, EV_ADD);
    EXPECT_EQ(kevent(closed, &wanted, &event_, 1, 5), -1);
    EXPECT_EQ(errno, EBADF);
}

// Does something at the moment when a wait with a limit begins, after its queue has been looked up.
class InterferingClock final : public Clock {
public:
    explicit InterferingClock(std::function<void()> interfere) : interfere_(std::move(interfere)) {}

    std::int64_t microseconds() override { return ManualClock::installed().microseconds(); }
    std::time_t seconds() override { return ManualClock::installed().seconds(); }
    void sleepMicroseconds(unsigned) override {}
    void sleepSeconds(unsigned) override {}
    std::int64_t eventWaitLimit(int) override {
        interfere_();
        return 5000000;
    }

private:
    std::function<void()> interfere_;
};

TEST_F(EventQueue, AQueueClosedDuringAWaitEndsTheWaitAsUsualAndKeepsItsNumberUntilThen) {
    const int watched = queue_;
    int next = -1;
    InterferingClock clock([&] {
        closeQueue(watched);
        next = kqueue();
        other_.send("x");
    });
    clockService.install(clock);
    const KEvent wanted = change(mine_.descriptor(), EVFILT_READ, EV_ADD | EV_CLEAR);
    EXPECT_EQ(kevent(watched, &wanted, &event_, 1, 5), 1);
    clockService.install(ManualClock::installed());
    EXPECT_NE(next, watched);
    closeQueue(next);
    EXPECT_EQ(kevent(watched, &wanted, &event_, 1, 5), -1);
}

TEST_F(EventQueue, AQueueIsNotInheritedByOtherPrograms) {
    EXPECT_EQ(fcntl(queue_, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

} // namespace
