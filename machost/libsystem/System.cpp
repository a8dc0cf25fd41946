// What the program asks about the machine.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace machost::libsystem {
namespace {

// <sys/sysctl.h>
constexpr int kernel = 1, kernelType = 1, kernelRelease = 2;

// Copies a text with its zero byte. One that does not fit is cut, and says so.
int answerText(const char* text, void* room, std::size_t* size) {
    const std::size_t needed = std::strlen(text) + 1;
    if (!size) return 0;
    const std::size_t given = *size;
    *size = room && given < needed ? given : needed;
    if (!room) return 0;
    std::memcpy(room, text, *size);
    return given < needed ? failWith(ENOMEM) : 0;
}

// The kernel is this machine's: the Linux program tells its release too.
int playedSysctl(const int* name, unsigned count, void* room, std::size_t* size, const void* value,
                 std::size_t) {
    if (value) return failWith(EPERM);
    if (count < 2 || name[0] != kernel) return failWith(ENOENT);
    utsname system{};
    if (name[1] == kernelRelease && uname(&system) == 0) return answerText(system.release, room, size);
    if (name[1] == kernelType) return answerText("Darwin", room, size);
    return failWith(ENOENT);
}

// <unistd.h>
long playedSysconf(int name) {
    const ErrorScope scope;
    switch (name) {
        case 1:
            return sysconf(_SC_ARG_MAX);
        case 3:
            return 100; // _SC_CLK_TCK
        case 5:
            return sysconf(_SC_OPEN_MAX);
        case 29:
            return sysconf(_SC_PAGESIZE);
        case 57:
            return sysconf(_SC_NPROCESSORS_CONF);
        case 58:
            return sysconf(_SC_NPROCESSORS_ONLN);
        case 71:
            return 4096; // _SC_GETPW_R_SIZE_MAX
        default:
            return failWith(EINVAL);
    }
}

} // namespace

const ImportTable& systemImports() {
    static const auto& table = *new ImportTable{
        function("_sysctl", playedSysctl, "sysctl(3) of xnu: kern.ostype and kern.osrelease"),
        function("_sysconf", playedSysconf, "sysconf.c of Libc, the names that programs here ask for"),
        function("_getenv", &std::getenv, "getenv.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
