#pragma once

// Waiting for descriptors in the words of kqueue: one call applies one change and waits once. The names and
// values are those of sys/event.h, which therefore is never included ahead of this header.
//
// A queue is a descriptor number. Several threads may own queues of their own; one queue belongs to one
// thread at a time, except that another thread may close it.
//
// A dispatched event that is added again stays disabled on the Mac: its kernel enables one only for a flag of its own,
// which the flags of this system do not have in them. So a second wait to write on one connection ends with its time
// there. No path of the daemon has one. Linux's backend enables the event.

#include <cstdint>

namespace platform {

inline constexpr std::int16_t EVFILT_READ = -1;
inline constexpr std::int16_t EVFILT_WRITE = -2;

inline constexpr std::uint16_t EV_ADD = 0x0001;      // adds the event, or looks at it afresh
inline constexpr std::uint16_t EV_DELETE = 0x0002;   // forgets the event
inline constexpr std::uint16_t EV_CLEAR = 0x0020;    // reported once, then again only for new activity
inline constexpr std::uint16_t EV_DISPATCH = 0x0080; // reported once, then disabled
inline constexpr std::uint16_t EV_ERROR = 0x4000;    // answer: the change failed, `data` is the error number
inline constexpr std::uint16_t EV_EOF = 0x8000;      // answer: the direction is closed

// A change to a queue, or an event that it reports.
struct KEvent {
    int ident = -1;          // the descriptor
    std::int16_t filter = 0; // EVFILT_READ or EVFILT_WRITE
    std::uint16_t flags = 0; // EV_ words
    std::int64_t data = 0;   // for a read event the bytes waiting; for a listening socket 1 or more
};

// A new queue, or -1 with errno set. closeQueue gives it back.
int kqueue();

// Applies `change`, if it is not null, then waits until the queue reports something, and stores up to `room`
// events. The wait is limited to `seconds` (as the clock rules it), or has no limit when that is 0. Answers
// the number of events, 0 when the time is over or there is no room, -1 with errno set on failure. A change
// that fails is itself reported, at once, as an event with EV_ERROR. Leaves errno alone unless it fails.
int kevent(int queue, const KEvent* change, KEvent* events, int room, int seconds);

// Closes a queue. A thread that waits on it is not promised to wake.
void closeQueue(int queue);

} // namespace platform
