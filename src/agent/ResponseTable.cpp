#include "agent/ResponseTable.h"

#include "agent/ResponseEntry.h"
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
    while (!index_.empty())
        removeLocked(index_.begin());
    responses->release();
    responseMutex->release();
}

ResponseEntry* ResponseTable::open(std::uint32_t sequence) {
    auto* entry = new ResponseEntry(sequence, platform::semaphoreCreate(0), nullptr);
    GPMutexLock lock(responseMutex);
    addLocked(entry);
    entry->retain();
    return entry;
}

GPString* ResponseTable::wait(ResponseEntry* entry) {
    if (entry->semaphore) platform::semaphoreWait(entry->semaphore);
    GPMutexLock lock(responseMutex);
    if (!entry->response) return nullptr;
    auto* copy = new GPString(entry->response);
    removeLocked(findLocked(entry->sequence));
    return copy;
}

void ResponseTable::remove(std::uint32_t sequence) {
    GPMutexLock lock(responseMutex);
    removeLocked(findLocked(sequence));
}

void ResponseTable::close(ResponseEntry* entry) {
    GPMutexLock lock(responseMutex);
    entry->release();
}

void ResponseTable::deliver(std::uint32_t sequence, const char* text, std::size_t length) {
    auto* response = new GPString(text, static_cast<int>(length));
    GPMutexLock lock(responseMutex);
    const auto found = findLocked(sequence);
    if (found != index_.end())
        answer(entryAtLocked(found), response);
    else
        addLocked(new ResponseEntry(sequence, nullptr, response));
}

bool ResponseTable::take(std::uint32_t sequence, GPString*& response) {
    GPMutexLock lock(responseMutex);
    const auto found = findLocked(sequence);
    if (found == index_.end()) return false;
    response = new GPString(entryAtLocked(found)->response);
    removeLocked(found);
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

void ResponseTable::addLocked(ResponseEntry* entry) {
    responses->addObject(entry);
    index_.emplace(entry->sequence, responses->place());
}

ResponseTable::Index::iterator ResponseTable::findLocked(std::uint32_t sequence) {
    const auto first = index_.lower_bound(sequence);
    return first != index_.end() && first->first == sequence ? first : index_.end();
}

ResponseEntry* ResponseTable::entryAtLocked(Index::iterator found) {
    responses->moveTo(found->second);
    return static_cast<ResponseEntry*>(responses->currentObject());
}

void ResponseTable::removeLocked(Index::iterator found) {
    if (found == index_.end()) return;
    ResponseEntry* entry = entryAtLocked(found);
    index_.erase(found);
    responses->removeObject(entry);
    entry->release();
}
