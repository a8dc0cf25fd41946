#pragma once

// The classes that are known: those that are played, and the program's own.

#include "machost/objc/Messages.h"

namespace machost::objc {

// Makes a class of the program's known. Before any of its code runs.
void addProgramClass(const Class& kind, ObjectRef (*allocate)(const Class& kind));

// Has objects of the class, or the class itself, answer the message by that function. Before the program runs.
void addMethod(const Class& kind, bool ofClass, Selector selector, const void* call);

// A new object with a count of 1; ends the process for a class that is not allocated.
ObjectRef allocate(const Class& kind);

// The method of that very class for its objects; null where it has none of its own.
const void* ownMethod(const Class& kind, Selector selector);

} // namespace machost::objc
