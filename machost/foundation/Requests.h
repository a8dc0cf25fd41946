#pragma once

// What a session is asked for and what it answers: NSURLRequest and NSURLResponse.

#include "machost/objects/Object.h"

#include <string>

namespace machost::foundation {

extern const Class requestClass, mutableRequestClass, responseClass, httpResponseClass;

struct Request {
    Held url;
    std::string method = "GET";
};

// A new response with that status, which the innermost pool owns; null for the status 0 of no response.
ObjectRef makeResponse(long status);

} // namespace machost::foundation
