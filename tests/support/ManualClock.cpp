#include "support/ManualClock.h"
#include "support/Patience.h"

namespace testsupport {

ManualClock& ManualClock::installed() {
    // Never destroyed: threads of the system under test may still sleep on it at exit.
    static auto* clock = new ManualClock;
    return *clock;
}

std::int64_t ManualClock::microseconds() {
    std::lock_guard<std::mutex> lock(mutex_);
    return now_;
}

std::time_t ManualClock::seconds() { return static_cast<std::time_t>(microseconds() / 1000000); }

void ManualClock::sleepMicroseconds(unsigned microseconds) { sleepFor(microseconds); }

void ManualClock::sleepSeconds(unsigned seconds) { sleepFor(static_cast<std::int64_t>(seconds) * 1000000); }

void ManualClock::sleepFor(std::int64_t microseconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    sleptTotal_ += microseconds;
    if (sleepsPass_) {
        now_ += microseconds;
        moved_.notify_all();
        return;
    }
    const std::int64_t due = now_ + microseconds;
    ++sleepers_;
    fellAsleep_.notify_all();
    moved_.wait(lock, [&] { return now_ >= due || sleepsPass_; });
    --sleepers_;
}

std::int64_t ManualClock::eventWaitLimit(int seconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (eventWaitMovesTime_) {
        now_ += static_cast<std::int64_t>(seconds) * 1000000;
        moved_.notify_all();
    }
    if (keptWaits_ == 0) return eventWait_;
    --keptWaits_;
    return patienceMicroseconds;
}

void ManualClock::setEventWait(std::int64_t realMicroseconds, bool movesTime) {
    std::lock_guard<std::mutex> lock(mutex_);
    eventWait_ = realMicroseconds;
    eventWaitMovesTime_ = movesTime;
}

void ManualClock::keepWaiting(int waits) {
    std::lock_guard<std::mutex> lock(mutex_);
    keptWaits_ = waits;
}

void ManualClock::advance(std::int64_t microseconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    now_ += microseconds;
    moved_.notify_all();
}

void ManualClock::set(std::int64_t microseconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    now_ = microseconds;
    moved_.notify_all();
}

void ManualClock::letSleepsPass(bool pass) {
    std::lock_guard<std::mutex> lock(mutex_);
    sleepsPass_ = pass;
    moved_.notify_all();
}

bool ManualClock::waitForSleepers(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return fellAsleep_.wait_for(lock, patience, [&] { return sleepers_ >= count; });
}

std::int64_t ManualClock::sleptMicroseconds() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sleptTotal_;
}

} // namespace testsupport
