#pragma once

// Readers of the same things as the program's, written for nothing but speed: no rule beyond the usual form of a
// request or a hello is kept. What they find goes into memory of the caller's own, as the program's URLs do.

#include <cstddef>

namespace bench {

// Walks a ClientHello with its bounds checked, and copies the server's name with an ending zero. Its length, or 0.
std::size_t walkHello(const unsigned char* data, std::size_t size, char* name, std::size_t capacity);

// "https://" and the name in new memory, which the caller deletes; null without a name.
char* urlOfHello(const unsigned char* packet, std::size_t size);

// "http://", the host and the path of a GET in new memory, which the caller deletes; null for anything else.
char* urlOfGet(const unsigned char* packet, std::size_t size);

} // namespace bench
