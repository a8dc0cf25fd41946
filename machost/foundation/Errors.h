#pragma once

// NSError.

#include "machost/objects/Object.h"

#include <string>

namespace machost::foundation {

struct Error {
    std::string domain;
    std::int64_t code = 0;
    std::string localizedDescription;
    std::string description; // empty for the usual form
};

extern const Class errorClass;

constexpr const char* cocoaDomain = "NSCocoaErrorDomain";
constexpr const char* urlDomain = "NSURLErrorDomain";

// A new error that the innermost pool owns.
ObjectRef makeError(const Error& error);

// Tells the caller of a method of the error, if it wants to know.
void tellError(ObjectRef* wanted, const Error& error);

} // namespace machost::foundation
