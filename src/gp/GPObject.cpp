#include "gp/GPObject.h"

#include "gp/GPAutoReleasePool.h"
#include "gp/GPString.h"

#include <cstdio>
#include <cstring>

const char* gpobjectClassName = "GPObject";

GPObject::GPObject() : autoreleaseMark_(0), referenceCount_(1) {}

GPObject::~GPObject() = default;

int GPObject::releaseonly() {
    if (referenceCount_ == destroyedMark) return destroyedMark;
    if (referenceCount_ == 1) return referenceCount_ = lastReferenceGone;
    return --referenceCount_;
}

int GPObject::retainonly() { return ++referenceCount_; }

GPObject* GPObject::retain() {
    ++referenceCount_;
    return this;
}

int GPObject::release() {
    if (referenceCount_ == destroyedMark) return destroyedMark;
    if (referenceCount_ != 1) return --referenceCount_;
    // Set ahead of the destructor: a second release that arrives while it runs does nothing.
    referenceCount_ = destroyedMark;
    delete this;
    return destroyedMark;
}

GPString* GPObject::className() { return GPString::string(gpobjectClassName); }

const char* GPObject::cclassName() { return gpobjectClassName; }

GPObject* GPObject::autorelease() {
    GPAutoReleasePool* pool = GPAutoReleasePool::topPool();
    if (!pool) return this;

    // The mark is never reset, on purpose: an object enters a pool at most once in its life.
    if (autoreleaseMark_ != 0) {
        std::printf("!!!WARNING: Internal Error: object autorelease integrity error. (count=%d class=%s)\n",
                    autoreleaseMark_, className()->cstr());
        return this;
    }
    autoreleaseMark_ = 1;
    pool->addObject(this);
    return this;
}

bool GPObject::isInstanceOf(const char* name) {
    const char* own = cclassName();
    return name && own && std::strcmp(own, name) == 0;
}
