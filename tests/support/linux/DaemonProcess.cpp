#include "support/DaemonProcess.h"

#include "platform/Clock.h"
#include "platform/ConsoleUser.h"
#include "platform/HardwareRegistry.h"
#include "platform/HostPaths.h"
#include "platform/KernelControl.h"
#include "platform/NetworkChanges.h"
#include "support/Eventually.h"
#include "support/FixedPorts.h"
#include "support/PlayedNames.h"
#include "support/ShippedProgram.h"
#include "support/TemporaryFolder.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using platform::HostPaths;

namespace testsupport {
namespace {

std::string outputFile() { return std::string(HostPaths::root()) + "/daemon-output"; }

std::string sessionFile() { return std::string(HostPaths::root()) + "/console-session"; }

// The console at the other end of a pipe: each line is the name of the user who is there from now on.
class PipedConsole final : public platform::ConsoleUser {
public:
    explicit PipedConsole(int commands) : commands_(commands) {}

    // Blocks for the next line. False at the pipe's end.
    bool readName() {
        std::string line;
        for (char byte; read(commands_, &byte, 1) == 1; line += byte) {
            if (byte != '\n') continue;
            name_ = line;
            return true;
        }
        return false;
    }

    bool copyName(char* buffer, std::size_t size) override {
        if (name_.empty() || name_.size() >= size) return false;
        std::memcpy(buffer, name_.c_str(), name_.size() + 1);
        return true;
    }

    Watch* create(const char* name, Callback changed) override {
        writeAll(sessionFile(), name);
        changed_ = changed;
        return reinterpret_cast<Watch*>(this);
    }

    void run(Watch* watch) override {
        while (readName())
            changed_(watch, nullptr, nullptr);
    }

    void release(Watch*) override {}

private:
    const int commands_;
    std::string name_; // read and written by the watch's thread alone once that runs
    Callback changed_ = nullptr;
};

// A network that never changes.
class QuietNetwork final : public platform::NetworkChanges {
public:
    QuietNetwork() {
        if (pipe2(never_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    }

    Watch* create(const char*, void (*)(), int& error) override {
        error = 0;
        return reinterpret_cast<Watch*>(this);
    }

    void run(Watch*) override {
        char byte;
        [[maybe_unused]] const ssize_t count = read(never_[0], &byte, 1);
    }

    void release(Watch*) override {}

private:
    int never_[2];
};

class FixedRegistry final : public platform::HardwareRegistry {
public:
    std::string platformUUID() override { return DaemonProcess::uuid; }
};

// The services are never destroyed: the daemon's threads use them until the process is gone.
void installServices(PipedConsole& console) {
    auto& names = *new PlayedNames;
    auto& network = *new QuietNetwork;
    auto& registry = *new FixedRegistry;
    names.answer("localhost", AF_INET, {"127.0.0.1"});
    names.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
    names.install();
    platform::consoleUserService.install(console);
    platform::networkChangesService.install(network);
    platform::hardwareRegistryService.install(registry);
    platform::clockService.install(platform::clockService.backend());
    platform::kernelControlService.install(platform::kernelControlService.backend());
}

struct LogLine {
    long thread;
    std::string message;
};

// The log's lines as "[thread time]: message"; a line without the bracket goes on with the message before it.
std::vector<LogLine> readLog() {
    std::vector<LogLine> result;
    std::istringstream text(readAll(HostPaths::logDirectory() + std::string("/fernhill0-1.log")));
    for (std::string line; std::getline(text, line);) {
        long thread = 0;
        const std::size_t front = line.find("]: ");
        if (front != std::string::npos && std::sscanf(line.c_str(), "[%ld ", &thread) == 1)
            result.push_back({thread, line.substr(front + 3)});
        else if (!result.empty())
            result.back().message += "\n" + line;
    }
    return result;
}

} // namespace

DaemonProcess::DaemonProcess(const std::function<void()>& surroundings) {
    claimFixedPorts();
    // The folder above the log's own is the system's.
    std::filesystem::create_directories(std::filesystem::path(HostPaths::logDirectory()).parent_path());
    std::filesystem::create_directories(
        std::filesystem::path(HostPaths::inboundControlSocket()).parent_path());
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    std::fflush(nullptr);
    process_ = fork();
    if (process_ < 0) throw std::runtime_error("no child");
    if (process_ == 0) {
        close(ends[1]);
        runChild(ends[0], surroundings);
    }
    mainThread_ = process_;
    close(ends[0]);
    commands_ = ends[1];
}

DaemonProcess::~DaemonProcess() {
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    close(commands_);
}

void DaemonProcess::runChild(int commands, const std::function<void()>& surroundings) {
    const int output = open(outputFile().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (dup2(output, STDOUT_FILENO) < 0) std::_Exit(98);
    auto& console = *new PipedConsole(commands);
    installServices(console);
    if (surroundings) surroundings();
    if (!console.readName()) std::_Exit(97);
    threads_.record();
    locks_.record();

    becomeShippedProgram({"/usr/local/bin/fernhill"});
}

void DaemonProcess::start(const std::string& consoleUser) { command(consoleUser); }

void DaemonProcess::changeConsoleUser(const std::string& name) { command(name); }

void DaemonProcess::command(const std::string& line) const {
    const std::string text = line + "\n";
    if (write(commands_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("the daemon's console is gone");
}

void DaemonProcess::signal(int number) { kill(process_, number); }

bool DaemonProcess::running() {
    siginfo_t ended{};
    return waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0;
}

int DaemonProcess::awaitEnd() {
    if (!eventually([&] { return !running(); })) return -1;
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string DaemonProcess::sessionName() const { return readAll(sessionFile()); }

std::string DaemonProcess::output() const { return readAll(outputFile()); }

std::vector<std::string> DaemonProcess::log() const {
    std::vector<std::string> messages;
    for (const LogLine& line : readLog())
        messages.push_back(line.message);
    return messages;
}

std::vector<std::string> DaemonProcess::mainLog() const {
    std::vector<std::string> messages;
    for (const LogLine& line : readLog())
        if (line.thread == mainThread_) messages.push_back(line.message);
    return messages;
}

bool DaemonProcess::logs(const std::string& text) const {
    const std::vector<std::string> messages = log();
    return std::any_of(messages.begin(), messages.end(),
                       [&](const std::string& message) { return message.find(text) != std::string::npos; });
}

bool DaemonProcess::awaitLog(const std::string& text) const {
    return eventually([&] { return logs(text); });
}

} // namespace testsupport
