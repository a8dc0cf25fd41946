#include "bench/WholeProgram.h"

#include "bench/DaemonState.h"
#include "lab/PrivateNetwork.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr char sockets[] = "/var/run/fernhill";
constexpr int patience = 20000; // milliseconds

void require(bool done, const char* what) {
    if (!done) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

void makeRoot(const std::string& root) {
    for (const char* folder : {"/usr", "/etc", "/dev", "/proc", "/stand-ins", "/tmp", "/Library/Logs",
                               "/Library/Preferences", "/var/run/fernhill"})
        fs::create_directories(root + folder);
    for (const char* link : {"bin", "lib", "lib64", "sbin"})
        if (fs::is_symlink(std::string("/") + link))
            fs::create_symlink(std::string("usr/") + link, root + "/" + link);
    fs::copy_file(OSTLER_BINARY_DIR "/src/fernhill", root + "/fernhill");
    fs::copy_file(OSTLER_BINARY_DIR "/bench/ostler_bare", root + "/bare");
    const std::string kextload = root + "/stand-ins/kextload";
    std::ofstream(kextload) << "#!/bin/sh\nexit 0\n";
    fs::permissions(kextload, fs::perms::all);
}

int listenAt(const std::string& name) {
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (std::string(sockets) + "/" + name).c_str(), sizeof address.sun_path - 1);
    require(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                listen(listener, 8) == 0,
            "a control socket");
    return listener;
}

int acceptAt(int listener) {
    pollfd waited = {listener, POLLIN, 0};
    require(poll(&waited, 1, patience) == 1, "no program comes to its control socket");
    return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
}

pid_t start(const std::string& program, const char* word) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDOUT_FILENO);
        execl(program.c_str(), program.c_str(), word, nullptr);
        _exit(127);
    }
    return child;
}

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

void presentOne(int channel, const std::string& record) {
    char result[2048];
    require(send(channel, record.data(), record.size(), 0) > 0 && recv(channel, result, sizeof result, 0) > 0,
            "a packet is not answered");
}

} // namespace

void enterOwnMachine() {
    const std::string root = scratchFolder() + "/machine";
    makeRoot(root);
    require(lab::enterPrivateNetwork(), "no network of its own");
    require(unshare(CLONE_NEWNS) == 0, "no root of its own");
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "no root of its own");
    for (const std::string folder : {"/usr", "/etc", "/dev", "/proc"})
        require(mount(folder.c_str(), (root + folder).c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
                "no system in the root");
    require(chroot(root.c_str()) == 0 && chdir(sockets) == 0, "no root of its own");
    setenv("PATH", "/stand-ins:/usr/bin:/bin", 1);
}

Cost runToEnd(const std::string& program, const std::string& word) {
    const double begin = secondsNow();
    const pid_t child = start(program, word.c_str());
    int status = 0;
    rusage used{};
    require(wait4(child, &status, 0, &used) == child && status == 0, "a program does not end well");
    return {secondsNow() - begin, secondsOf(used.ru_utime) + secondsOf(used.ru_stime)};
}

ControlSockets::ControlSockets()
    : inbound_(listenAt("twFernhill_inkext")), outbound_(listenAt("twFernhill_outkext")),
      options_(listenAt("twFernhill_inkext.options")) {
    server_ = std::thread([this] { serveOptions(); });
}

ControlSockets::~ControlSockets() {
    shutdown(options_, SHUT_RDWR);
    server_.join();
    for (const int listener : {inbound_, outbound_, options_})
        close(listener);
}

void ControlSockets::serveOptions() const {
    for (int client; (client = accept4(options_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(client)) {
        std::uint32_t request[1024] = {};
        if (recv(client, request, sizeof request, 0) < 12) continue;
        const bool asksForVersion = request[0] == 2 && request[1] == 201;
        const std::uint32_t answer[] = {0, asksForVersion ? 4u : 0u, 8};
        send(client, answer, asksForVersion ? 12 : 8, MSG_NOSIGNAL);
    }
}

RunningProgram::RunningProgram(const ControlSockets& sockets, const std::string& program,
                               const std::string& record) {
    const double begin = secondsNow();
    process_ = start(program, nullptr);
    inbound_ = acceptAt(sockets.inbound_);
    presentOne(inbound_, record);
    start_ = {secondsNow() - begin, processorSeconds(process_)};
    outbound_ = acceptAt(sockets.outbound_);
    presentOne(outbound_, record);
}

RunningProgram::~RunningProgram() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    close(inbound_);
    close(outbound_);
}

void RunningProgram::answer(bool inbound, const std::vector<std::string>& records, long count) const {
    presentTo(inbound ? inbound_ : outbound_, process_, records, count, -1);
}

} // namespace bench
