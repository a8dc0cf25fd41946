#pragma once

// A stopwatch in microseconds with a retry counter. It reads the wall clock, so it goes backwards when the
// clock is set back. One thread at a time.

#include "gp/GPObject.h"

#include <cstdint>

class GPTimer : public GPObject {
public:
    // Not started; start or restart comes first.
    GPTimer() = default;

    // Started now if `start` is true.
    explicit GPTimer(bool start);

    // Sets the start time to now, or to `microseconds` since the epoch. The retry count stays.
    void start();
    void start(long long microseconds);

    // Sets the start time to now and the retry count to 0.
    void restart();

    // Microseconds since the start.
    long long elapsedTime() const;

    // The start time in microseconds since the epoch.
    long long startedTime() const;

    int retryCount() const;
    void incrementRetry();

    // Now, in microseconds since the epoch. Any thread.
    static long long getClockTime();

    // Blocks the calling thread for that many microseconds.
    static void sleep(unsigned int microseconds);

private:
    std::int64_t startTime_ = 0;
    std::int32_t retryCount_ = 0;
};
