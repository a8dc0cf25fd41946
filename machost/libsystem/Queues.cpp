#include "machost/libsystem/Queues.h"

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/FileLayouts.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/SocketState.h"
#include "machost/world/Clock.h"
#include "machost/world/Network.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace machost::libsystem {
namespace {

// <sys/event.h>
struct Event {
    std::uint64_t ident;
    std::int16_t filter;
    std::uint16_t flags;
    std::uint32_t filterFlags;
    std::int64_t data;
    void* user;
} __attribute__((packed, aligned(4)));
static_assert(sizeof(Event) == 32 && offsetof(Event, data) == 16 && offsetof(Event, user) == 24);

constexpr std::int16_t filterRead = -1, filterWrite = -2;
constexpr std::uint16_t add = 0x1, remove = 0x2, enable = 0x4, disable = 0x8, oneShot = 0x10, clear = 0x20,
                        receipt = 0x40, dispatch = 0x80, error = 0x4000, endOfFile = 0x8000;
constexpr std::uint16_t systemFlags = 0xf000;

// A change's flags as they hold: the system's own are not given, and removing and disabling overrule.
std::uint16_t effective(std::uint16_t flags) {
    flags &= static_cast<std::uint16_t>(~systemFlags);
    if (flags & remove) flags &= static_cast<std::uint16_t>(~add);
    if (flags & disable) flags &= static_cast<std::uint16_t>(~enable);
    return flags;
}

// One watched descriptor under one filter. xnu's name for it is knote.
struct Watch {
    std::uint16_t flags = 0;
    void* user = nullptr;
    bool enabled = true;
};

// Two epoll sets, as one descriptor may be watched under both filters, behind a third that is the queue's number.
// A watch that is disabled is in its set without events. EV_CLEAR is an edge-triggered entry.
class Queue {
public:
    Queue() : outer_(epoll_create1(EPOLL_CLOEXEC)) {
        for (int& set : sets_) {
            set = epoll_create1(EPOLL_CLOEXEC);
            epoll_event entry{};
            entry.events = EPOLLIN;
            entry.data.fd = set;
            epoll_ctl(outer_, EPOLL_CTL_ADD, set, &entry);
        }
    }
    // The outer set is closed by whoever closes the queue's number.
    ~Queue() {
        for (const int set : sets_)
            close(set);
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    int number() const { return outer_; }

    // 0, or an error number of this system's. The change's flags are those that hold.
    int change(const Event& change) {
        if (change.filter != filterRead && change.filter != filterWrite) return EINVAL;
        const std::lock_guard<std::mutex> guard(lock_);
        const int descriptor = static_cast<int>(change.ident);
        if (fcntl(descriptor, F_GETFD) < 0) return EBADF;
        const Key key{descriptor, change.filter};
        const auto found = watches_.find(key);
        if (found == watches_.end() && !(change.flags & add)) return ENOENT;
        if (change.flags & remove) {
            drop(key);
            return 0;
        }
        Watch& watch = watches_[key];
        if (found == watches_.end()) watch.flags = change.flags;
        watch.user = change.user;
        if (change.flags & disable) watch.enabled = false;
        if (change.flags & enable) watch.enabled = true;
        const int result = arm(key, watch);
        if (result != 0) watches_.erase(key);
        return result;
    }

    void rearm(int descriptor) {
        const std::lock_guard<std::mutex> guard(lock_);
        for (const auto& [key, watch] : watches_)
            if (key.first == descriptor) arm(key, watch);
    }

    void forget(int descriptor) {
        const std::lock_guard<std::mutex> guard(lock_);
        for (const std::int16_t filter : {filterRead, filterWrite}) {
            if (watches_.count({descriptor, filter})) drop({descriptor, filter});
        }
    }

    // What is there now; how many.
    int take(Event* events, int room) {
        int count = 0;
        for (const std::int16_t filter : {filterWrite, filterRead})
            count += takeOf(filter, events + count, room - count);
        return count;
    }

private:
    using Key = std::pair<int, std::int16_t>;

    int setOf(std::int16_t filter) const { return sets_[filter == filterRead ? 0 : 1]; }

    int arm(const Key& key, const Watch& watch) const {
        epoll_event entry{};
        entry.data.fd = key.first;
        if (watch.enabled) {
            entry.events = key.second == filterRead ? EPOLLIN | EPOLLRDHUP : EPOLLOUT;
            if (watch.flags & clear) entry.events |= EPOLLET;
            if (watch.flags & (dispatch | oneShot)) entry.events |= EPOLLONESHOT;
        } else {
            entry.events = EPOLLONESHOT | EPOLLET;
        }
        const int set = setOf(key.second);
        if (epoll_ctl(set, EPOLL_CTL_MOD, key.first, &entry) == 0) return 0;
        if (errno != ENOENT) return errno;
        return epoll_ctl(set, EPOLL_CTL_ADD, key.first, &entry) == 0 ? 0 : errno;
    }

    void drop(const Key& key) {
        epoll_ctl(setOf(key.second), EPOLL_CTL_DEL, key.first, nullptr);
        watches_.erase(key);
    }

    int takeOf(std::int16_t filter, Event* events, int room) {
        if (room <= 0) return 0;
        epoll_event found[16];
        const int count = epoll_wait(setOf(filter), found, std::min(room, 16), 0);
        const std::lock_guard<std::mutex> guard(lock_);
        int taken = 0;
        for (int i = 0; i < count; ++i) {
            const int descriptor = found[i].data.fd;
            const Key key{descriptor, filter};
            const auto watch = watches_.find(key);
            if (watch == watches_.end() || !watch->second.enabled) continue;
            if (isToKeepQuiet(key)) {
                silence(key, watch->second);
                continue;
            }
            if (found[i].events & EPOLLHUP && !hasHungUp(descriptor)) {
                arm(key, watch->second);
                continue;
            }
            events[taken++] = eventOf(key, watch->second, found[i].events);
            if (watch->second.flags & oneShot)
                drop(key);
            else if (watch->second.flags & dispatch)
                watch->second.enabled = false;
        }
        return taken;
    }

    // A socket that nobody connected, or whose connection is held back, is ready here and not there.
    static bool isToKeepQuiet(const Key& key) {
        if (world::isHeldBack(key.first)) return true;
        return key.second == filterWrite && socketState(key.first).unconnected;
    }

    // A connection may have been let go since the event came.
    static bool hasHungUp(int descriptor) {
        pollfd now{descriptor, POLLIN, 0};
        return poll(&now, 1, 0) > 0 && now.revents & POLLHUP;
    }

    void silence(const Key& key, const Watch& watch) const {
        Watch off = watch;
        off.enabled = false;
        arm(key, off);
    }

    static Event eventOf(const Key& key, const Watch& watch, std::uint32_t host) {
        Event event{};
        event.ident = static_cast<std::uint64_t>(key.first);
        event.filter = key.second;
        event.flags = watch.flags;
        event.user = watch.user;
        const bool ended = key.second == filterRead ? host & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)
                                                    : host & (EPOLLHUP | EPOLLERR);
        if (ended) {
            event.flags |= endOfFile;
            event.filterFlags = static_cast<std::uint32_t>(macError(pendingError(key.first)));
        }
        event.data = key.second == filterRead ? waiting(key.first) : room(key.first);
        return event;
    }

