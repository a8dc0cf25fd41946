#pragma once

// The thread-local variables of an image: each thread gets a block of its own when it first touches one, and loses
// it at its end. The program reaches a variable through its descriptor's function, which must keep all registers but
// the result's. Follows threadLocalVariables.c and threadLocalHelpers.s of dyld.

#include "machost/loader/Image.h"

namespace machost {

// Makes the image's descriptors work. For the one image of the process, before any of its code runs.
void installThreadVariables(const Image& image);

} // namespace machost
