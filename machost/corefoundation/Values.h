#pragma once

// Bytes, moments and URLs: NSData, NSDate and NSURL.

#include "machost/objects/Object.h"

#include <cstdint>
#include <optional>
#include <string>

namespace machost::corefoundation {

extern const Class dataClass, dateClass, urlClass;

// The bytes of a dataClass object.
const std::string& bytesOf(const void* data);

// From now on the clock that the program sees; below 0 when the moment has been.
std::int64_t microsecondsUntil(const void* date);

// A URL in its parts, each as it is written. What is not there is empty.
struct Url {
    std::string text;
    std::string scheme;
    std::string authority;
    std::string path;
};

// Nothing for a text that has characters that no URL has, or a percent sign without its two digits.
std::optional<Url> parseUrl(const std::string& text);

const Url& urlOf(const void* url);

// The URL of a file's path; the caller owns it.
ObjectRef makeFileUrl(const std::string& path);

// The path with its percent escapes undone and without slashes at its end.
std::string plainPath(const Url& url);

// The path's last part, its percent escapes undone; "/" for the path of that name.
std::string lastComponent(const Url& url);

} // namespace machost::corefoundation
