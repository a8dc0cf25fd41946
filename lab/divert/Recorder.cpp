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

constexpr int startSeconds = 10;

// tcpdump hands over what it has seen every so often, and what it has not is lost when it ends.
constexpr std::chrono::milliseconds lastPackets(300);

void awaitStart(pid_t program, const std::string& output) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(startSeconds);
    std::string line;
    while (line.find("listening on") == std::string::npos) {
        std::ifstream file(output);
        while (std::getline(file, line) && line.find("listening on") == std::string::npos) {
        }
        int status = 0;
        if (waitpid(program, &status, WNOHANG) == program || std::chrono::steady_clock::now() > limit)
            throw UnavailableError(fmt::format("divert: tcpdump does not record: {}", line));
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
