// Bytes, text and numbers in text: alike on both systems, in the C locale that the program runs in.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace machost::libsystem {
namespace {

// The same even for a text that does not fit: as much of it as does, and ERANGE.
int playedStrerror(int number, char* room, std::size_t size) {
    const char* known = macErrorText(number);
    const int length = known ? std::snprintf(room, size, "%s", known)
                             : std::snprintf(room, size, "Unknown error: %d", number);
    if (static_cast<std::size_t>(length) >= size) return ERANGE;
    return known ? 0 : EINVAL;
}

} // namespace

const ImportTable& textImports() {
    using Find = const char* (*)(const char*, int);
    using FindText = const char* (*)(const char*, const char*);
    using FindByte = const void* (*)(const void*, int, std::size_t);
    constexpr const char* source = "ISO C and POSIX, which both systems keep";
    static const auto& table = *new ImportTable{
        function("_strlen", &std::strlen, source),
        function("_strnlen", &strnlen, source),
        function("_strcmp", &std::strcmp, source),
        function("_strncmp", &std::strncmp, source),
        function("_strcpy", &std::strcpy, source),
        function("_strncpy", &std::strncpy, source),
        function("_strcat", &std::strcat, source),
        function("_strdup", translated<&strdup>, source),
        function("_strchr", static_cast<Find>(&std::strchr), source),
        function("_strrchr", static_cast<Find>(&std::strrchr), source),
        function("_strstr", static_cast<FindText>(&std::strstr), source),
        function("_strspn", &std::strspn, source),
        function("_strcspn", &std::strcspn, source),
        function("_memchr", static_cast<FindByte>(&std::memchr), source),
        function("_strtol", translated<&std::strtol>, source),
        function("_strtoul", translated<&std::strtoul>, source),
        function("_strtoll", translated<&std::strtoll>, source),
        function("_strtoull", translated<&std::strtoull>, source),
        function("_strtod", translated<&std::strtod>, source),
        function("_strtof", translated<&std::strtof>, source),
        function("_strtold", translated<&std::strtold>, source),
        function("_strerror_r", playedStrerror, "strerror.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
