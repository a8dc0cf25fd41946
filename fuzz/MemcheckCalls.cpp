// Calls that the memory checker does not know, and answers with ENOSYS, made with those that it knows.

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <valgrind/valgrind.h>

#include <cerrno>
#include <cstdarg>
#include <filesystem>

extern "C" long __real_syscall(long number, ...);
extern "C" long __wrap_syscall(long number, ...);

namespace {

// No name leads up. Links and mounts are followed: a target has a folder of its own, and nobody else is in it.
long openat2(int folder, const std::filesystem::path& path, const open_how& how) {
    const bool inRoot = (how.resolve & RESOLVE_IN_ROOT) != 0;
    std::filesystem::path below = inRoot ? path.relative_path() : path;
    for (const std::filesystem::path& name : below) {
        if (!name.is_absolute() && name != "..") continue;
        errno = EXDEV;
        return -1;
    }
    if (inRoot && below.empty()) below = ".";
    return openat(folder, below.c_str(), static_cast<int>(how.flags), static_cast<mode_t>(how.mode));
}

} // namespace

// In place of syscall(2), with as many arguments as any call has.
extern "C" long __wrap_syscall(long number, ...) {
    long arguments[6];
    va_list list;
    va_start(list, number);
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_openat2 && RUNNING_ON_VALGRIND)
        return openat2(static_cast<int>(arguments[0]), reinterpret_cast<const char*>(arguments[1]),
                       *reinterpret_cast<const open_how*>(arguments[2]));
    return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                          arguments[5]);
}
