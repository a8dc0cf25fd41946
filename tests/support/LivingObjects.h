#pragma once

// How many objects of the system there are, for operations that are to leave none behind. A program that uses it is
// linked with --wrap of GPObject's constructor and destructor, so that every object comes by.

namespace testsupport {

// Objects of all threads that were made and not yet destroyed.
long livingObjects();

// The same, without those that other threads make and destroy in passing.
long livingObjectsAtRest();

// How many more there are after an operation. It runs once before, for what is made once and kept. Another thread may
// run meanwhile, but must have made by then what it keeps.
template <class Operation>
long objectsLeftBy(Operation operation) {
    operation();
    const long before = livingObjectsAtRest();
    operation();
    return livingObjectsAtRest() - before;
}

} // namespace testsupport
