#pragma once

// Sending of messages.

#include "machost/objects/Object.h"

namespace machost::objc {

// A selector is a text of which there is one copy: equal texts are one pointer. Any thread.
using Selector = const char*;
Selector selectorNamed(const char* text);

// What the object, or the class, answers the message by; ends the process, with the message's name, when nothing
// does. Any thread.
const void* implementationOf(const void* receiver, Selector selector);

// The same; null when nothing does.
const void* findImplementation(const void* receiver, Selector selector);

// Sends to an object that is not null.
template <class Result, class... Arguments>
Result send(ObjectRef receiver, const char* message, Arguments... arguments) {
    const Selector selector = selectorNamed(message);
    const auto call = reinterpret_cast<Result (*)(ObjectRef, Selector, Arguments...)>(
        const_cast<void*>(implementationOf(receiver, selector)));
    return call(receiver, selector, arguments...);
}

// An object's or a class's kind is that class or one below it.
bool isKindOf(const void* object, const Class& kind);

} // namespace machost::objc
