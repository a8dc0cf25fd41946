#include "lab/DaemonRun.h"

#include "app/Switches.h"
#include "lab/CheckedProgram.h"
#include "lab/EmptyConsole.h"
#include "lab/EndingSignals.h"
#include "lab/MacProgram.h"
#include "lab/OfflineNames.h"
#include "lab/OutputLines.h"
#include "lab/SystemProgram.h"
#include "lab/WorldAnswers.h"
#include "platform/HostPaths.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace lab {
namespace {

constexpr int cannotRun = 99;

constexpr int stopMilliseconds = 2000;

// Whether an output line is the echo of a log line that begins so. What a log line quotes can hold anything.
bool isLogLine(const std::string& line, const char* beginning) {
    const auto time = line.find("]: [");
    const auto text = time == std::string::npos ? time : line.find("]: ", time + 3);
    return text != std::string::npos && line.compare(text + 3, std::strlen(beginning), beginning) == 0;
}

struct Pipe {
    Descriptor reading;
    Descriptor writing;
};

Pipe pipeFor(const char* what, int flags) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | flags) != 0)
        throw std::runtime_error(fmt::format("no pipe for {}: {}", what, std::strerror(errno)));
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

} // namespace

DaemonRun::DaemonRun(const RootFolder& root, PlayedClock* clock, std::string program,
                     std::function<void()> surroundings)
    : root_(root), clock_(clock), program_(std::move(program)), surroundings_(std::move(surroundings)) {}

DaemonRun::~DaemonRun() { stop(); }

void DaemonRun::start(const std::vector<int>& foreign) {
    const ProgramFormat format = programFormat(program_);
    Pipe output = pipeFor("the daemon's output", 0), told;
    if (format == ProgramFormat::elf) told = pipeFor("a program's refusal", O_NONBLOCK);
    const auto run = [&](int reason) {
        output.reading = Descriptor();
        takeOutput(std::exchange(output.writing, Descriptor()), foreign);
        if (format == ProgramFormat::elf) runSystemProgram(reason, told.writing);
        runDaemon();
    };
    if (program_.empty())
        pid_ = forkFollower([&] { run(0); });
    else
        pid_ = space_.start(format == ProgramFormat::elf ? systemProgramNamespaces : 0, run);
    refusal_ = std::move(told.reading);
    ended_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    reader_ = std::thread(&DaemonRun::readOutput, this, std::move(output.reading));
}

void DaemonRun::takeOutput(Descriptor output, const std::vector<int>& foreign) {
    for (int descriptor : foreign)
        if (descriptor >= 0) close(descriptor);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    EndingSignals::release();
    // Keys of the terminal are for the lab, which takes the daemon with it.
    setsid();
}

void DaemonRun::becomeProgramOfThisSystem(int reason) const {
    if (reason)
        throw std::runtime_error(fmt::format(
            "a program of this system needs namespaces of mounts, processes and IPC: {}",
            reason == ENOSPC ? "all that user.max_*_namespaces allows are in use; raise it with sysctl"
                             : std::string(std::strerror(reason)) + "; run the lab as root, or allow them"));
    becomeSystemProgram(program_, root_, {"fernhill", "-logecho"}, clock_ ? clock_->memory() : -1);
}

void DaemonRun::runSystemProgram(int reason, int refusal) const {
    try {
        becomeProgramOfThisSystem(reason);
    } catch (const std::exception& error) {
        const std::string words = error.what();
        _exit(write(refusal, words.data(), words.size()) < 0 ? 1 : cannotRun);
    }
    _exit(cannotRun);
}

std::string DaemonRun::refusal() const {
    std::string words(65536, '\0');
    const ssize_t count = read(refusal_, words.data(), words.size());
    words.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return words;
}

