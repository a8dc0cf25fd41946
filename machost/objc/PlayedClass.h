#pragma once

// A class of the Mac that is played: what it answers to which message.

#include "machost/objects/Object.h"

#include <vector>

namespace machost::objc {

// One method: a function whose first two arguments are the object, or the class, and the selector.
struct Method {
    const char* selector;
    const void* call;
};

template <class Result, class... Arguments>
Method method(const char* selector, Result (*played)(ObjectRef, const char*, Arguments...)) {
    return {selector, reinterpret_cast<const void*>(played)};
}

struct PlayedClass {
    const Class* kind;
    const char* source; // whose behaviour it follows
    std::vector<Method> ofClass;
    std::vector<Method> ofObjects;
    // A new object with a count of 1, which `init…` makes complete; null for a class that is not allocated.
    ObjectRef (*allocate)() = nullptr;
};

// For `allocate`: an object with an empty value of that type.
template <class Value, const Class& kind>
ObjectRef allocateValue() {
    return createObject<Value>(kind);
}

} // namespace machost::objc
