#pragma once

// GPMap: chained hash table from text keys to objects, with a number of buckets that is fixed when it is
// built. Keys are compared exactly. The key walk goes by ascending bucket and in order of insertion inside one.
//
// Not thread-safe, and reading moves cursors: whoever shares one locks for readers too.

#include "gp/GPArray.h"
#include "gp/GPObject.h"
#include "gp/ThreadSafety.h"

#include <cstdint>
#include <string_view>

class GPList;
class GPMutex;
class GPPair;
class GPString;

class GPMap : public GPObject {
public:
    // 10 buckets.
    GPMap();

    // `buckets` must be at least 1.
    explicit GPMap(int buckets);
    ~GPMap() override;

    GPString* className() override;
    const char* cclassName() override;
    static const char* GPMapClassName();

    // Stores the value in place of what was under the key. The caller's reference to the value passes to the
    // map. Nothing happens if either is null.
    void setObject(GPObject* value, const char* key);

    // As above for a key that is not in the map, which is not looked for: it costs no walk of a chain. The value must
    // not be null, and the key ends at its first NUL.
    void setNewObject(GPObject* value, std::string_view key);

    // Removes the entry and releases its value; nothing happens for an absent key.
    void removeObjectForKey(const char* key);

    // The value, borrowed, or null.
    GPObject* objectForKey(const char* key);

    // The key walk; the text is borrowed, null at the end. A change of the map during a walk can skip or
    // repeat a key.
    const char* firstKey();
    const char* nextKey();

    int count();

    // Makes the lock that lock() and unlock() use; without it they do nothing.
    void safe();
    bool isSafe() const { return mutex_ != nullptr; }
    void lock() ACQUIRE(mutex_);
    void unlock() RELEASE(mutex_);

    // Doubles the buckets and spreads the pairs anew. Afterwards count() is 0 and only objectForKey still
    // sees the pairs.
    void rebalance();

private:
    // Takes over the reference of the pair's making.
    void addPair(GPPair* pair);
    GPList* bucketForKey(const char* key) REQUIRES(mutex_);
    void addBuckets(int upTo) REQUIRES(mutex_);

    GPArray buckets_ GUARDED_BY(mutex_);
    std::int32_t count_ GUARDED_BY(mutex_);
    std::int32_t walkBucket_ GUARDED_BY(mutex_);
    std::int32_t walkPosition_ GUARDED_BY(mutex_);
    GPMutex* mutex_;
};
