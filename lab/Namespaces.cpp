#include "lab/Namespaces.h"

#include <fmt/format.h>

#include <sched.h>
#include <unistd.h>

#include <fstream>

namespace lab {
namespace {

void mapToRoot(const char* file, unsigned id) { std::ofstream(file) << fmt::format("0 {} 1\n", id); }

} // namespace

bool unshareAsRoot(int kinds) {
    if (unshare(kinds) == 0) return true;
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(CLONE_NEWUSER | kinds) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    mapToRoot("/proc/self/uid_map", user);
    mapToRoot("/proc/self/gid_map", group);
    return true;
}

} // namespace lab
