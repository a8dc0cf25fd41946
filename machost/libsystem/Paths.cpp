#include "machost/libsystem/Paths.h"

#include "machost/Settings.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace machost::libsystem {
namespace {

std::string withoutSlash(std::string folder) {
    while (folder.size() > 1 && folder.back() == '/')
        folder.pop_back();
    return folder;
}

bool isBelow(const std::string& path, const std::string& folder) {
    const std::string base = withoutSlash(folder);
    if (base.empty() || base == "/") return false;
    return path.compare(0, base.size(), base) == 0 &&
           (path.size() == base.size() || path[base.size()] == '/');
}

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

bool isInSearchFolder(const std::string& path) {
    const char* search = std::getenv("PATH");
    const std::string folder = folderOf(path);
    for (std::string left = search ? search : ""; !left.empty();) {
        const std::size_t end = left.find(':');
        if (withoutSlash(left.substr(0, end)) == folder) return true;
        left.erase(0, end == std::string::npos ? end : end + 1);
    }
    return false;
}

bool isOfThisMachine(const std::string& path) {
    const char* temporary = std::getenv("TMPDIR");
    if (temporary && isBelow(path, temporary)) return true;
    char working[PATH_MAX];
    if (getcwd(working, sizeof working) && isBelow(path, working)) return true;
    return isInSearchFolder(path);
}

// A path that goes up somewhere, with that done; from the root there is no way up. Links in front of a step up are not
// looked at.
std::string withoutWaysUp(const std::string& path) {
    const bool goesUp = (path + "/").find("/../") != std::string::npos;
    return goesUp ? std::filesystem::path(path).lexically_normal().string() : path;
}

} // namespace

std::string hostPath(const char* given) {
    const std::string& root = settings().root;
    if (root.empty() || given[0] != '/') return given;
    const std::string path = withoutWaysUp(given);
    if (isBelow(path, root) || isBelow(path, "/dev")) return path;
    std::string below = withoutSlash(root) + path;
    if (access(below.c_str(), F_OK) == 0) return below;
    return isOfThisMachine(path) ? path : below;
}

} // namespace machost::libsystem
