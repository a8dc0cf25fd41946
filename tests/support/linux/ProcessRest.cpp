#include "support/ProcessRest.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

namespace testsupport {
namespace {

namespace fs = std::filesystem;

// The letter behind the name, which stands in brackets and can hold anything.
char stateOf(const fs::path& thread) {
    std::string text;
    std::getline(std::ifstream(thread / "stat"), text);
    const std::size_t name = text.rfind(") ");
    return name == std::string::npos ? 'X' : text[name + 2];
}

bool waits(char state) { return state == 'S' || state == 'Z' || state == 'X'; }

} // namespace

bool isAtRest(pid_t process) {
    std::error_code gone;
    fs::directory_iterator threads("/proc/" + std::to_string(process) + "/task", gone);
    for (; !gone && threads != fs::directory_iterator(); threads.increment(gone)) {
        if (!waits(stateOf(threads->path()))) return false;
        std::ifstream children(threads->path() / "children");
        for (pid_t child = 0; children >> child;)
            if (!isAtRest(child)) return false;
    }
    return true;
}

std::chrono::nanoseconds processorTime(pid_t process) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0) return {};
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

} // namespace testsupport
