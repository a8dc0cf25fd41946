#include "steps/StepCounter.h"

#include <cstddef>

namespace {

thread_local bool counting = false;
thread_local long steps = 0;

void note(std::size_t count) {
    if (counting) steps += static_cast<long>(count);
}

// Where the byte stands first, or `limit`.
std::size_t placeOf(const void* bytes, unsigned char byte, std::size_t limit) {
    const auto* at = static_cast<const unsigned char*>(bytes);
    std::size_t place = 0;
    while (place < limit && at[place] != byte)
        ++place;
    note(place + 1);
    return place;
}

constexpr std::size_t unlimited = static_cast<std::size_t>(-1);

// The difference of the first bytes that differ; texts end at their NUL.
int difference(const void* first, const void* second, std::size_t limit, bool areTexts) {
    const auto* a = static_cast<const unsigned char*>(first);
    const auto* b = static_cast<const unsigned char*>(second);
    for (std::size_t place = 0; place < limit; ++place) {
        if (a[place] == b[place] && !(areTexts && a[place] == 0)) continue;
        note(place + 1);
        return a[place] - b[place];
    }
    note(limit);
    return 0;
}

} // namespace

// Called at the start of each block of the sources that are counted.
extern "C" void __sanitizer_cov_trace_pc() { note(1); }

// These stand in front of the C library's own functions for the whole program.
extern "C" {

std::size_t strlen(const char* text) { return placeOf(text, 0, unlimited); }

std::size_t strnlen(const char* text, std::size_t limit) { return placeOf(text, 0, limit); }

void* memchr(const void* bytes, int byte, std::size_t length) {
    const std::size_t place = placeOf(bytes, static_cast<unsigned char>(byte), length);
    return place < length ? static_cast<char*>(const_cast<void*>(bytes)) + place : nullptr;
}

char* strchr(const char* text, int character) {
    const auto wanted = static_cast<char>(character);
    const char* at = text;
    while (*at != wanted && *at != 0)
        ++at;
    note(static_cast<std::size_t>(at - text) + 1);
    return *at == wanted ? const_cast<char*>(at) : nullptr;
}

char* strrchr(const char* text, int character) {
    const std::size_t length = placeOf(text, 0, unlimited);
    for (std::size_t place = length + 1; place > 0; --place)
        if (text[place - 1] == static_cast<char>(character)) return const_cast<char*>(text) + place - 1;
    return nullptr;
}

int memcmp(const void* first, const void* second, std::size_t length) {
    return difference(first, second, length, false);
}

int bcmp(const void* first, const void* second, std::size_t length) { return memcmp(first, second, length); }

int strcmp(const char* first, const char* second) { return difference(first, second, unlimited, true); }

int strncmp(const char* first, const char* second, std::size_t length) {
    return difference(first, second, length, true);
}

void* memmove(void* to, const void* from, std::size_t length) {
    auto* target = static_cast<char*>(to);
    const auto* source = static_cast<const char*>(from);
    note(length);
    if (target < source)
        for (std::size_t i = 0; i < length; ++i)
            target[i] = source[i];
    else
        for (std::size_t i = length; i > 0; --i)
            target[i - 1] = source[i - 1];
    return to;
}

void* memcpy(void* __restrict to, const void* __restrict from, std::size_t length) {
    return memmove(to, from, length);
}

void* memset(void* to, int byte, std::size_t length) {
    auto* target = static_cast<char*>(to);
    note(length);
    for (std::size_t i = 0; i < length; ++i)
        target[i] = static_cast<char>(byte);
    return to;
}
}

namespace testsupport {

StepCounter::StepCounter() {
    steps = 0;
    counting = true;
}

StepCounter::~StepCounter() { counting = false; }

long StepCounter::count() const { return steps; }

} // namespace testsupport
