#include "agent/ResponseTable.h"

#include "agent/ResponseEntry.h"
#include "gp/GPList.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"

namespace {

void answer(ResponseEntry* entry, GPString* response) {
    if (entry->response) entry->response->release();
    entry->response = response;
    if (entry->semaphore) platform::semaphoreSignal(entry->semaphore);
}

} // namespace

ResponseTable::ResponseTable() : responseMutex(new GPMutex), responses(new GPList) {}

ResponseTable::~ResponseTable() {
    while (auto* entry = static_cast<ResponseEntry*>(responses->firstObject()))
        removeLocked(entry);
    responses->release();
    responseMutex->release();
}

ResponseEntry* ResponseTable::open(std::uint32_t sequence) {
    auto* entry = new ResponseEntry(sequence, platform::semaphoreCreate(0), nullptr);
    GPMutexLock lock(responseMutex);
    responses->addObject(entry);
    entry->retain();
    return entry;
}

GPString* ResponseTable::wait(ResponseEntry* entry) {
    if (entry->semaphore) platform::semaphoreWait(entry->semaphore);
    GPMutexLock lock(responseMutex);
    if (!entry->response) return nullptr;
    auto* copy = new GPString(entry->response);
    if (auto* listed = findLocked(entry->sequence)) removeLocked(listed);
    return copy;
}

void ResponseTable::remove(std::uint32_t sequence) {
    GPMutexLock lock(responseMutex);
    if (auto* entry = findLocked(sequence)) removeLocked(entry);
}

void ResponseTable::close(ResponseEntry* entry) {
    GPMutexLock lock(responseMutex);
    entry->release();
}

void ResponseTable::deliver(std::uint32_t sequence, const char* text, std::size_t length) {
    auto* response = new GPString(text, static_cast<int>(length));
    GPMutexLock lock(responseMutex);
    if (auto* entry = findLocked(sequence)) {
        answer(entry, response);
        return;
    }
    responses->addObject(new ResponseEntry(sequence, nullptr, response));
}

bool ResponseTable::take(std::uint32_t sequence, GPString*& response) {
    GPMutexLock lock(responseMutex);
    auto* entry = findLocked(sequence);
    if (!entry) return false;
    response = new GPString(entry->response);
    removeLocked(entry);
    return true;
}

void ResponseTable::wakeHead() {
    GPMutexLock lock(responseMutex);
    if (auto* head = static_cast<ResponseEntry*>(responses->firstObject())) answer(head, new GPString);
}

int ResponseTable::count() {
    GPMutexLock lock(responseMutex);
    return responses->count();
}

ResponseEntry* ResponseTable::findLocked(std::uint32_t sequence) {
    auto* entry = static_cast<ResponseEntry*>(responses->firstObject());
    while (entry && entry->sequence != sequence)
        entry = static_cast<ResponseEntry*>(responses->nextObject());
    return entry;
}

void ResponseTable::removeLocked(ResponseEntry* entry) {
    responses->removeObject(entry);
    entry->release();
}
