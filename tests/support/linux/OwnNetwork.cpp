#include "support/OwnNetwork.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fcntl.h>
#include <string>

namespace testsupport {
namespace {

bool writeLine(const char* path, const std::string& line) {
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0) return false;
    const bool written = write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    close(file);
    return written;
}

// A privileged process needs a network namespace alone; any other becomes the root of a user namespace.
bool enterNamespace() {
    if (unshare(CLONE_NEWNET) == 0) return true;
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
    writeLine("/proc/self/setgroups", "deny");
    writeLine("/proc/self/uid_map", "0 " + user + " 1");
    writeLine("/proc/self/gid_map", "0 " + group + " 1");
    return true;
}

bool raiseLoopback() {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) return false;
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    bool raised = ioctl(socket, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    raised = raised && ioctl(socket, SIOCSIFFLAGS, &request) == 0;
    close(socket);
    return raised;
}

} // namespace

bool enterOwnNetwork() { return enterNamespace() && raiseLoopback(); }

} // namespace testsupport
