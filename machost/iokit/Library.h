#pragma once

#include "machost/Imports.h"

namespace machost::iokit {

Library library();

// Entries of the registry that the program has not released, but for those of a running thread, which may be using them;
// told on standard error.
int reportLeaks();

} // namespace machost::iokit
