#include "gp/GPTimer.h"

#include "platform/Clock.h"

GPTimer::GPTimer(bool start) {
    if (start) this->start();
}

void GPTimer::start() { startTime_ = getClockTime(); }

void GPTimer::start(long long microseconds) { startTime_ = microseconds; }

void GPTimer::restart() {
    start();
    retryCount_ = 0;
}

long long GPTimer::elapsedTime() const { return getClockTime() - startTime_; }

long long GPTimer::startedTime() const { return startTime_; }

int GPTimer::retryCount() const { return retryCount_; }

void GPTimer::incrementRetry() { ++retryCount_; }

long long GPTimer::getClockTime() { return platform::clock().microseconds(); }

void GPTimer::sleep(unsigned int microseconds) { platform::clock().sleepMicroseconds(microseconds); }
