#pragma once

// How many objects of the system there are, for operations that are to leave none behind. A program that uses it is
// linked with --wrap of GPObject's constructor and destructor, so that every object comes by.

namespace testsupport {

// Objects of all threads that were made and not yet destroyed.
long livingObjects();

// How many more there are after an operation. It runs once before, for what is made once and kept.
template <class Operation>
long objectsLeftBy(Operation operation) {
    operation();
    const long before = livingObjects();
    operation();
    return livingObjects() - before;
}

} // namespace testsupport
