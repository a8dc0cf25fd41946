#pragma once

// Reads owned results in one expression.

#include "gp/GPString.h"

#include <string>

namespace testsupport {

// The text of an owned string, which is released; "(null)" for null.
inline std::string taken(GPString* text) {
    if (!text) return "(null)";
    std::string result = text->cstr();
    text->release();
    return result;
}

} // namespace testsupport
