#pragma once

// Reference counts as a test sees them.

#include "gp/GPObject.h"

namespace testsupport {

// The present count of an object that is alive.
inline int references(GPObject* object) {
    object->retainonly();
    return object->releaseonly();
}

} // namespace testsupport
