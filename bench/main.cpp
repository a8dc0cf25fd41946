// The benchmarks. Each group runs in a process of its own and prints lines of JSON.
//
//   ostler_bench [--quick] [GROUP...]
//
// Exit status 1 when a group did not come to its end.

#include "bench/DaemonState.h"
#include "bench/Groups.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

namespace {

struct Group {
    const char* name;
    void (*run)(const bench::Effort&);
};

constexpr Group groups[] = {
    {"listener", bench::listenerRows},
    {"live-records", bench::liveRecordRows},
    {"records", bench::recordRows},
    {"readers", bench::readerRows},
    {"queries", bench::queryRows},
    {"silent-agent", bench::silentAgentRows},
    {"documents", bench::documentRows},
    {"hostile", bench::hostileRows},
    {"log", bench::logRows},
    {"programs", bench::programRows},
    {"replay", bench::replayRows},
    {"record-curve", bench::recordCurve},
    {"hostile-curves", bench::hostileCurves},
};

// Seconds until a group counts as one that does not come to its end.
constexpr unsigned longestGroup = 3600;
constexpr unsigned longestQuickGroup = 600;

[[noreturn]] void runGroup(const Group& group, const bench::Effort& effort) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(effort.quick ? longestQuickGroup : longestGroup);
    try {
        group.run(effort);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", group.name, error.what());
        _exit(1);
    }
    _exit(0);
}

bool completes(const Group& group, const bench::Effort& effort) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) runGroup(group, effort);
    int status = 0;
    const bool whole = child > 0 && waitpid(child, &status, 0) == child && status == 0;
    if (!whole) std::fprintf(stderr, "%s did not come to its end (status %#x)\n", group.name, status);
    return whole;
}

} // namespace

int main(int argc, char* argv[]) {
    bench::Effort effort;
    std::vector<std::string> chosen;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0)
            effort.quick = true;
        else
            chosen.emplace_back(argv[i]);
    }
    for (const std::string& name : chosen) {
        const auto isNamed = [&name](const Group& group) { return name == group.name; };
        if (std::none_of(std::begin(groups), std::end(groups), isNamed)) {
            std::fprintf(stderr, "no group is called %s\n", name.c_str());
            return 2;
        }
    }
    bool whole = !bench::scratchFolder().empty();
    for (const Group& group : groups) {
        if (!chosen.empty() && std::find(chosen.begin(), chosen.end(), group.name) == chosen.end()) continue;
        whole = completes(group, effort) && whole;
    }
    bench::removeScratchFolder();
    return whole ? 0 : 1;
}
