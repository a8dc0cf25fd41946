#include "support/ProgramRun.h"

#include "support/Patience.h"

#include "platform/HostPaths.h"
#include "platform/NameLookup.h"
#include "support/ManualClock.h"
#include "support/PlayedConsoleUser.h"
#include "support/PlayedNames.h"
#include "support/PlayedNetworkChanges.h"
#include "support/ShippedProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace testsupport {
namespace {

struct Pipe {
    Pipe() {
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    }
    int readEnd() const { return ends[0]; }
    int writeEnd() const { return ends[1]; }

    int ends[2];
};

// Of all runs only the daemon looks its own server up. That look-up tells the test and never returns.
class AnnouncingNames final : public platform::NameLookup {
public:
    explicit AnnouncingNames(int announceTo) : announceTo_(announceTo) {}

    PlayedNames known;

    bool gethostbyname2(const char* name, int family, platform::HostEntry& entry) override {
        if (std::strcmp(name, "localhost") == 0) announce();
        return known.gethostbyname2(name, family, entry);
    }

    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }

private:
    [[noreturn]] void announce() {
        std::fflush(stdout);
        if (write(announceTo_, "d", 1) != 1) _exit(99);
        for (;;)
            pause();
    }

    int announceTo_;
};

// The services live as long as the process: a background thread may still use them at its end.
void playServices(const ProgramWorld& world, int announceTo) {
    auto& names = *new AnnouncingNames(announceTo);
    for (const auto& [name, address] : world.names)
        names.known.answer(name, AF_INET, {address});
    platform::nameLookupService.install(names);
    auto& interfaces = *new PlayedInterfaces;
    interfaces.show(world.interfaces);
    interfaces.install();
    (new PlayedConsoleUser)->install();
    (new PlayedNetworkChanges)->install();
    // Running a command sleeps for a moment while the child becomes the program.
    ManualClock::installed().letSleepsPass(true);
    ManualClock::installed().setEventWait(patienceMicroseconds, false);
}

[[noreturn]] void runChild(const std::vector<std::string>& arguments, const ProgramWorld& world,
                           const Pipe& output, const Pipe& announced) {
    if (dup2(output.writeEnd(), STDOUT_FILENO) < 0 || chdir(platform::HostPaths::root()) != 0) _exit(98);
    // A program that the run leaves behind must not keep the pipes open.
    for (const int end : {output.writeEnd(), announced.writeEnd()})
        fcntl(end, F_SETFD, FD_CLOEXEC);
    setenv("PATH", world.path.empty() ? platform::HostPaths::root() : world.path.c_str(), 1);
    playServices(world, announced.writeEnd());

    std::vector<std::string> words = {programPath()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    becomeShippedProgram(words);
}

// Collects the output up to its end or to the daemon's announcement; whether the latter came.
bool follow(const Pipe& output, const Pipe& announced, std::string& text) {
    for (;;) {
        pollfd waited[] = {{output.readEnd(), POLLIN, 0}, {announced.readEnd(), POLLIN, 0}};
        if (poll(waited, 2, patienceMilliseconds) < 1)
            throw std::runtime_error("the program neither ended nor started");
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

std::string programPath() { return std::string(platform::HostPaths::root()) + "/usr/local/bin/fernhill"; }

ProgramRun runProgram(const std::vector<std::string>& arguments, const ProgramWorld& world) {
    const Pipe output, announced;
    std::fflush(stdout);
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no child");
    if (child == 0) runChild(arguments, world, output, announced);
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
