#pragma once

// Counting semaphores with the words of libdispatch. A thread waits without a time limit, another signals.
// Any thread may call any of these; the one that releases must know that nobody waits or signals any more.

namespace platform {

struct Semaphore;

// Makes a semaphore with the count `value` (0 or more). The caller releases it; null when the system has none
// to give.
Semaphore* semaphoreCreate(long value);

// Raises the count by one and wakes one waiter.
void semaphoreSignal(Semaphore* semaphore);

// Blocks until the count is above 0, then lowers it by one.
void semaphoreWait(Semaphore* semaphore);

// Gives the semaphore back.
void semaphoreRelease(Semaphore* semaphore);

} // namespace platform
