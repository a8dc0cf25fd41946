#include "lab/FilesBelow.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace lab {

Descriptor openBelow(int folder, const std::string& path, int flags, Links links, mode_t mode) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.mode = mode;
    how.resolve = links == Links::refused ? RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS : RESOLVE_IN_ROOT;
    return Descriptor(static_cast<int>(syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how)));
}

Descriptor openFileBelow(int folder, const std::string& path, int flags, mode_t mode) {
    Descriptor file = openBelow(folder, path, flags | O_NONBLOCK | O_NOCTTY, Links::refused, mode);
    struct stat entry {};
    if (file < 0 || (fstat(file, &entry) == 0 && S_ISREG(entry.st_mode))) return file;
    errno = ENXIO;
    return Descriptor();
}

Descriptor makeFolderBelow(int folder, const std::string& path, Links links) {
    Descriptor made = openBelow(folder, ".", O_PATH | O_DIRECTORY, links);
    std::filesystem::path whole;
    for (const std::filesystem::path& name : std::filesystem::path(path).relative_path()) {
        if (made < 0) break;
        whole /= name;
        Descriptor next = openBelow(folder, whole, O_PATH | O_DIRECTORY, links);
        if (next < 0 && errno == ENOENT) {
            if (mkdirat(made, name.c_str(), 0777) != 0 && errno != EEXIST) return Descriptor();
            next = openBelow(folder, whole, O_PATH | O_DIRECTORY, links);
        }
        made = std::move(next);
    }
    return made;
}

namespace {

// A folder on the way down, without its files.
struct Emptied {
    std::string name;
    std::vector<std::string> folders; // that are still to be removed from it
    bool stays;
    dev_t volume;
    ino_t number;
};

bool isStill(const Emptied& emptied, int folder) {
    struct stat entry {};
    return fstat(folder, &entry) == 0 && entry.st_dev == emptied.volume && entry.st_ino == emptied.number;
}

Emptied withoutFiles(int folder, const std::string& name, const std::string& but = "") {
    struct stat itself {};
    fstat(folder, &itself);
    Emptied emptied{name, {}, true, itself.st_dev, itself.st_ino};
    const int listed = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listed < 0) return emptied;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(listed), closedir);
    if (!entries) {
        close(listed);
        return emptied;
    }
    emptied.stays = false;
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string inside = entry->d_name;
        if (inside == "." || inside == ".." || inside == but) continue;
        if (unlinkat(folder, inside.c_str(), 0) == 0) continue;
        if (errno == EISDIR)
            emptied.folders.push_back(inside);
        else
            emptied.stays = true;
    }
    return emptied;
}

// None where something is mounted: that is somebody else's.
Descriptor openedForRemoval(int folder, const std::string& name) {
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_NO_XDEV;
    const Descriptor found(static_cast<int>(syscall(SYS_openat2, folder, name.c_str(), &how, sizeof how)));
    chmod(("/proc/self/fd/" + std::to_string(found)).c_str(),
          0700); // where it cannot be, opening it may fail
    return Descriptor(openat(found, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

} // namespace

// Holds one folder open at a time, since there may be more of them below each other than a process may hold. The way
// back up is gone when somebody has moved a folder meanwhile: where that lies now, nothing is the lab's.
bool removeAllIn(Descriptor folder, const std::string& but) {
    std::vector<Emptied> way = {withoutFiles(folder, "", but)};
    for (;;) {
        if (!way.back().folders.empty()) {
            const std::string name = way.back().folders.back();
            way.back().folders.pop_back();
            Descriptor next = openedForRemoval(folder, name);
            way.back().stays |= next < 0;
            if (next < 0) continue;
            way.push_back(withoutFiles(next, name));
            folder = std::move(next);
            continue;
        }
        if (way.size() == 1) return folder >= 0 && !way.back().stays;
        const std::string done = way.back().name;
        way.pop_back();
        folder = Descriptor(openat(folder, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder < 0 || !isStill(way.back(), folder)) return false;
        way.back().stays |= unlinkat(folder, done.c_str(), AT_REMOVEDIR) != 0;
    }
}

std::string faultBelow(int reason) {
    if (reason == ELOOP)
        return "a link lies there or on the way, and none is followed; remove it, or give another folder";
    if (reason == ENXIO) return "it is no regular file; remove it, or give another folder";
    return std::string(std::strerror(reason)) + "; give another folder";
}

} // namespace lab
