#include "lab/LabRun.h"

#include "support/FixedPorts.h"
#include "support/Patience.h"
#include "support/ShippedProgram.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace labtest {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void become(const std::vector<std::string>& arguments, const std::string& out,
                         const std::string& err) {
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
    std::vector<std::string> words = {OSTLER_BINARY_DIR "/lab/fernhill-lab"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const bool daemon =
        !arguments.empty() && (arguments.front() == "replay" || arguments.front() == "divert");
    const bool given = std::find(words.begin(), words.end(), "--program") != words.end();
    if (daemon && !given && !testsupport::macProgram().empty())
        words.insert(words.begin() + 2, {"--program", testsupport::macProgram()});
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

// The parent of a process, by the fourth word of its state, counted behind the name in brackets.
pid_t parentOf(const fs::path& process) {
    std::ifstream file(process / "stat");
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const auto name = text.rfind(')');
    char state = 0;
    int parent = 0;
    if (name == std::string::npos || std::sscanf(text.c_str() + name + 1, " %c %d", &state, &parent) != 2)
        return 0;
    return parent;
}

} // namespace

LabRun runLab(const std::vector<std::string>& arguments, const std::function<void(pid_t)>& meanwhile) {
    testsupport::claimFixedPorts();
    const testsupport::TemporaryFolder folder;
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) become(arguments, folder.file("out"), folder.file("err"));
    if (meanwhile) meanwhile(child);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testsupport::readAll(folder.file("out")),
            testsupport::readAll(folder.file("err")), WIFSIGNALED(status) ? WTERMSIG(status) : 0};
}

namespace {

// Process numbers within the namespaces that the process is in, from the outermost; the last is 1 for a first process.
bool isFirstOfItsNamespace(const fs::path& process) {
    std::ifstream file(process / "status");
    for (std::string line; std::getline(file, line);)
        if (line.rfind("NSpid:", 0) == 0) return line.size() > 2 && line.substr(line.size() - 2) == "\t1";
    return false;
}

// Before such a process there is one that makes its namespace, and ends.
bool makesANamespace(const fs::path& process) {
    std::error_code gone;
    return fs::read_symlink(process / "ns/pid", gone) !=
           fs::read_symlink(process / "ns/pid_for_children", gone);
}

pid_t awaitChild(pid_t parent, const std::function<bool(const fs::path&)>& counts) {
    const auto limit = std::chrono::steady_clock::now() + testsupport::patience;
    while (std::chrono::steady_clock::now() < limit) {
        std::error_code ignored;
        for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
            const std::string name = entry.path().filename().string();
            if (name.find_first_not_of("0123456789") == std::string::npos &&
                parentOf(entry.path()) == parent && counts(entry.path()))
                return std::stoi(name);
        }
        sched_yield();
    }
    return 0;
}

} // namespace

pid_t awaitChildOf(pid_t parent) {
    return awaitChild(parent, [](const fs::path&) { return true; });
}

pid_t awaitDaemonOf(pid_t lab) {
    return awaitChild(
        lab, [](const fs::path& child) { return !isFirstOfItsNamespace(child) && !makesANamespace(child); });
}

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

} // namespace labtest
