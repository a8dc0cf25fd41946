#include "agent/ResponseEntry.h"

#include "gp/GPString.h"

ResponseEntry::ResponseEntry(std::uint32_t number, platform::Semaphore* waiter, GPString* text)
    : sequence(number), semaphore(waiter), response(text) {}

ResponseEntry::~ResponseEntry() {
    if (semaphore) platform::semaphoreRelease(semaphore);
    if (response) response->release();
}