    // The socket's error without taking it: this system only takes it, so it is kept for who asks.
    static int pendingError(int descriptor) {
        SocketState state = socketState(descriptor);
        int number = 0;
        socklen_t length = sizeof number;
        if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &number, &length) == 0 && number != 0) {
            state.pendingError = number;
            setSocketState(descriptor, state);
        }
        return state.pendingError;
    }

    // Bytes that can be read. A listening socket counts connections, of which this system tells one at least.
    static std::int64_t waiting(int descriptor) {
        int count = 0;
        if (ioctl(descriptor, FIONREAD, &count) < 0) return errno == EINVAL ? 1 : 0;
        return count;
    }

    static std::int64_t room(int descriptor) {
        int size = 0;
        socklen_t length = sizeof size;
        return getsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 ? size : 0;
    }

    const int outer_;
    int sets_[2] = {-1, -1};
    std::mutex lock_;
    std::map<Key, Watch> watches_;
};

// Never destroyed: threads may wait until the process ends.
struct Table {
    std::mutex lock;
    std::map<int, std::shared_ptr<Queue>> queues;
};

Table& table() {
    static auto& one = *new Table;
    return one;
}

std::shared_ptr<Queue> findQueue(int descriptor) {
    const std::lock_guard<std::mutex> guard(table().lock);
    const auto found = table().queues.find(descriptor);
    return found == table().queues.end() ? nullptr : found->second;
}

