// What a compiled program calls without writing it: unwinding, ends of objects, guards of the stack, the dynamic loader.

#include "machost/Imports.h"
#include "machost/Settings.h"
#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"

#include <signal.h>
#include <sys/random.h>
#include <unistd.h>
#include <unwind.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int __cxa_atexit(void (*run)(void*), void* object, void* image);
extern "C" int __cxa_thread_atexit_impl(void (*run)(void*), void* object, void* image);
extern "C" void* __dso_handle;

namespace machost::libsystem {
namespace {

int playedAtExit(void (*run)(void*), void* object, void*) { return __cxa_atexit(run, object, &__dso_handle); }

void playedThreadAtExit(void (*run)(void*), void* object) {
    __cxa_thread_atexit_impl(run, object, &__dso_handle);
}

const char* playedProgramName() {
    static const std::string& name =
        *new std::string(settings().argv0.substr(settings().argv0.rfind('/') + 1));
    return name.c_str();
}

// Handles of the search through all loaded libraries. No other library can be opened.
void* const defaultHandle = reinterpret_cast<void*>(-2);

void* playedDlopen(const char* path, int) {
    if (!path) return defaultHandle;
    for (const Library& library : playedLibraries())
        if (std::strcmp(library.path, path) == 0) return const_cast<char*>(library.path);
    return nullptr;
}

const void* playedDlsym(void* handle, const char* name) {
    const bool anywhere = handle == nullptr || reinterpret_cast<std::intptr_t>(handle) < 0;
    const std::string symbol = std::string("_") + name;
    const Import* import = findImport(anywhere ? "" : static_cast<const char*>(handle), symbol);
    return import ? import->address : nullptr;
}

// No version is known to be there, and none is newer than the program asks for.
bool playedVersionCheck(std::uint32_t, const void*) { return true; }

// What a function with arrays has at the end of its frame, and looks for again before it returns. No other process has
// the same; a zero byte in it stops a text that runs over.
const long* stackGuard() {
    static const auto& guard = *new std::array<long, 8>([] {
        std::array<long, 8> drawn{};
        if (getrandom(drawn.data(), sizeof drawn[0], 0) != sizeof drawn[0]) std::abort();
        drawn[0] &= ~0xffL;
        return drawn;
    }());
    return guard.data();
}

// Ends the process without a word from its stack: neither handlers nor blocked signals count.
[[noreturn]] void playedStackFail() {
    constexpr char line[] = "machost: the program has written beyond an array on its stack\n";
    static_cast<void>(::write(STDERR_FILENO, line, sizeof line - 1) == 0);
    signal(SIGABRT, SIG_DFL);
    std::abort();
}

// Every bind is made before the program runs.
void playedBinder() { __builtin_trap(); }

} // namespace

const ImportTable& runtimeImports() {
    constexpr const char* unwinder = "the C++ ABI's unwinder, over the tables of both systems";
    static const auto& table = *new ImportTable{
        function("__Unwind_RaiseException", &_Unwind_RaiseException, unwinder),
        function("__Unwind_Resume", &_Unwind_Resume, unwinder),
        function("__Unwind_DeleteException", &_Unwind_DeleteException, unwinder),
        function("__Unwind_GetIP", &_Unwind_GetIP, unwinder),
        function("__Unwind_SetIP", &_Unwind_SetIP, unwinder),
        function("__Unwind_SetGR", &_Unwind_SetGR, unwinder),
        function("__Unwind_GetRegionStart", &_Unwind_GetRegionStart, unwinder),
        function("__Unwind_GetLanguageSpecificData", &_Unwind_GetLanguageSpecificData, unwinder),
        function("___cxa_atexit", playedAtExit, "atexit.c of Libc"),
        function("__tlv_atexit", playedThreadAtExit, "threadLocalVariables.c of dyld"),
        function("___error", &programError, "errno.c of libsystem_kernel"),
        function("_getprogname", playedProgramName, "getprogname.c of Libc"),
        function("_dlopen", playedDlopen, "dlopen(3) of dyld, for what is played"),
        function("_dlsym", playedDlsym, "dlsym(3) of dyld, for what is played"),
        variable("___stack_chk_guard", stackGuard(),
                 "stack_protector.c of Libc; drawn here, not by the kernel"),
        function("___stack_chk_fail", playedStackFail, "stack_protector.c of Libc"),
        function("__availability_version_check", playedVersionCheck, "availability of dyld"),
        function("dyld_stub_binder", playedBinder, "dyld_stub_binder.s of dyld; never called"),
    };
    return table;
}

} // namespace machost::libsystem
