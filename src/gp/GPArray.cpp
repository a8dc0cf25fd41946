#include "gp/GPArray.h"

#include "gp/GPMutex.h"
#include "gp/GPString.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr char className_[] = "GPArray";

} // namespace

GPArray::GPArray() : GPArray(defaultCapacity) {} // cppcheck-suppress uninitMemberVar // as below

// cppcheck-suppress uninitMemberVar // an entry is written before the count tells of it
GPArray::GPArray(int capacity)
    : entries_(ownRoom_), count_(0), capacity_(capacity > 0 ? capacity : defaultCapacity), holdsValues_(0),
      mutex_(nullptr), retainGuarded_(0), retainMutex_(nullptr) {}

GPArray::~GPArray() {
    if (mutex_) mutex_->release();
    mutex_ = nullptr;
    if (retainMutex_) retainMutex_->release();
    retainMutex_ = nullptr;

    // The count is read again on every step: a destructor that runs here may add an object.
    for (int index = 0; !holdsValues_ && index < count(); ++index) {
        if (entries_[index]) static_cast<GPObject*>(entries_[index])->release();
    }
    giveBackRoom();
}

void** GPArray::roomFor(int capacity) {
    return capacity <= defaultCapacity ? ownRoom_ : new void*[static_cast<std::size_t>(capacity)]();
}

void GPArray::giveBackRoom() {
    if (entries_ != ownRoom_) delete[] entries_;
}

int GPArray::release() {
    if (!retainGuarded_.load(std::memory_order_relaxed)) return GPObject::release();

    GPMutexLock guard(retainMutex_);
    const int left = releaseonly();
    guard.unlock();
    if (left != lastReferenceGone) return left;

    // One thread alone sees this mark, so exactly one destroys the array.
    if (releaseonly() == destroyedMark) delete this;
    return destroyedMark;
}

int GPArray::safeRetain() {
    if (!retainMutex_ && referenceCount() >= 1) retainMutex_ = new GPMutex();
    retainGuarded_.store(1, std::memory_order_relaxed);
    GPMutexLock guard(retainMutex_);
    return retainonly();
}

GPString* GPArray::className() { return GPString::string(className_); }

const char* GPArray::cclassName() { return className_; }

const char* GPArray::GPArrayClassName() { return className_; }

GPArray* GPArray::array() { return static_cast<GPArray*>((new GPArray())->autorelease()); }

GPArray* GPArray::arrayWithObject(GPObject* object) {
    GPArray* result = array();
    result->addObject(object);
    return result;
}

void GPArray::append(void* entry) {
    const int used = count_.load(std::memory_order_relaxed);
    // Large room is made for the first entry, since many arrays stay empty.
    if (used == 0 && entries_ == ownRoom_) entries_ = roomFor(capacity_);
    if (capacity_ <= used && used >= 1) expandArray(used * 2);
    entries_[used] = entry;
    count_.store(used + 1, std::memory_order_release);
}

void GPArray::addObject(GPObject* object) {
    if (!object) return;
    GPMutexLock guard(mutex_);
    object->retain();
    append(object);
}

void GPArray::addValue(void* value) {
    if (!value) return;
    GPMutexLock guard(mutex_);
    holdsValues_ = 1;
    append(value);
}

int GPArray::removeObject(GPObject* object) {
    if (!object) return -1;
    const int index = removeValue(object);
    // Released even when it was not there.
    object->release();
    return index;
}

// Keeps the lock when the value is found, which no check allows.
int GPArray::removeValue(void* value) NO_THREAD_SAFETY_ANALYSIS {
    if (!value) return -1;
    lock();
    const int found = indexOfValue(value);
    if (found < 0) {
        unlock();
        return -1;
    }

    // Where the array's own room serves, the entries behind the removed one move up in it.
    void** fresh = roomFor(capacity_);
    const int used = count_.load(std::memory_order_relaxed);
    for (int index = 0, kept = 0; index < used; ++index) {
        if (index != found) fresh[kept++] = objectAtIndex(index);
    }
    // removeAllObjects may be under way, and releases what it finds up to the last entry of its start.
    fresh[used - 1] = nullptr;
    if (fresh != entries_) giveBackRoom();
    entries_ = fresh;
    count_.store(used - 1, std::memory_order_release);
    // The lock is kept, on purpose; that is the known limit of a safe() array.
    return found;
}

GPObject* GPArray::removeObjectAtIndex(int index) {
    if (!isIndex(index)) return nullptr;
    auto* object = static_cast<GPObject*>(removeValueAtIndex(index));
    if (object) object->release();
    return object;
}

// Keeps the lock as removeValue does.
void* GPArray::removeValueAtIndex(int index) NO_THREAD_SAFETY_ANALYSIS {
    lock();
    void* value = valueAtIndex(index);
    if (value) {
        // By value and with the lock held, on purpose: an equal entry further in front goes instead.
        removeValue(value);
        return value;
    }
    unlock();
    return nullptr;
}

void GPArray::removeAllObjects() {
    GPMutexLock guard(mutex_);
    const int used = count_.load(std::memory_order_relaxed);
    // Values are released as well.
    for (int index = 0; index < used; ++index) {
        if (entries_[index]) static_cast<GPObject*>(entries_[index])->release();
    }
    count_.store(0, std::memory_order_release);
    capacity_ = defaultCapacity;
    holdsValues_ = 0;
    giveBackRoom();
    entries_ = ownRoom_;
}

GPObject* GPArray::objectAtIndex(int index) {
    GPMutexLock guard(mutex_);
    return static_cast<GPObject*>(valueAtIndex(index));
}

void* GPArray::valueAtIndex(int index) { return isIndex(index) ? entries_[index] : nullptr; }

int GPArray::indexOfObject(GPObject* object) { return indexOfValue(object); }

int GPArray::indexOfValue(void* value) {
    const int used = count_.load(std::memory_order_acquire);
    for (int index = 0; value && index < used; ++index) {
        if (entries_[index] == value) return index;
    }
    return -1;
}

int GPArray::count() {
    GPMutexLock guard(mutex_);
    return count_.load(std::memory_order_acquire);
}

int GPArray::arraySpace() {
    GPMutexLock guard(mutex_);
    return capacity_;
}

// Takes no lock, by rule: an append of a safe() array calls it with the lock held.
void GPArray::expandArray(int capacity) NO_THREAD_SAFETY_ANALYSIS {
    if (capacity <= capacity_) return;
    void** larger = roomFor(capacity);
    if (larger != ownRoom_) {
        std::copy(entries_, entries_ + count_.load(std::memory_order_relaxed), larger);
        giveBackRoom();
        entries_ = larger;
    }
    capacity_ = capacity;
}

void GPArray::sort(int (*compare)(const void*, const void*)) {
    std::qsort(static_cast<void*>(entries_), static_cast<std::size_t>(count()), sizeof(void*), compare);
}

GPString* GPArray::join(const char* separator) { return GPString::join(this, separator); }

GPString* GPArray::join(const GPString* separator) { return GPString::join(this, separator); }

void GPArray::safe() {
    if (!mutex_) mutex_ = new GPMutex();
}

// Nothing is locked, nor needs to be, until safe() has made the lock. The check takes it for always there.
void GPArray::lock() NO_THREAD_SAFETY_ANALYSIS {
    if (mutex_) mutex_->lock();
}

void GPArray::unlock() NO_THREAD_SAFETY_ANALYSIS {
    if (mutex_) mutex_->unlock();
}
