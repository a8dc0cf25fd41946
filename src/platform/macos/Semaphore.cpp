#include "platform/Semaphore.h"

#include <dispatch/dispatch.h>

#include <new>

namespace platform {

struct Semaphore {
    dispatch_semaphore_t handle;
};

Semaphore* semaphoreCreate(long value) {
    dispatch_semaphore_t handle = dispatch_semaphore_create(value);
    if (!handle) return nullptr;
    auto* semaphore = new (std::nothrow) Semaphore{handle};
    if (!semaphore) dispatch_release(handle);
    return semaphore;
}

void semaphoreSignal(Semaphore* semaphore) { dispatch_semaphore_signal(semaphore->handle); }

void semaphoreWait(Semaphore* semaphore) {
    dispatch_semaphore_wait(semaphore->handle, DISPATCH_TIME_FOREVER);
}

void semaphoreRelease(Semaphore* semaphore) {
    dispatch_release(semaphore->handle);
    delete semaphore;
}

} // namespace platform
