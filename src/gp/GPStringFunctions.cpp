// The free functions on plain text that are declared beside GPString.

#include "gp/GPString.h"

#include "gp/TextSearch.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace {

bool isSpace(char character) { return std::isspace(static_cast<unsigned char>(character)) != 0; }

// Compares backwards from the last characters; what leads in front of `hay` is no match.
bool matchesBackwards(const char* hay, const char* at, const char* needle) {
    const std::size_t needleLength = std::strlen(needle);
    if (static_cast<std::size_t>(at - hay) + 1 < needleLength) return false;
    return needleLength == 0 || std::memcmp(at + 1 - needleLength, needle, needleLength) == 0;
}

} // namespace

const char* find(const char* hay, const char* needle, bool fromEnd) {
    if (!hay || !needle) return nullptr;

    if (fromEnd) {
        // Behind a last occurrence that fails there is no other one: a match further in front is not found, on
        // purpose.
        const char* hit = std::strrchr(hay, *last(needle));
        return hit && matchesBackwards(hay, hit, needle) ? hit : nullptr;
    }
    // An empty needle's first character is its NUL.
    if (!*needle) return hay + std::strlen(hay);
    const std::size_t place = TextSearch(hay, needle).next();
    return place == TextSearch::npos ? nullptr : hay + place;
}

const char* find(const char* hay, char character, bool fromEnd) {
    if (!hay) return nullptr;
    return fromEnd ? std::strrchr(hay, character) : std::strchr(hay, character);
}

const char* skipws(const char* text) {
    if (!text) return nullptr;
    while (isSpace(*text)) {
        ++text;
    }
    return text;
}

char* trimws(char* text) {
    if (!text) return nullptr;
    for (std::size_t length = std::strlen(text); length > 0 && isSpace(text[length - 1]); --length) {
        text[length - 1] = '\0';
    }
    return text;
}

const char* nextws(const char* text) {
    if (!text) return nullptr;
    if (isSpace(*text)) ++text;
    while (*text && !isSpace(*text)) {
        ++text;
    }
    return text;
}

const char* end(const char* text) {
    if (!text) return nullptr;
    return *text ? text + std::strlen(text) - 1 : text;
}

const char* last(const char* text) { return end(text); }

char* reverse(char* text) {
    const std::size_t length = text ? std::strlen(text) : 0;
    if (length >= 2) std::reverse(text, text + length);
    return text;
}

int base10(const char* text) {
    const char* at = skipws(text);
    if (!at) return 0;
    const bool negative = *at == '-';
    if (negative) ++at;

    std::uint32_t value = 0;
    for (; *at >= '0' && *at <= '9'; ++at) {
        value = value * 10 + static_cast<std::uint32_t>(*at - '0');
    }
    return static_cast<std::int32_t>(negative ? 0 - value : value);
}

std::uint32_t base16(const char* text) {
    const char* at = skipws(text);
    if (!at) return 0;
    if (at[0] == '0' && (at[1] == 'x' || at[1] == 'X')) at += 2;

    std::uint32_t value = 0;
    for (; std::isxdigit(static_cast<unsigned char>(*at)); ++at) {
        const int digit = *at <= '9' ? *at - '0' : (*at | 0x20) - 'a' + 10;
        value = value * 16 + static_cast<std::uint32_t>(digit);
    }
    return value;
}

wchar_t* unicode(const char* text) {
    if (!text) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    wchar_t* wide = new wchar_t[size]();
    std::mbstowcs(wide, text, size);
    return wide;
}

char* ansi(const wchar_t* text) {
    if (!text) return nullptr;
    const std::size_t size = std::wcslen(text) * MB_CUR_MAX + 1;
    char* narrow = new char[size]();
    std::wcstombs(narrow, text, size);
    return narrow;
}
