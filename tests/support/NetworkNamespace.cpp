#include "support/NetworkNamespace.h"

#include "support/TestChild.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace testsupport {
namespace {

constexpr int noNamespace = 77;

bool writeFile(const char* path, const std::string& text) {
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0) return false;
    const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(file);
    return written;
}

bool raiseLoopback() {
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool raised = ioctl(control, SIOCSIFFLAGS, &request) == 0;
    close(control);
    return raised;
}

bool enterNamespace() {
    const std::string user = "0 " + std::to_string(getuid()) + " 1";
    const std::string group = "0 " + std::to_string(getgid()) + " 1";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
    writeFile("/proc/self/setgroups", "deny");
    return writeFile("/proc/self/uid_map", user) && writeFile("/proc/self/gid_map", group) && raiseLoopback();
}

} // namespace

NamespaceResult runInNetworkNamespace(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (!enterNamespace()) _exit(noNamespace);
        endAfter(body);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return NamespaceResult::unavailable;
    if (WIFEXITED(status) && WEXITSTATUS(status) == noNamespace) return NamespaceResult::unavailable;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? NamespaceResult::passed : NamespaceResult::failed;
}

} // namespace testsupport
