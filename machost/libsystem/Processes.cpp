// Processes: forks, programs, ends.

#include "machost/Settings.h"
#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/Paths.h"
#include "machost/libsystem/Signals.h"
#include "machost/loader/MachOFormat.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace machost::libsystem {
namespace {

bool isMachO(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::uint32_t magic = 0;
    file.read(reinterpret_cast<char*>(&magic), sizeof magic);
    return file && magic == format::magic64;
}

// A program of the Mac runs as this one does: under machost, in the same world.
int executeMachO(const std::string& path, char* const* arguments) {
    std::vector<std::string> words = {"machost"};
    const auto option = [&](const char* name, const std::string& value) {
        if (value.empty()) return;
        words.emplace_back(name);
        words.push_back(value);
    };
    option("--root", settings().root);
    option("--world", settings().world);
    if (arguments[0]) option("--argv0", arguments[0]);
    words.push_back(path);
    for (int i = 1; arguments[0] && arguments[i]; ++i)
        words.emplace_back(arguments[i]);
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return execv("/proc/self/exe", pointers.data());
}

int playedExecv(const char* path, char* const* arguments) {
    const ErrorScope scope;
    const std::string host = hostPath(path);
    if (access(host.c_str(), X_OK) == 0 && isMachO(host)) return executeMachO(host, arguments);
    return execv(host.c_str(), arguments);
}

// A status has the same form on both systems, but for the signal's number.
int macStatus(int host) {
    if (WIFSIGNALED(host)) return macSignal(WTERMSIG(host)) | (host & 0x80);
    if (WIFSTOPPED(host)) return macSignal(WSTOPSIG(host)) << 8 | 0x7f;
    return host;
}

pid_t playedWaitpid(pid_t process, int* status, int options) {
    static_assert(WNOHANG == 1 && WUNTRACED == 2, "as on the Mac");
    const ErrorScope scope;
    int host = 0;
    const pid_t ended = waitpid(process, &host, options & (WNOHANG | WUNTRACED));
    if (ended > 0 && status) *status = macStatus(host);
    return ended;
}

int playedSystem(const char* command) {
    const ErrorScope scope;
    const int status = std::system(command);
    return status > 0 && command ? macStatus(status) : status;
}

} // namespace

const ImportTable& processImports() {
    static const auto& table = *new ImportTable{
        function("_fork", translated<&fork>, "fork(2) of xnu"),
        function("_execv", playedExecv, "execve(2) of xnu"),
        function("_waitpid", playedWaitpid, "wait4(2) of xnu"),
        function("_system", playedSystem, "system.c of Libc, without its own root folder"),
        function("_setpgid", translated<&setpgid>, "setpgid(2) of xnu"),
        function("_getpid", &getpid, "getpid(2) of xnu"),
        function("_exit", &std::exit, "exit.c of Libc"),
        function("_abort", &std::abort, "abort.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
