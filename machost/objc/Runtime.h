#pragma once

// The Objective-C run-time library.

#include "machost/loader/Image.h"

namespace machost::objc {

// Makes the image's selectors and classes known. For the one image of the process, before any of its code runs.
void registerImage(const Image& image);

} // namespace machost::objc
