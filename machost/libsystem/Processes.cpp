// Processes: forks, programs, ends.

#include "machost/Settings.h"
#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Forks.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/Paths.h"
#include "machost/libsystem/Signals.h"
#include "machost/loader/MachOFormat.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

namespace machost::libsystem {
namespace {

// The one program of this machine that the Mac program runs by its path.
constexpr char shell[] = "/bin/sh";

// The forked child's word to its parent about its exec, on a pipe that an exec closes.
class ExecSign {
public:
    static constexpr char trying = 't', failed = 'f';

    explicit ExecSign(int end = -1) : end_(end) {}
    void write(char word) const {
        if (end_ >= 0) static_cast<void>(::write(end_, &word, 1) == 1);
    }

private:
    int end_;
};

ExecSign ownSign; // of a child

// The signs of the last children.
class Children {
public:
    void remember(pid_t child, int end) {
        const std::lock_guard<std::mutex> guard(lock_);
        ends_.emplace_back(child, end);
        if (ends_.size() <= kept) return;
        close(ends_.front().second);
        ends_.pop_front();
    }

    // Whether a child that has gone had called exec.
    bool haveExecuted(pid_t child) {
        const std::lock_guard<std::mutex> guard(lock_);
        for (auto entry = ends_.rbegin(); entry != ends_.rend(); ++entry) {
            if (entry->first != child) continue;
            char word = 0, last = 0;
            // NOLINTNEXTLINE(clang-analyzer-unix.BlockInCriticalSection): a pipe that is read without waiting
            while (read(entry->second, &word, 1) == 1)
                last = word;
            return last == ExecSign::trying;
        }
        return false;
    }

private:
    static constexpr std::size_t kept = 32;

    std::mutex lock_;
    std::deque<std::pair<pid_t, int>> ends_;
};

Children& children() {
    static auto& one = *new Children;
    return one;
}

bool isMachO(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::uint32_t magic = 0;
    file.read(reinterpret_cast<char*>(&magic), sizeof magic);
    return file && magic == format::magic64;
}

// This system runs these instead of this process, if it can.
int execute(const std::string& path, std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return execv(path.c_str(), pointers.data());
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
    return execute("/proc/self/exe", words);
}

// A word for a tool of this machine: where the root has such a file, or its folder, that is what is meant. Other words
// that look like paths are none: names in a directory, for one.
std::string toolsPath(const std::string& word) {
    const std::string& root = settings().root;
    const std::size_t end = word.rfind('/');
    if (root.empty() || word.empty() || word[0] != '/') return word;
    const bool hasFile = access((root + word).c_str(), F_OK) == 0;
    const bool hasFolder = end > 0 && access((root + word.substr(0, end)).c_str(), F_OK) == 0;
    return hasFile || hasFolder ? hostPath(word.c_str()) : word;
}

// The same for each word of a shell's command.
std::string shellsPaths(const std::string& command) {
    std::string result;
    for (std::size_t at = 0; at < command.size();) {
        const std::size_t end = std::min(command.find_first_of(" \t\n\"';&|<>()", at), command.size());
        result += toolsPath(command.substr(at, end - at));
        if (end < command.size()) result += command[end];
        at = end + 1;
    }
    return result;
}

// A tool of this machine is told the files that the program means where they lie here.
int executeTool(const std::string& path, char* const* arguments) {
    const auto told = path == shell ? shellsPaths : toolsPath;
    std::vector<std::string> words;
    for (int i = 0; arguments[i]; ++i)
        words.push_back(i > 0 ? told(arguments[i]) : arguments[i]);
    return execute(path, words);
}

int playedExecv(const char* path, char* const* arguments) {
    const ErrorScope scope;
    // The shell is this machine's: no root has one.
    const std::string host = std::strcmp(path, shell) == 0 ? shell : hostPath(path);
    ownSign.write(ExecSign::trying);
    const int result = access(host.c_str(), X_OK) == 0 && isMachO(host) ? executeMachO(host, arguments)
                                                                        : executeTool(host, arguments);
    const int error = errno;
    ownSign.write(ExecSign::failed);
    errno = error;
    return result;
}

pid_t playedFork() {
    const ErrorScope scope;
    prepareForks();
    int ends[2];
    // Read without waiting: a child of the child's may hold it open, and what a child that has gone wrote is there.
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        ownSign = ExecSign(ends[1]);
        // Whoever plays a world wants nothing left behind.
        if (!settings().world.empty()) prctl(PR_SET_PDEATHSIG, SIGKILL);
        return child;
    }
    close(ends[1]);
    if (child < 0)
        close(ends[0]);
    else
        children().remember(child, ends[0]);
    return child;
}

// A parent may set the group of its child up to the child's exec, and gets EACCES afterwards. A child that had called
// exec and has gone again counts as one that is still there: the program looks every microsecond, which there is in
// time.
int playedSetpgid(pid_t process, pid_t group) {
    const ErrorScope scope;
    const int result = setpgid(process, group);
    if (result != 0 && errno == ESRCH) errno = children().haveExecuted(process) ? EACCES : ESRCH;
    return result;
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

int playedAtExit(void (*run)()) { return std::atexit(run); }

int playedExecl(const char* path, const char* first, ...) {
    std::vector<char*> words = {const_cast<char*>(first)};
    va_list arguments;
    va_start(arguments, first);
    while (words.back())
        words.push_back(va_arg(arguments, char*));
    va_end(arguments);
    return playedExecv(path, words.data());
}

} // namespace

const ImportTable& processImports() {
    static const auto& table = *new ImportTable{
        function("_fork", playedFork, "fork(2) of xnu"),
        function("_execv", playedExecv, "execve(2) of xnu"),
        function("_waitpid", playedWaitpid, "wait4(2) of xnu"),
        function("_execl", playedExecl, "exec.c of Libc"),
        function("_setpgid", playedSetpgid, "setpgid(2) of xnu"),
        function("_getpid", &getpid, "getpid(2) of xnu"),
        function("_exit", &std::exit, "exit.c of Libc"),
        function("__exit", &_exit, "exit(2) of xnu"),
        function("_atexit", playedAtExit, "atexit.c of Libc"),
        function("_abort", &std::abort, "abort.c of Libc"),
    };
    return table;
}

} // namespace machost::libsystem
