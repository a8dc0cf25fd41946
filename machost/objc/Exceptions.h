#pragma once

// Objective-C exceptions, which are any objects, through frames of the program and of this system.

#include "machost/loader/Image.h"
#include "machost/objects/Object.h"

#include <string>

namespace machost::objc {

// For the one image of the process: which personality its C++ frames have.
void readPersonalities(const Image& image);

// Throws an object, which the exception retains. Ends the process when nobody catches it.
[[noreturn]] void raise(ObjectRef object);

// Throws a new NSException with that reason.
[[noreturn]] void raiseException(const std::string& reason);

// What the run-time library exports for exceptions.
extern const void* const exceptionTypeTable[];
int personality(int version, int actions, unsigned long kind, void* exception, void* context);
ObjectRef beginCatch(void* exception);
void endCatch();
[[noreturn]] void raiseAgain(); // what is being handled

} // namespace machost::objc
