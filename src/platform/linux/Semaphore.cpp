#include "platform/Semaphore.h"

#include <semaphore.h>

#include <cerrno>
#include <new>

namespace platform {

struct Semaphore {
    sem_t count;
};

Semaphore* semaphoreCreate(long value) {
    auto* semaphore = new (std::nothrow) Semaphore;
    if (!semaphore) return nullptr;
    if (sem_init(&semaphore->count, 0, static_cast<unsigned>(value)) == 0) return semaphore;
    delete semaphore;
    return nullptr;
}

void semaphoreSignal(Semaphore* semaphore) { sem_post(&semaphore->count); }

void semaphoreWait(Semaphore* semaphore) {
    while (sem_wait(&semaphore->count) != 0 && errno == EINTR) {
    }
}

void semaphoreRelease(Semaphore* semaphore) {
    sem_destroy(&semaphore->count);
    delete semaphore;
}

} // namespace platform
