#pragma once

// Copies of text that free() takes back.

#include <cstring>
#include <new>

// Never null: as with new, memory that runs out ends the process.
inline char* copyText(const char* text) {
    char* copy = strdup(text);
    if (!copy) throw std::bad_alloc();
    return copy;
}
