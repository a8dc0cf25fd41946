#include "lab/LiveTraffic.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace labtest {
namespace {

enum Lack { nothing, rights, tools, queue };

// In a child: whether the kernel takes what a live run asks of it.
[[noreturn]] void probe() {
    if (geteuid() != 0 || unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) _exit(rights);
    const int silence = open("/dev/null", O_RDWR);
    dup2(silence, STDOUT_FILENO);
    dup2(silence, STDERR_FILENO);
    for (const char* tool :
         {"ip", "iptables", "ip6tables", "nginx", "dnsmasq", "curl", "tcpdump", "openssl"}) {
        if (std::system((std::string("PATH=$PATH:/usr/sbin command -v ") + tool).c_str()) != 0) _exit(tools);
    }
    const int status = std::system("iptables -A OUTPUT -p tcp -m mark ! --mark 1 -j NFQUEUE --queue-num 1 && "
                                   "ip6tables -A INPUT -p udp -j NFQUEUE --queue-num 1");
    if (unshare(CLONE_NEWPID) != 0) _exit(rights); // from here on only one process can be started
    _exit(status == 0 ? nothing : queue);
}

} // namespace

std::string whyNoLiveTraffic() {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) probe();
    int status = 0;
    waitpid(child, &status, 0);
    switch (WEXITSTATUS(status)) {
        case nothing:
            return "";
        case rights:
            return "no rights to make namespaces";
        case tools:
            return "a tool is missing: scripts/setup installs it";
        default:
            return "the kernel has no NFQUEUE";
    }
}

LabRun LiveTraffic::live(const std::string& policy, const std::string& script,
                         const std::vector<std::string>& options) {
    testsupport::writeAll(policy_, policy);
    std::vector<std::string> words = {"divert", "--policy", policy_, "--json", folder_.file("connections")};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--", "bash", "-c", script});
    LabRun run = runLab(words);
    EXPECT_NE(run.status, 2) << run.err;
    return run;
}

std::vector<nlohmann::json> LiveTraffic::connections() const {
    std::vector<nlohmann::json> all;
    for (const std::string& line : linesOf(testsupport::readAll(folder_.file("connections"))))
        all.push_back(nlohmann::json::parse(line));
    return all;
}

nlohmann::json LiveTraffic::connectionOf(const std::string& url) const {
    std::vector<nlohmann::json> found;
    for (const nlohmann::json& connection : connections()) {
        if (connection["url"] == url) found.push_back(connection);
    }
    EXPECT_EQ(found.size(), 1u) << url;
    return found.empty() ? nlohmann::json::object() : found[0];
}

} // namespace labtest