void DaemonRun::runDaemon() {
    const char* path = std::getenv("PATH");
    setenv("PATH", (root_.programs() + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
    platform::HostPaths::setRoot(root_.path().c_str());
    if (clock_) platform::clockService.install(*clock_);
    platform::nameLookupService.install(offlineNames());
    platform::consoleUserService.install(emptyConsole());
    if (surroundings_) surroundings_();

    if (!program_.empty()) {
        if (clock_) shareClockMemory(clock_->memory());
        becomeMacProgram(program_, root_.path(), {"fernhill", "-logecho"}, [] { return false; });
    }

    char program[] = "fernhill";
    char echo[] = "-logecho";
    char* arguments[] = {program, echo, nullptr};
    std::exit(ostlerMain(2, arguments));
}

void DaemonRun::stop() {
    if (running()) send(SIGTERM);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(stopMilliseconds);
    while (running() && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    endNow();
    if (reader_.joinable()) reader_.join();
    if (ended_ >= 0) close(ended_);
    ended_ = -1;
}

void DaemonRun::send(int signal) {
    std::lock_guard<std::mutex> lock(life_);
    if (pid_ > 0) kill(pid_, signal);
}

void DaemonRun::endNow() {
    std::lock_guard<std::mutex> lock(life_);
    killAndBury();
}

void DaemonRun::endForGood() {
    life_.lock(); // and never unlocked
    killAndBury();
}

void DaemonRun::killAndBury() {
    if (pid_ <= 0) return;
    int status = 0;
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    noteEnding(status);
}

bool DaemonRun::running() {
    std::lock_guard<std::mutex> lock(life_);
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) noteEnding(status);
    return pid_ > 0;
}

pid_t DaemonRun::pid() {
    std::lock_guard<std::mutex> lock(life_);
    return pid_;
}

// The process id belongs to nobody, or to somebody else, from now on.
void DaemonRun::noteEnding(int status) {
    pid_ = -1;
    ending_ = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                  : "status " + std::to_string(WEXITSTATUS(status));
    space_.end();
    if (!program_.empty()) removeWorlds(root_.path());
}

long DaemonRun::resolved() {
    std::lock_guard<std::mutex> lock(mutex_);
    return resolved_;
}

bool DaemonRun::waitForResolved(long count, int milliseconds) {
    return waitFor(resolved_, count, milliseconds);
}

bool DaemonRun::waitForSettings(long count, int milliseconds) {
    return waitFor(settings_, count, milliseconds);
}

bool DaemonRun::waitFor(const long& number, long count, int milliseconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                      [&] { return number >= count || silent_; });
    return number >= count;
}

// Until nobody can write any more or the daemon has ended: what a process that it leaves behind still writes is not
// waited for.
void DaemonRun::readOutput(const Descriptor& output) {
    OutputFile file(root_.openOutput());
    OutputLines lines([this](const std::string& line) { takeLine(line); });
    std::vector<char> buffer(65536);
    const auto take = [&](std::size_t most) {
        const ssize_t count = read(output, buffer.data(), std::min(most, buffer.size()));
        if (count <= 0) return std::size_t{0};
        file.write(buffer.data(), static_cast<std::size_t>(count));
        lines.add(buffer.data(), static_cast<std::size_t>(count));
        return static_cast<std::size_t>(count);
    };
    for (bool ended = false; !ended;) {
        pollfd waited[] = {{output, POLLIN, 0}, {ended_, POLLIN, 0}};
        if (poll(waited, 2, -1) < 0) continue;
        ended = waited[1].revents != 0 || take(buffer.size()) == 0;
    }
    int left = 0;
    if (ioctl(output, FIONREAD, &left) != 0) left = 0;
    for (std::size_t count = 1; left > 0 && count > 0; left -= static_cast<int>(count))
        count = take(static_cast<std::size_t>(left));
    std::lock_guard<std::mutex> lock(mutex_);
    silent_ = true;
    changed_.notify_all();
}

void DaemonRun::takeLine(const std::string& line) {
    const bool resolved = isLogLine(line, "Hijack-resolve:");
    const bool settings = isLogLine(line, "OstComm loadConfigResponseThread valueBypassStr is now ");
    if (!resolved && !settings) return;
    std::lock_guard<std::mutex> lock(mutex_);
    ++(resolved ? resolved_ : settings_);
    changed_.notify_all();
}

} // namespace lab
