#pragma once

// Texts, which are NSString too. A text that the program holds as a constant has the compiler's layout; all others hold UTF-8.

#include "machost/objects/Object.h"

#include <string>
#include <string_view>

namespace machost::corefoundation {

extern const Class stringClass;
extern const Class constantStringClass;

// As the compiler lays out CFSTR("…") and @"…".
struct ConstantString {
    const Class* isa;
    std::uint32_t flags;
    const void* text;
    std::int64_t length;
};
static_assert(sizeof(ConstantString) == 32 && offsetof(ConstantString, text) == 16);

constexpr std::uint32_t constantBytes = 0x7c8, constantUnits = 0x7d0;

// The caller owns the result.
ObjectRef makeString(const std::string& text);

bool isString(const void* object);

// The text of an object that isString.
std::string textOf(const void* string);

// Bytes of Latin-1 in UTF-8.
std::string fromLatin1(std::string_view bytes);

bool isValidUtf8(const std::string& text);

} // namespace machost::corefoundation
