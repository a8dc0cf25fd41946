#pragma once

// Autorelease pools. Each thread has its own; what is left when it ends goes with it.

#include "machost/objects/Object.h"

#include <utility>

namespace machost::objc {

// Has the innermost pool of this thread release the object; null is allowed. Answers the object.
ObjectRef autorelease(ObjectRef object);

void* pushPool();

// Releases what came since that push, the last first.
void popPool(void* token);

// A pool for a scope.
class Pool {
public:
    Pool() : token_(pushPool()) {}
    ~Pool() { popPool(token_); }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

private:
    void* const token_;
};

// A new object that the innermost pool owns.
template <class Value, class... Arguments>
ObjectRef createAutoreleased(const Class& kind, Arguments&&... arguments) {
    return autorelease(createObject<Value>(kind, std::forward<Arguments>(arguments)...));
}

} // namespace machost::objc
