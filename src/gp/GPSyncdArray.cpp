#include "gp/GPSyncdArray.h"

#include "gp/GPArray.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

namespace {

constexpr int defaultCapacity = 5;

// A new array with the count 2. Its reference lock is there before any reader can see it: two first readers
// would each make one.
GPArray* shareableArray(int capacity) {
    GPArray* array = new GPArray(capacity);
    array->safeRetain();
    return array;
}

bool isFull(GPArray* array) { return array->count() >= array->arraySpace(); }

} // namespace

GPSyncdArray::GPSyncdArray() : GPSyncdArray(defaultCapacity) {}

GPSyncdArray::GPSyncdArray(int capacity)
    : initialCapacity_(capacity < 1 ? defaultCapacity : capacity), current_(shareableArray(initialCapacity_)),
      mutex_(new GPMutex()) {
    // One release does not destroy it, on purpose: these arrays live for the whole run.
    retain();
}

GPSyncdArray::~GPSyncdArray() {
    mutex_->release();
    // One of two references: the array lives on.
    getInternalArray()->release();
}

GPString* GPSyncdArray::className() { return GPString::string("GPSyncdArray"); }

GPArray* GPSyncdArray::getArray() {
    GPArray* array = getInternalArray();
    if (array->safeRetain() <= 1) {
        logf("!!!warning in SyncArray!!!");
        array->safeRetain();
    }
    return array;
}

GPArray* GPSyncdArray::clone(GPArray* source, int skip) {
    GPArray* result = shareableArray(isFull(source) ? source->arraySpace() * 2 : source->arraySpace());
    for (int index = 0; index < source->count(); ++index) {
        if (index != skip) result->addObject(source->objectAtIndex(index));
    }
    return result;
}

// A retired array keeps one reference for ever, on purpose: a reader that fetched the pointer an instant before
// can still retain it.
void GPSyncdArray::appendTo(GPArray* snapshot, GPObject* object) {
    if (!isFull(snapshot)) {
        snapshot->addObject(object);
        return;
    }
    GPArray* larger = clone(snapshot, -1);
    larger->addObject(object);
    current_.store(larger, std::memory_order_release);
    snapshot->release();
}

void GPSyncdArray::removeFrom(GPArray* snapshot, int index) {
    GPArray* smaller = clone(snapshot, index);
    current_.store(smaller, std::memory_order_release);
    snapshot->release();
}

bool GPSyncdArray::addObject(GPObject* object) {
    GPMutexLock guard(mutex_);
    auto snapshot = Owned<GPArray>::adopt(getArray());
    appendTo(snapshot.get(), object);
    guard.unlock();
    return true;
}

bool GPSyncdArray::removeObject(GPObject* object) {
    GPMutexLock guard(mutex_);
    auto snapshot = Owned<GPArray>::adopt(getArray());
    const int index = snapshot->indexOfObject(object);
    if (index >= 0) removeFrom(snapshot.get(), index);
    guard.unlock();
    return index >= 0;
}

void GPSyncdArray::removeAll() {
    GPMutexLock guard(mutex_);
    GPArray* retired = getInternalArray();
    if (retired->count() == 0) return;
    current_.store(shareableArray(initialCapacity_), std::memory_order_release);
    retired->release();
}

GPObject* GPSyncdArray::findStringObject(const char* text) {
    auto snapshot = Owned<GPArray>::adopt(getArray());
    GPObject* candidate = nullptr;
    for (int index = 0; index < snapshot->count(); ++index) {
        candidate = snapshot->objectAtIndex(index);
        // An element that is no string stays the candidate.
        if (!candidate->isInstanceOf(GPString::GPStringClassName())) continue;
        if (static_cast<GPString*>(candidate)->isEqual(text)) break;
        candidate = nullptr;
    }
    return candidate;
}

int GPSyncdArray::findStringObjectIndex(GPArray* array, const char* text) {
    for (int index = 0; index < array->count(); ++index) {
        GPObject* element = array->objectAtIndex(index);
        if (!element->isInstanceOf(GPString::GPStringClassName())) continue;
        if (static_cast<GPString*>(element)->isEqual(text)) return index;
    }
    return -1;
}

bool GPSyncdArray::addString(GPString* text) {
    if (!text || text->length() == 0) return false;
    GPMutexLock guard(mutex_);
    auto snapshot = Owned<GPArray>::adopt(getArray());
    const bool isNew = findStringObjectIndex(snapshot.get(), text->cstr()) < 0;
    if (isNew) appendTo(snapshot.get(), text);
    guard.unlock();
    return isNew;
}

bool GPSyncdArray::removeString(GPString* text) {
    if (!text || text->length() == 0) return false;
    GPMutexLock guard(mutex_);
    auto snapshot = Owned<GPArray>::adopt(getArray());
    const int index = findStringObjectIndex(snapshot.get(), text->cstr());
    if (index >= 0) removeFrom(snapshot.get(), index);
    guard.unlock();
    return index >= 0;
}
