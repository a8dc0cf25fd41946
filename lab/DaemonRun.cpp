#include "lab/DaemonRun.h"

#include "app/Switches.h"
#include "lab/CheckedProgram.h"
#include "lab/EmptyConsole.h"
#include "lab/MacProgram.h"
#include "lab/OfflineNames.h"
#include "lab/SystemProgram.h"
#include "lab/WorldAnswers.h"
#include "platform/HostPaths.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace lab {
namespace {

// What the file of the daemon's output may grow to.
constexpr std::size_t largestOutput = 32 << 20;

constexpr int stopMilliseconds = 2000;

// Whether an output line is the echo of a log line that begins so. What a log line quotes can hold anything.
bool isLogLine(const std::string& line, const char* beginning) {
    const auto time = line.find("]: [");
    const auto text = time == std::string::npos ? time : line.find("]: ", time + 3);
    return text != std::string::npos && line.compare(text + 3, std::strlen(beginning), beginning) == 0;
}

} // namespace

DaemonRun::DaemonRun(const RootFolder& root, PlayedClock* clock, std::string program,
                     std::function<void()> surroundings)
    : root_(root), clock_(clock), program_(std::move(program)), surroundings_(std::move(surroundings)) {}

DaemonRun::~DaemonRun() { stop(); }

void DaemonRun::start(const std::vector<int>& foreign) {
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the daemon's output");
    std::fflush(nullptr);
    const pid_t lab = getpid();
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no process for the daemon");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != lab) _exit(1); // it went before it could be followed
        close(output[0]);
        runChild(output[1], foreign);
    }
    close(output[1]);
    reader_ = std::thread(&DaemonRun::readOutput, this, output[0]);
}

void DaemonRun::runChild(int output, const std::vector<int>& foreign) {
    for (int descriptor : foreign)
        close(descriptor);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(output);
    setvbuf(stdout, nullptr, _IOLBF, 0);

    if (programFormat(program_) == ProgramFormat::elf)
        becomeSystemProgram(program_, root_, {"fernhill", "-logecho"}, clock_ ? clock_->memory() : -1);

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
    if (running()) kill(pid_, SIGTERM);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(stopMilliseconds);
    while (running() && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (running()) {
        int status = 0;
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        noteEnding(status);
    }
    if (reader_.joinable()) reader_.join();
}

bool DaemonRun::running() {
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) noteEnding(status);
    return pid_ > 0;
}

// The process id belongs to nobody, or to somebody else, from now on.
void DaemonRun::noteEnding(int status) {
    pid_ = -1;
    ending_ = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                  : "status " + std::to_string(WEXITSTATUS(status));
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

void DaemonRun::readOutput(int output) {
    // No file of this process is one of a program that it starts.
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(root_.output().c_str(), "wbe"),
                                                               std::fclose);
    if (file) setvbuf(file.get(), nullptr, _IONBF, 0);
    std::size_t written = 0;
    std::string pending;
    char buffer[65536];
    for (ssize_t count; (count = read(output, buffer, sizeof buffer)) > 0;) {
        if (file && written < largestOutput)
            std::fwrite(buffer, 1, static_cast<std::size_t>(count), file.get());
        written += static_cast<std::size_t>(count);
        pending.append(buffer, static_cast<std::size_t>(count));
        std::size_t start = 0;
        for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1)
            takeLine(pending.substr(start, end - start));
        pending.erase(0, start);
    }
    close(output);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        silent_ = true;
        changed_.notify_all();
    }
    if (file && written > largestOutput)
        fmt::print(file.get(), "\n(the daemon wrote {} bytes in all)\n", written);
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
