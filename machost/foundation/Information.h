#pragma once

// What the program's information property list, which lies in the file itself, tells the system.

#include "machost/loader/Image.h"

namespace machost::foundation {

// For the one image of the process, before any of its code runs.
void readInformation(const Image& image);

// Whether App Transport Security lets the program use plain http.
bool allowsPlainHttp();

} // namespace machost::foundation
