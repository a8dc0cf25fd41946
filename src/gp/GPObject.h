#pragma once

// Root of every class of the system: a reference count, the deferred release, and a class name.
//
// Ownership is manual. `new` and the makers hand the caller one reference, which `release` gives back; look-
// ups lend; array and list stores retain, GPMap::setObject takes the caller's reference over. Never `delete`
// a GPObject that was made with `new`; an automatic local needs no release.
//
// Counts are plain, not atomic: whoever shares an object between threads guards it.

#include <cstdint>

class GPString;

// What the base class calls itself. Writable.
extern const char* gpobjectClassName;

class GPObject {
public:
    // A new object has the reference count 1.
    GPObject();

    // Gives one reference back but never destroys. Returns the new count; from 1 the object goes to
    // `lastReferenceGone`, from there to `destroyedMark`, and stays at that.
    virtual int releaseonly();

    // Takes a reference, markers included. Returns the new count.
    virtual int retainonly();

    // Takes a reference and returns the object itself.
    virtual GPObject* retain();

    // Gives one reference back; the last one destroys the object. Returns the new count, which means nothing
    // after the last one; `destroyedMark` for an object that is already being destroyed.
    virtual int release();

    // The class name as an autoreleased string.
    virtual GPString* className();

    // The class name as constant text.
    virtual const char* cclassName();

    virtual ~GPObject();

    GPObject(const GPObject&) = delete;
    GPObject& operator=(const GPObject&) = delete;

    // Hands one reference to the calling thread's top pool, which releases it later. Without a pool nothing
    // happens and the object is never released on the caller's behalf; a second call warns on standard
    // output and adds nothing. Returns the object itself.
    GPObject* autorelease();

    // Whether cclassName() is exactly `name`; base classes do not count. False for null.
    bool isInstanceOf(const char* name);

    static constexpr int lastReferenceGone = -99;
    static constexpr int destroyedMark = -100;

protected:
    // The count as it stands, for subclasses that decide by it; no more than a hint for a shared object.
    int referenceCount() const { return referenceCount_; }

private:
    std::int32_t autoreleaseMark_;
    std::int32_t referenceCount_;
};
