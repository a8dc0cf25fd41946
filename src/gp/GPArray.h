#pragma once

// GPArray: growable vector of objects or of plain pointers. Operations with Object in their names retain on
// the way in and release on the way out, those with Value touch no counts; one addValue turns the whole array
// into an array of values, whose destructor releases nothing.
//
// Not thread-safe as built: whoever shares one guards it. safeRetain makes its reference count safe between
// threads, and an append into free room may run beside readers.

#include "gp/GPObject.h"
#include "gp/ThreadSafety.h"

#include <atomic>
#include <cstdint>

class GPMutex;
class GPString;

class GPArray : public GPObject {
public:
    // Capacity 5.
    GPArray();

    // Capacity `capacity`, or 5 if that is 0 or less.
    explicit GPArray(int capacity);
    ~GPArray() override;

    int release() override;
    GPString* className() override;
    const char* cclassName() override;
    static const char* GPArrayClassName();

    // New arrays, autoreleased. The object is retained; null gives an empty array.
    static GPArray* array();
    static GPArray* arrayWithObject(GPObject* object);

    // Append; null is ignored.
    void addObject(GPObject* object);
    void addValue(void* value);

    // Removes the first equal pointer and releases the argument, whether or not it was found. Returns the
    // index or -1; -1 for null.
    int removeObject(GPObject* object);

    // Removes the first equal pointer. Returns its index or -1; -1 for null. On a safe() array the lock is
    // kept when the value is found.
    int removeValue(void* value);

    // Remove the first entry equal to the one at that index and return it, or null for a bad index. The object
    // form has released what it returns.
    GPObject* removeObjectAtIndex(int index);
    void* removeValueAtIndex(int index);

    // Releases every entry, values too, and goes back to capacity 5 and an array of objects.
    void removeAllObjects();

    // The entry, borrowed, or null for a bad index.
    GPObject* objectAtIndex(int index);
    void* valueAtIndex(int index);

    // First position by identity, -1 for null or absent.
    int indexOfObject(GPObject* object);
    int indexOfValue(void* value);

    int count();

    // The capacity.
    int arraySpace();

    // Raises the capacity to `capacity`; does nothing unless that is more.
    void expandArray(int capacity);

    // Sorts by qsort; the comparator gets pointers to the entries.
    void sort(int (*compare)(const void*, const void*));

    // GPString::join of this array.
    GPString* join(const char* separator);
    GPString* join(const GPString* separator);

    // Makes the lock that lock() and unlock() use; without it they do nothing. A removal on a safe() array
    // blocks for ever, at once or at the next use.
    void safe();
    bool isSafe() const { return mutex_ != nullptr; }
    void lock() ACQUIRE(mutex_);
    void unlock() RELEASE(mutex_);

    // Takes a reference under a lock of the count's own, and has every later release go through it too. The
    // first call must come before the array is shared. Returns the new count.
    int safeRetain();

private:
    static constexpr int defaultCapacity = 5;

    void append(void* entry) REQUIRES(mutex_);
    void** roomFor(int capacity);
    void giveBackRoom();
    bool isIndex(int index) const { return index >= 0 && index < count_.load(std::memory_order_acquire); }

    // Arrays of the default capacity or less, which are most, have their entries here.
    void* ownRoom_[defaultCapacity];
    void** entries_; // read without the lock too
    // Stored after the slot it counts, so that a reader beside an append sees whole entries only.
    std::atomic<std::int32_t> count_;
    std::int32_t capacity_ GUARDED_BY(mutex_);
    std::uint8_t holdsValues_ GUARDED_BY(mutex_);
    GPMutex* mutex_;
    std::atomic<std::uint8_t> retainGuarded_;
    GPMutex* retainMutex_; // guards the reference count only
};
