#include "platform/EventQueue.h"

#include "platform/Clock.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

// Each filter of a queue is an epoll set of its own, so that its events live apart: an edge-triggered entry
// behaves as EV_CLEAR, a one-shot entry as EV_DISPATCH, and changing an entry looks at the descriptor afresh,
// as EV_ADD does; it also enables an event that was dispatched. The queue's number is the read set's.

namespace platform {
namespace {

struct Sets {
    int read = -1;
    int write = -1;

    Sets() = default;
    Sets(const Sets&) = delete;
    Sets& operator=(const Sets&) = delete;
    ~Sets() {
        if (read >= 0) close(read);
        if (write >= 0) close(write);
    }
};

using SharedSets = std::shared_ptr<Sets>;

// The open queues. A thread that waits holds its sets as well, so that their numbers are not given out again
// while it does. Never destroyed: threads may wait until the process ends.
struct Table {
    std::mutex mutex;
    std::map<int, SharedSets> queues;
};

Table& table() {
    static auto* instance = new Table;
    return *instance;
}

SharedSets findSets(int queue) {
    std::lock_guard<std::mutex> lock(table().mutex);
    const auto found = table().queues.find(queue);
    return found == table().queues.end() ? nullptr : found->second;
}

std::uint32_t wantedEvents(const KEvent& change) {
    std::uint32_t wanted = change.filter == EVFILT_READ ? EPOLLIN | EPOLLRDHUP : EPOLLOUT;
    if (change.flags & EV_CLEAR) wanted |= EPOLLET;
    if (change.flags & EV_DISPATCH) wanted |= EPOLLONESHOT;
    return wanted;
}

// 0, or the error number.
int applyChange(const Sets& sets, const KEvent& change) {
    if (change.filter != EVFILT_READ && change.filter != EVFILT_WRITE) return EINVAL;
    const int set = change.filter == EVFILT_READ ? sets.read : sets.write;
    if (change.flags & EV_DELETE) return epoll_ctl(set, EPOLL_CTL_DEL, change.ident, nullptr) < 0 ? errno : 0;
    if (!(change.flags & EV_ADD)) return EINVAL;

    epoll_event entry{};
    entry.events = wantedEvents(change);
    entry.data.fd = change.ident;
    if (epoll_ctl(set, EPOLL_CTL_MOD, change.ident, &entry) == 0) return 0;
    if (errno != ENOENT) return errno;
    return epoll_ctl(set, EPOLL_CTL_ADD, change.ident, &entry) < 0 ? errno : 0;
}

// A listening socket has no count of bytes, and one connection at least.
std::int64_t bytesWaiting(int descriptor) {
    int waiting = 0;
    if (ioctl(descriptor, FIONREAD, &waiting) < 0) return errno == EINVAL ? 1 : 0;
    return std::max(waiting, 0);
}

KEvent readEvent(const epoll_event& found) {
    KEvent event;
    event.ident = found.data.fd;
    event.filter = EVFILT_READ;
    if (found.events & (EPOLLRDHUP | EPOLLHUP)) event.flags |= EV_EOF;
    event.data = bytesWaiting(found.data.fd);
    return event;
}

KEvent writeEvent(const epoll_event& found) {
    KEvent event;
    event.ident = found.data.fd;
    event.filter = EVFILT_WRITE;
    if (found.events & EPOLLHUP) event.flags |= EV_EOF;
    return event;
}

int take(int set, KEvent* events, int room, KEvent (*translate)(const epoll_event&)) {
    // What does not fit stays in the set.
    std::array<epoll_event, 64> found{};
    const int count = epoll_wait(set, found.data(), std::min<int>(room, found.size()), 0);
    for (int i = 0; i < count; ++i)
        events[i] = translate(found[static_cast<std::size_t>(i)]);
    return std::max(count, 0);
}

std::int64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Waits until one of the sets has something; `deadline` below 0 is none. As ppoll answers.
int waitForSets(const Sets& sets, std::int64_t deadline) {
    pollfd waiting[] = {{sets.write, POLLIN, 0}, {sets.read, POLLIN, 0}};
    if (deadline < 0) return ppoll(waiting, 2, nullptr, nullptr);
    const std::int64_t left = std::max<std::int64_t>(deadline - monotonicNanoseconds(), 0);
    timespec limit{};
    limit.tv_sec = static_cast<time_t>(left / 1000000000);
    limit.tv_nsec = static_cast<long>(left % 1000000000);
    return ppoll(waiting, 2, &limit, nullptr);
}

int waitForEvents(const Sets& sets, KEvent* events, int room, int seconds) {
    std::int64_t deadline = -1;
    if (seconds > 0) deadline = monotonicNanoseconds() + clock().eventWaitLimit(seconds) * 1000;
    while (true) {
        const int ready = waitForSets(sets, deadline);
        if (ready <= 0) return ready;
        int count = take(sets.write, events, room, writeEvent);
        if (count < room) count += take(sets.read, events + count, room - count, readEvent);
        if (count > 0) return count;
    }
}

} // namespace

int kqueue() {
    auto sets = std::make_shared<Sets>();
    sets->read = epoll_create1(EPOLL_CLOEXEC);
    if (sets->read < 0) return -1;
    sets->write = epoll_create1(EPOLL_CLOEXEC);
    if (sets->write < 0) {
        const int error = errno;
        sets.reset();
        errno = error;
        return -1;
    }
    const int queue = sets->read;
    std::lock_guard<std::mutex> lock(table().mutex);
    table().queues[queue] = std::move(sets);
    return queue;
}

int kevent(int queue, const KEvent* change, KEvent* events, int room, int seconds) {
    const int before = errno;
    const SharedSets sets = findSets(queue);
    if (!sets) {
        errno = EBADF;
        return -1;
    }
    const int changeError = change ? applyChange(*sets, *change) : 0;
    if (changeError != 0) {
        errno = changeError;
        if (room < 1) return -1;
        events[0] = *change;
        events[0].flags = EV_ERROR;
        events[0].data = changeError;
        return 1;
    }
    if (seconds < 0) {
        errno = EINVAL;
        return -1;
    }
    const int count = room < 1 ? 0 : waitForEvents(*sets, events, room, seconds);
    if (count >= 0) errno = before;
    return count;
}

void closeQueue(int queue) {
    SharedSets last;
    std::lock_guard<std::mutex> lock(table().mutex);
    const auto found = table().queues.find(queue);
    if (found == table().queues.end()) return;
    last = std::move(found->second);
    table().queues.erase(found);
}

} // namespace platform
