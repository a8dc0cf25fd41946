#include "lab/divert/Tools.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace lab {
namespace {

constexpr int notStarted = 127;

// A file without a name, for what goes into a tool and what comes out.
class Scratch {
public:
    Scratch() : file_(memfd_create("tool", MFD_CLOEXEC)) {
        if (file_ < 0) throw std::runtime_error("no memory file for a tool");
    }
    ~Scratch() { close(file_); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    void fill(const std::string& text) const {
        if (pwrite(file_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
            throw std::runtime_error("a tool's input cannot be written");
    }

    std::string firstLine() const {
        char text[400];
        const ssize_t count = pread(file_, text, sizeof text, 0);
        const std::string all(text, count > 0 ? static_cast<std::size_t>(count) : 0);
        return all.substr(0, all.find('\n'));
    }

    int descriptor() const { return file_; }

private:
    int file_;
};

[[noreturn]] void become(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words)
        pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    execvp(pointers[0], pointers.data());
    dprintf(STDERR_FILENO, "%s: %s\n", pointers[0], std::strerror(errno));
    _exit(notStarted);
}

} // namespace

void runTool(const std::vector<std::string>& words, const std::string& input) {
    const Scratch in;
    const Scratch errors;
    in.fill(input);
    const pid_t child = fork();
    if (child < 0) throw UnavailableError(fmt::format("{}: {}", words[0], std::strerror(errno)));
    if (child == 0) {
        dup2(in.descriptor(), STDIN_FILENO);
        lseek(STDIN_FILENO, 0, SEEK_SET);
        dup2(errors.descriptor(), STDOUT_FILENO);
        dup2(errors.descriptor(), STDERR_FILENO);
        become(words);
    }
    int status = 0;
    if (waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
    throw UnavailableError(fmt::format("'{}' failed: {}", fmt::join(words, " "), errors.firstLine()));
}

pid_t startHelper(const std::vector<std::string>& words, const std::string& output) {
    const pid_t child = fork();
    if (child < 0) throw UnavailableError(fmt::format("{}: {}", words[0], std::strerror(errno)));
    if (child > 0) return child;
    setsid();
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (nothing < 0 || file < 0) _exit(notStarted);
    dup2(nothing, STDIN_FILENO);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    become(words);
}

bool helperHasEnded(pid_t helper) { return waitpid(helper, nullptr, WNOHANG) == helper; }

std::string firstWords(const std::string& output) {
    std::ifstream file(output);
    std::string line;
    while (line.empty() && std::getline(file, line)) {
    }
    return line.empty() ? "it says nothing" : line;
}

} // namespace lab
