#pragma once

// Held around every call of this program's that lets the C library convert a time. The library does that under a
// lock of its own, which is free again in a forked child only if no thread was inside at the fork. So all of them
// take this lock first, and every fork of the process waits for it. Any thread; not while one is held.

class TimeZoneLock {
public:
    TimeZoneLock();
    ~TimeZoneLock();

    TimeZoneLock(const TimeZoneLock&) = delete;
    TimeZoneLock& operator=(const TimeZoneLock&) = delete;
};
