// Standard input and output. A stream is opaque to the program, so it is this system's own.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>

namespace machost::libsystem {
namespace {

std::FILE* standardOutput = stdout;
std::FILE* standardError = stderr;

// The formats that differ are few and not used: %n on a writable text, %v, and %C in other locales.
__attribute__((format(printf, 1, 2))) int playedPrintf(const char* format, ...) {
    const ErrorScope scope;
    va_list arguments;
    va_start(arguments, format);
    const int count = std::vprintf(format, arguments);
    va_end(arguments);
    return count;
}

__attribute__((format(printf, 3, 4))) int playedSnprintf(char* room, std::size_t size, const char* format,
                                                         ...) {
    const ErrorScope scope;
    va_list arguments;
    va_start(arguments, format);
    const int count = std::vsnprintf(room, size, format, arguments);
    va_end(arguments);
    return count;
}

int playedSwprintf(wchar_t* room, std::size_t size, const wchar_t* format, ...) {
    const ErrorScope scope;
    va_list arguments;
    va_start(arguments, format);
    const int count = std::vswprintf(room, size, format, arguments);
    va_end(arguments);
    return count;
}

} // namespace

const ImportTable& streamImports() {
    static const auto& table = *new ImportTable{
        variable("___stdoutp", &standardOutput, "findfp.c of Libc"),
        variable("___stderrp", &standardError, "findfp.c of Libc"),
        function("_fdopen", translated<&fdopen>, "fdopen.c of Libc"),
        function("_printf", playedPrintf, "printf.c of Libc; formats as both systems have them"),
        function("_snprintf", playedSnprintf, "snprintf.c of Libc; formats as both systems have them"),
        function("_swprintf", playedSwprintf, "swprintf.c of Libc; formats as both systems have them"),
        function("_vfprintf", translated<&std::vfprintf>, "vfprintf.c of Libc"),
        function("_vsnprintf", translated<&std::vsnprintf>, "vsnprintf.c of Libc"),
        function("_fclose", translated<&std::fclose>, "fclose.c of Libc"),
        function("_ferror", translated<&std::ferror>, "ferror.c of Libc"),
        function("_fflush", translated<&std::fflush>, "fflush.c of Libc"),
        function("_fgets", translated<&std::fgets>, "fgets.c of Libc"),
        function("_fileno", translated<&fileno>, "fileno.c of Libc"),
        function("_fputc", translated<&std::fputc>, "fputc.c of Libc"),
        function("_fputs", translated<&std::fputs>, "fputs.c of Libc"),
        function("_fread", translated<&std::fread>, "fread.c of Libc"),
        function("_fseek", translated<&std::fseek>, "fseek.c of Libc"),
        function("_fwrite", translated<&std::fwrite>, "fwrite.c of Libc"),
        function("_putchar", translated<&std::putchar>, "putchar.c of Libc"),
        function("_puts", translated<&std::puts>, "puts.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
