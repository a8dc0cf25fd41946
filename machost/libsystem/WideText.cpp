// Wide characters, which have 32 bits on both systems.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"

#include <cstdlib>
#include <cwchar>

namespace machost::libsystem {
namespace {

// In the C locale a character has one byte.
int longestCharacter = 1;

const wchar_t* playedFind(const wchar_t* text, wchar_t character, std::size_t count) {
    return std::wmemchr(text, character, count);
}

} // namespace

const ImportTable& wideTextImports() {
    constexpr const char* source = "ISO C, which both systems keep";
    static const auto& table = *new ImportTable{
        variable("___mb_cur_max", &longestCharacter, "setlocale.c of Libc"),
        function("_mbstowcs", translated<&std::mbstowcs>, source),
        function("_wcstombs", translated<&std::wcstombs>, source),
        function("_wcslen", &std::wcslen, source),
        function("_wcstol", translated<&std::wcstol>, source),
        function("_wcstoul", translated<&std::wcstoul>, source),
        function("_wcstoll", translated<&std::wcstoll>, source),
        function("_wcstoull", translated<&std::wcstoull>, source),
        function("_wcstod", translated<&std::wcstod>, source),
        function("_wcstof", translated<&std::wcstof>, source),
        function("_wcstold", translated<&std::wcstold>, source),
        function("_wmemchr", playedFind, source),
        function("_wmemcmp", &std::wmemcmp, source),
    };
    return table;
}

} // namespace machost::libsystem
