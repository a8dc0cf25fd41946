#include "support/NetworkNamespace.h"

#include "support/TestChild.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
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

// A namespace of these kinds in which this process is the superuser.
bool enterNamespace(int kinds) {
    const std::string user = "0 " + std::to_string(getuid()) + " 1";
    const std::string group = "0 " + std::to_string(getgid()) + " 1";
    if (unshare(CLONE_NEWUSER | kinds) != 0) return false;
    writeFile("/proc/self/setgroups", "deny");
    return writeFile("/proc/self/uid_map", user) && writeFile("/proc/self/gid_map", group);
}

bool mountSmallDisk(const std::string& folder, std::size_t bytes) {
    const std::string size = "size=" + std::to_string(bytes);
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", folder.c_str(), "tmpfs", 0, size.c_str()) == 0;
}

// Runs `body` in a forked child in which `enter` has worked.
NamespaceResult runBehind(const std::function<bool()>& enter, const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = forkAlone();
    if (child == 0) {
        if (!enter()) _exit(noNamespace);
        endAfter(body);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return NamespaceResult::unavailable;
    if (WIFEXITED(status) && WEXITSTATUS(status) == noNamespace) return NamespaceResult::unavailable;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? NamespaceResult::passed : NamespaceResult::failed;
}

} // namespace

pid_t forkAlone() { return _Fork(); }

NamespaceResult runInNetworkNamespace(const std::function<void()>& body) {
    return runBehind([] { return enterNamespace(CLONE_NEWNET) && raiseLoopback(); }, body);
}

NamespaceResult runOnSmallDisk(const std::string& folder, std::size_t bytes,
                               const std::function<void()>& body) {
    return runBehind([&] { return enterNamespace(CLONE_NEWNS) && mountSmallDisk(folder, bytes); }, body);
}

NamespaceResult runWithPlayedFile(const std::string& path, const std::string& played,
                                  const std::function<void()>& body) {
    const auto enter = [&] {
        return enterNamespace(CLONE_NEWNS) &&
               mount(played.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
    };
    return runBehind(enter, body);
}

} // namespace testsupport
