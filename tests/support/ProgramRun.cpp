#include "support/ProgramRun.h"

#include "app/Switches.h"
#include "platform/HostPaths.h"
#include "platform/NameLookup.h"
#include "support/PlayedConsoleUser.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {
namespace {

constexpr int patience = 5000; // milliseconds

struct Pipe {
    Pipe() {
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    }
    int readEnd() const { return ends[0]; }
    int writeEnd() const { return ends[1]; }

    int ends[2];
};

// Of all runs only the daemon looks a name up: the address of its own server. The look-up tells the test and
// never returns.
class AnnouncingNames final : public platform::NameLookup {
public:
    explicit AnnouncingNames(int announceTo) : announceTo_(announceTo) {}

    bool gethostbyname2(const char*, int, platform::HostEntry&) override { return announce(); }
    bool gethostbyname(const char*, platform::HostEntry&) override { return announce(); }

private:
    bool announce() {
        if (write(announceTo_, "d", 1) != 1) _exit(99);
        for (;;)
            pause();
    }

    int announceTo_;
};

[[noreturn]] void runChild(const std::vector<std::string>& arguments, const Pipe& output,
                           const Pipe& announced) {
    if (dup2(output.writeEnd(), STDOUT_FILENO) < 0 || chdir(platform::HostPaths::root()) != 0) _exit(98);
    setenv("PATH", platform::HostPaths::root(), 1);
    static AnnouncingNames names(announced.writeEnd());
    platform::nameLookupService.install(names);
    static PlayedConsoleUser emptyConsole;
    emptyConsole.install();

    std::vector<std::string> words = {"/usr/local/bin/fernhill"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const int status = ostlerMain(static_cast<int>(words.size()), argv.data());
    std::fflush(stdout);
    _exit(status);
}

// Collects the output up to its end or to the daemon's announcement; whether the latter came.
bool follow(const Pipe& output, const Pipe& announced, std::string& text) {
    for (;;) {
        pollfd waited[] = {{output.readEnd(), POLLIN, 0}, {announced.readEnd(), POLLIN, 0}};
        if (poll(waited, 2, patience) < 1) throw std::runtime_error("the program neither ended nor started");
        if (waited[0].revents & POLLIN) {
            char chunk[4096];
            const ssize_t got = read(output.readEnd(), chunk, sizeof chunk);
            if (got > 0) text.append(chunk, static_cast<std::size_t>(got));
            if (got > 0) continue;
        }
        if (waited[1].revents & POLLIN) return true;
        if (waited[0].revents) return false;
    }
}

} // namespace

ProgramRun runProgram(const std::vector<std::string>& arguments) {
    const Pipe output, announced;
    std::fflush(stdout);
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no child");
    if (child == 0) runChild(arguments, output, announced);
    close(output.writeEnd());
    close(announced.writeEnd());

    ProgramRun run;
    run.startedDaemon = follow(output, announced, run.output);
    if (run.startedDaemon) kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
    close(output.readEnd());
    close(announced.readEnd());
    return run;
}

} // namespace testsupport
