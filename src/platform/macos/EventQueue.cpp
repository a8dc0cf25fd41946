#include "platform/EventQueue.h"

// The system's header defines the same words as macros, so their values are taken down first.
namespace {
namespace boundary {
constexpr auto filterRead = platform::EVFILT_READ;
constexpr auto filterWrite = platform::EVFILT_WRITE;
constexpr auto add = platform::EV_ADD;
constexpr auto remove = platform::EV_DELETE;
constexpr auto clear = platform::EV_CLEAR;
constexpr auto dispatch = platform::EV_DISPATCH;
constexpr auto error = platform::EV_ERROR;
constexpr auto endOfFile = platform::EV_EOF;
} // namespace boundary
} // namespace

#include "platform/Clock.h"
#include "platform/macos/DescriptorMark.h"

#include <sys/event.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

static_assert(boundary::filterRead == EVFILT_READ && boundary::filterWrite == EVFILT_WRITE);
static_assert(boundary::add == EV_ADD && boundary::remove == EV_DELETE && boundary::clear == EV_CLEAR);
static_assert(boundary::dispatch == EV_DISPATCH && boundary::error == EV_ERROR);
static_assert(boundary::endOfFile == EV_EOF);

namespace platform {

int kqueue() {
    const DescriptorMaking making;
    return markedClosedOnExec(::kqueue());
}

int kevent(int queue, const KEvent* change, KEvent* events, int room, int seconds) {
    const int before = errno;
    struct ::kevent wanted {};
    if (change) {
        wanted.ident = static_cast<uintptr_t>(change->ident);
        wanted.filter = change->filter;
        wanted.flags = change->flags;
    }
    std::vector<struct ::kevent> found(static_cast<std::size_t>(std::max(room, 1)));
    timespec limit{};
    if (seconds > 0) {
        const std::int64_t microseconds = clock().eventWaitLimit(seconds);
        limit.tv_sec = static_cast<time_t>(microseconds / 1000000);
        limit.tv_nsec = static_cast<long>(microseconds % 1000000 * 1000);
    } else if (seconds < 0) {
        limit.tv_sec = seconds;
    }
    const int count = ::kevent(queue, change ? &wanted : nullptr, change ? 1 : 0, found.data(),
                               std::max(room, 0), seconds == 0 ? nullptr : &limit);
    if (count < 0) return count;
    for (int i = 0; i < count; ++i) {
        const auto& from = found[static_cast<std::size_t>(i)];
        events[i].ident = static_cast<int>(from.ident);
        events[i].filter = from.filter;
        events[i].flags = from.flags;
        events[i].data = from.data;
    }
    errno = before;
    if (count > 0 && (events[0].flags & EV_ERROR)) errno = static_cast<int>(events[0].data);
    return count;
}

void closeQueue(int queue) { close(queue); }

} // namespace platform
