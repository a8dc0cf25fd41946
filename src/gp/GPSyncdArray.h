#pragma once

// GPSyncdArray: the array for lists that every thread reads and few write. Readers take a snapshot with
// getArray and never block one another; writers take turns. An element is removed by building a new array; a
// retired array and what it holds live on for the rest of the run, so an element stays valid after it was
// taken out. A new GPSyncdArray has the count 2 and lives for the whole run too.

#include "gp/GPObject.h"
#include "gp/ThreadSafety.h"

#include <atomic>
#include <cstdint>

class GPArray;
class GPMutex;
class GPString;

class GPSyncdArray : public GPObject {
public:
    // Initial capacity 5.
    GPSyncdArray();

    // Initial capacity `capacity`, or 5 if that is below 1.
    explicit GPSyncdArray(int capacity);
    ~GPSyncdArray() override;

    GPString* className() override;

    // The reader's snapshot: the current array with one more reference, which the caller releases.
    GPArray* getArray();

    // The current array, borrowed.
    GPArray* getInternalArray() { return current_.load(std::memory_order_acquire); }

    // Appends; returns true. Into free room it goes in place, so snapshots see it too.
    bool addObject(GPObject* object);

    // True if it was there.
    bool removeObject(GPObject* object);

    // Empties.
    void removeAll();

    // A new array with the count 2, of the same capacity or twice that if the source is full, with the entries
    // but the one at index `skip`; -1 leaves out nothing.
    GPArray* clone(GPArray* source, int skip);

    // The GPString with that text, borrowed, or null. When the array ends in an element that is no string,
    // that element is the answer for an absent text.
    GPObject* findStringObject(const char* text);

    // Index of the first GPString with that text, or -1; other elements are stepped over.
    int findStringObjectIndex(GPArray* array, const char* text);

    // False for null or empty text and for text that is already there.
    bool addString(GPString* text);

    // False for null or empty text and for text that is not there.
    bool removeString(GPString* text);

private:
    // For a writer that holds a snapshot.
    void appendTo(GPArray* snapshot, GPObject* object) REQUIRES(mutex_);
    void removeFrom(GPArray* snapshot, int index) REQUIRES(mutex_);

    std::int32_t initialCapacity_;
    std::atomic<GPArray*> current_;
    GPMutex* mutex_; // taken by writers
};
