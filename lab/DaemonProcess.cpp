#include "lab/DaemonProcess.h"

#include "app/Switches.h"
#include "lab/OfflineNames.h"
#include "platform/HostPaths.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace lab {
namespace {

// What the file of the daemon's output may grow to.
constexpr std::size_t largestOutput = 32 << 20;

constexpr int stopMilliseconds = 2000;

} // namespace

DaemonProcess::DaemonProcess(const ScratchRoot& root, PlayedClock& clock) : root_(root), clock_(clock) {}

DaemonProcess::~DaemonProcess() { stop(); }

void DaemonProcess::start(const std::vector<int>& foreign) {
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the daemon's output");
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no process for the daemon");
    if (pid_ == 0) {
        close(output[0]);
        runChild(output[1], foreign);
    }
    close(output[1]);
    reader_ = std::thread(&DaemonProcess::readOutput, this, output[0]);
}

void DaemonProcess::runChild(int output, const std::vector<int>& foreign) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int descriptor : foreign)
        close(descriptor);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(output);
    setvbuf(stdout, nullptr, _IOLBF, 0);

    const char* path = std::getenv("PATH");
    setenv("PATH", (root_.programs() + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
    platform::HostPaths::setRoot(root_.path().c_str());
    platform::clockService.install(clock_);
    platform::nameLookupService.install(offlineNames());

    char program[] = "fernhill";
    char echo[] = "-logecho";
    char* arguments[] = {program, echo, nullptr};
    std::exit(ostlerMain(2, arguments));
}

void DaemonProcess::stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(stopMilliseconds);
    bool ended = false;
    while (!(ended = waitpid(pid_, nullptr, WNOHANG) != 0) && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (!ended) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    if (reader_.joinable()) reader_.join();
}

bool DaemonProcess::running() { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

long DaemonProcess::resolved() {
    std::lock_guard<std::mutex> lock(mutex_);
    return resolved_;
}

bool DaemonProcess::waitForResolved(long count, int milliseconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                             [&] { return resolved_ >= count; });
}

void DaemonProcess::readOutput(int output) {
    std::ofstream file(root_.output(), std::ios::binary);
    std::size_t written = 0;
    std::string pending;
    char buffer[65536];
    for (ssize_t count; (count = read(output, buffer, sizeof buffer)) > 0;) {
        if (written < largestOutput) file.write(buffer, count).flush();
        written += static_cast<std::size_t>(count);
        pending.append(buffer, static_cast<std::size_t>(count));
        std::size_t start = 0;
        for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1)
            takeLine(pending.substr(start, end - start));
        pending.erase(0, start);
    }
    close(output);
    if (written > largestOutput) file << "\n(the daemon wrote " << written << " bytes in all)\n";
}

void DaemonProcess::takeLine(const std::string& line) {
    if (line.find("Hijack-resolve:") == std::string::npos) return;
    std::lock_guard<std::mutex> lock(mutex_);
    ++resolved_;
    changed_.notify_all();
}

} // namespace lab
