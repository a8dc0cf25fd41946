#pragma once

#include "machost/Imports.h"

namespace machost::iokit {

Library library();

// Entries of the registry that the program has not released; told on standard error.
int reportLeaks();

} // namespace machost::iokit
