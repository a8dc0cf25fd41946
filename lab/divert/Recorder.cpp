#include "lab/divert/Recorder.h"

#include "lab/divert/LabNetwork.h"
#include "lab/divert/OwnSystem.h"
#include "lab/divert/Tools.h"

#include <fmt/format.h>

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace lab {
namespace {

constexpr int startSeconds = 60;

// tcpdump hands over what it has seen every so often, and what it has not is lost when it ends.
constexpr std::chrono::milliseconds lastPackets(300);

bool listens(const std::string& output) {
    std::ifstream file(output);
    for (std::string line; std::getline(file, line);) {
        if (line.find("listening on") != std::string::npos) return true;
    }
    return false;
}

void awaitStart(pid_t program, const std::string& output) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(startSeconds);
    while (!listens(output)) {
        if (helperHasEnded(program) || std::chrono::steady_clock::now() > limit)
            throw UnavailableError(fmt::format("divert: tcpdump does not record: {}", firstWords(output)));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace

Recorder::Recorder(const std::string& path) {
    if (path.empty()) return;
    const std::string output = std::string(ownFolder) + "/tcpdump.output";
    program_ = startHelper({"tcpdump", "-i", fmt::format("nflog:{}", recordGroup), "-s", "0", "-U", "-Z",
                            "root", "-B", "32768", "-w", path},
                           output);
    awaitStart(program_, output);
}

Recorder::~Recorder() {
    if (program_ < 0) return;
    std::this_thread::sleep_for(lastPackets);
    kill(program_, SIGINT);
    waitpid(program_, nullptr, 0);
}

} // namespace lab
