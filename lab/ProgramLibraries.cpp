#include "lab/ProgramLibraries.h"

#include "lab/ElfFile.h"
#include "lab/Policy.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace lab {
namespace {

namespace fs = std::filesystem;

// An interpreter needs milliseconds, but for a library that is a pipe.
constexpr unsigned mostSeconds = 10;

struct Told {
    int status;
    std::string text;
};

[[noreturn]] void becomeInterpreter(const std::string& interpreter, const std::string& program, int output) {
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    unsetenv("LD_PRELOAD"); // the program has the lab's
    unsetenv("LD_DEBUG");
    setenv("LC_ALL", "C", 1);
    alarm(mostSeconds);
    execl(interpreter.c_str(), interpreter.c_str(), "--list", program.c_str(), nullptr);
    _exit(127);
}

Told ask(const std::string& interpreter, const std::string& program) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the interpreter");
    const pid_t child = fork();
    if (child == 0) becomeInterpreter(interpreter, program, ends[1]);
    close(ends[1]);
    Told told{};
    char buffer[4096];
    for (ssize_t count; (count = read(ends[0], buffer, sizeof buffer)) > 0;)
        told.text.append(buffer, static_cast<std::size_t>(count));
    close(ends[0]);
    waitpid(child, &told.status, 0);
    return told;
}

// Another one could do anything when it is asked.
bool isOfThisSystem(const std::string& interpreter) {
    std::error_code unreadable;
    const fs::path whole = fs::canonical(interpreter, unreadable);
    const std::string name = whole.filename().string();
    return (whole.string().rfind("/usr/", 0) == 0 || whole.string().rfind("/lib", 0) == 0) &&
           (name.rfind("ld-linux", 0) == 0 || name.rfind("ld-musl", 0) == 0 || name == "libc.so");
}

// "	name => /the/file (0x7f00)" or "	/the/file (0x7f00)".
std::string fileOf(const std::string& line) {
    const auto end = line.rfind(" (0x");
    const auto arrow = line.find(" => ");
    const auto begin = arrow == std::string::npos ? line.find_first_not_of('\t') : arrow + 4;
    if (end == std::string::npos || begin == std::string::npos || begin >= end) return {};
    const std::string file = line.substr(begin, end - begin);
    return file.front() == '/' ? file : "";
}

// "...: error while loading shared libraries: NAME: cannot open shared object file: ...", where that is what it says.
std::string missingLibrary(const std::string& text) {
    const std::string before = "shared libraries: ";
    const auto begin = text.find(before);
    const auto end = text.find(": cannot open shared object file", begin);
    if (begin == std::string::npos || end == std::string::npos) return {};
    return text.substr(begin + before.size(), end - begin - before.size());
}

InputError refusal(const std::string& program, const std::string& interpreter, const Told& told) {
    const std::string missing = missingLibrary(told.text);
    if (!missing.empty())
        return InputError(
            fmt::format("{}: its library {} is not found; install it, or name its folder in LD_LIBRARY_PATH",
                        program, missing));
    return InputError(fmt::format("{}: {} refuses it ({}); build or copy it again", program, interpreter,
                                  WIFSIGNALED(told.status) ? "it crashes or does not end"
                                                           : told.text.substr(0, told.text.find('\n'))));
}

} // namespace

std::vector<std::string> librariesOf(const std::string& program) {
    const std::string interpreter = readElf(program).interpreter;
    std::vector<std::string> files = {interpreter};
    if (!isOfThisSystem(interpreter)) return files;
    const Told told = ask(interpreter, program);
    if (told.status != 0) throw refusal(program, interpreter, told);
    std::istringstream lines(told.text);
    for (std::string line; std::getline(lines, line);) {
        const std::string file = fileOf(line);
        if (!file.empty()) files.push_back(file);
    }
    return files;
}

} // namespace lab
