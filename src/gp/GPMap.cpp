#include "gp/GPMap.h"

#include "gp/GPList.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPPair.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <cstring>

namespace {

constexpr char className_[] = "GPMap";
constexpr int defaultBuckets = 10;

GPPair* pairOf(GPObject* object) { return static_cast<GPPair*>(object); }

GPList* bucketAt(GPArray& buckets, int index) { return static_cast<GPList*>(buckets.objectAtIndex(index)); }

// The bucket's pair with that key, with the bucket's cursor on it, or null.
GPPair* pairWithKey(GPList* bucket, const char* key) {
    for (GPPair* pair = pairOf(bucket->firstObject()); pair; pair = pairOf(bucket->nextObject())) {
        if (std::strcmp(pair->key(), key) == 0) return pair;
    }
    return nullptr;
}

// Bytes count as signed, in 32-bit arithmetic with wrap-around.
std::uint32_t hashOf(const char* key, std::uint32_t capacity) {
    std::uint32_t hash = capacity / 2;
    for (; *key; ++key) {
        hash = static_cast<std::uint32_t>(static_cast<signed char>(*key)) + hash * 101;
    }
    return hash;
}

} // namespace

GPMap::GPMap() : GPMap(defaultBuckets) {}

GPMap::GPMap(int buckets) : buckets_(buckets), count_(0), walkBucket_(0), walkPosition_(0), mutex_(nullptr) {
    addBuckets(buckets);
}

GPMap::~GPMap() {
    if (mutex_) mutex_->release();
    mutex_ = nullptr;
    for (int index = 0; index < buckets_.count(); ++index) {
        GPList* bucket = bucketAt(buckets_, index);
        for (GPPair* pair = pairOf(bucket->firstObject()); pair; pair = pairOf(bucket->nextObject())) {
            pair->releaseMapReference();
        }
        bucket->release();
    }
}

// Each bucket keeps the reference of its making besides the array's.
void GPMap::addBuckets(int upTo) {
    while (buckets_.count() < upTo) {
        buckets_.addObject(new GPList());
    }
}

GPString* GPMap::className() { return GPString::string(className_); }

const char* GPMap::cclassName() { return className_; }

const char* GPMap::GPMapClassName() { return className_; }

GPList* GPMap::bucketForKey(const char* key) {
    const auto capacity = static_cast<std::uint32_t>(buckets_.arraySpace());
    return bucketAt(buckets_, static_cast<int>(hashOf(key, capacity) % capacity));
}

void GPMap::setObject(GPObject* value, const char* key) {
    if (!value || !key) return;
    // Copied first: the key may be the text of the very pair that goes.
    GPPair* pair = GPPair::of(key, value);
    removeObjectForKey(pair->key());
    addPair(pair);
}

void GPMap::setNewObject(GPObject* value, std::string_view key) { addPair(GPPair::of(key, value)); }

void GPMap::addPair(GPPair* pair) {
    GPMutexLock guard(mutex_);
    // The pair keeps the reference of its making besides the list's.
    bucketForKey(pair->key())->addObject(pair);
    ++count_;
}

void GPMap::removeObjectForKey(const char* key) {
    if (!key) return;
    GPMutexLock guard(mutex_);
    if (count_ == 0) return;
    GPList* bucket = bucketForKey(key);
    GPPair* pair = pairWithKey(bucket, key);
    if (!pair) return;
    --count_;
    pair->releaseMapReference();
    bucket->removeObject(pair);
}

GPObject* GPMap::objectForKey(const char* key) {
    if (!key) return nullptr;
    GPMutexLock guard(mutex_);
    GPPair* pair = pairWithKey(bucketForKey(key), key);
    return pair ? pair->value() : nullptr;
}

const char* GPMap::firstKey() {
    GPMutexLock guard(mutex_);
    if (count_ == 0) return nullptr;
    walkBucket_ = 0;
    walkPosition_ = 0;
    for (int index = 0; index < buckets_.count(); ++index) {
        bucketAt(buckets_, index)->firstObject();
    }
    guard.unlock();
    return nextKey();
}

const char* GPMap::nextKey() {
    GPMutexLock guard(mutex_);
    for (; walkBucket_ < buckets_.count(); ++walkBucket_, walkPosition_ = 0) {
        GPPair* pair = pairOf(bucketAt(buckets_, walkBucket_)->objectAtIndex(walkPosition_));
        if (!pair) continue;
        ++walkPosition_;
        return pair->key();
    }
    return nullptr;
}

int GPMap::count() {
    GPMutexLock guard(mutex_);
    return count_;
}

void GPMap::safe() {
    if (!mutex_) mutex_ = new GPMutex();
}

// Nothing is locked, nor needs to be, until safe() has made the lock. The check takes it for always there.
void GPMap::lock() NO_THREAD_SAFETY_ANALYSIS {
    if (mutex_) mutex_->lock();
}

void GPMap::unlock() NO_THREAD_SAFETY_ANALYSIS {
    if (mutex_) mutex_->unlock();
}

void GPMap::rebalance() {
    logs("GPMap::rebalance entry");
    auto pairs = Owned<GPArray>::adopt(new GPArray());
    lock();
    for (int index = 0; index < buckets_.count(); ++index) {
        GPList* bucket = bucketAt(buckets_, index);
        for (GPObject* pair = bucket->firstObject(); pair; pair = bucket->nextObject()) {
            pairs->addObject(pair);
        }
    }
    unlock();
    for (int index = 0; index < pairs->count(); ++index) {
        removeObjectForKey(pairOf(pairs->objectAtIndex(index))->key());
    }

    GPMutexLock guard(mutex_);
    buckets_.expandArray(buckets_.arraySpace() * 2);
    addBuckets(buckets_.arraySpace());
    // The pairs come back without being counted and without the map's own reference.
    for (int index = 0; index < pairs->count(); ++index) {
        GPPair* pair = pairOf(pairs->objectAtIndex(index));
        bucketForKey(pair->key())->addObject(pair);
    }
}