int playedKqueue() {
    const ErrorScope scope;
    auto queue = std::make_shared<Queue>();
    const int number = queue->number();
    if (number < 0) return -1;
    const std::lock_guard<std::mutex> guard(table().lock);
    table().queues[number] = std::move(queue);
    return number;
}

// Waits until there is something or the time is over; `deadline` in monotonic microseconds, below 0 for none.
int awaitEvents(Queue& queue, Event* events, int room, std::int64_t deadline) {
    for (;;) {
        const int count = queue.take(events, room);
        if (count > 0) return count;
        int milliseconds = -1;
        if (deadline >= 0) {
            const std::int64_t left = deadline - world::monotonic();
            if (left <= 0) return 0;
            milliseconds = static_cast<int>(std::min<std::int64_t>((left + 999) / 1000, 60000));
        }
        pollfd waited{queue.number(), POLLIN, 0};
        if (poll(&waited, 1, milliseconds) < 0) return -1;
    }
}

bool isLimit(const mac::Time& limit) {
    constexpr std::int64_t mostSeconds = 100000000;
    const std::int64_t microseconds = limit.nanoseconds / 1000;
    return limit.seconds >= 0 && limit.seconds <= mostSeconds && microseconds >= 0 && microseconds < 1000000;
}

// Makes the changes, and tells of those that failed or ask for it where there is room. How many were told of; -1 with
// errno set for a failure that there was no room for, behind which no change is made.
int makeChanges(Queue& queue, const Event* changes, int changeCount, Event* events, int room) {
    int told = 0;
    for (int i = 0; i < changeCount; ++i) {
        Event change = changes[i];
        change.flags = effective(change.flags);
        const int problem = queue.change(change);
        if (problem == 0 && !(change.flags & receipt)) continue;
        if (told < room) {
            change.flags |= error;
            change.data = problem ? macError(problem) : 0;
            events[told++] = change;
        } else if (problem != 0) {
            errno = problem;
            return -1;
        }
    }
    return told;
}

int playedKevent(int descriptor, const Event* changes, int changeCount, Event* events, int room,
                 const mac::Time* limit) {
    const ErrorScope scope;
    if (limit && !isLimit(*limit)) {
        errno = EINVAL;
        return -1;
    }
    const std::shared_ptr<Queue> queue = findQueue(descriptor);
    if (!queue) {
        errno = EBADF;
        return -1;
    }
    const int told = makeChanges(*queue, changes, changeCount, events, room);
    if (told < 0) return -1;
    if (told > 0 || room <= 0) {
        errno = 0;
        return told;
    }
    const std::int64_t deadline =
        limit ? world::monotonic() + world::eventLimit(limit->seconds * 1000000 + limit->nanoseconds / 1000)
              : -1;
    const int count = awaitEvents(*queue, events, room, deadline);
    if (count >= 0) errno = 0;
    return count;
}

} // namespace

void forgetQueue(int descriptor) {
    const std::lock_guard<std::mutex> guard(table().lock);
    table().queues.erase(descriptor);
}

std::unique_lock<std::mutex> lockQueues() { return std::unique_lock(table().lock); }

void closeQueuesInChild() {
    for (const auto& [number, queue] : table().queues)
        close(number);
    table().queues.clear();
}

void rearmWatches(int descriptor) {
    const std::lock_guard<std::mutex> guard(table().lock);
    for (const auto& [number, queue] : table().queues)
        queue->rearm(descriptor);
}

void forgetWatches(int descriptor) {
    const std::lock_guard<std::mutex> guard(table().lock);
    for (const auto& [number, queue] : table().queues)
        queue->forget(descriptor);
}

const ImportTable& queueImports() {
    constexpr const char* source =
        "kern_event.c and uipc_socket.c of xnu: EVFILT_READ and EVFILT_WRITE of sockets";
    static const auto& imports = *new ImportTable{
        function("_kqueue", playedKqueue, source),
        function("_kevent", playedKevent, source),
    };
    return imports;
}

} // namespace machost::libsystem
