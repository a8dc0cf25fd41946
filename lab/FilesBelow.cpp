#include "lab/FilesBelow.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

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

std::string faultBelow(int reason) {
    if (reason == ELOOP)
        return "a link lies there or on the way, and none is followed; remove it, or give another folder";
    if (reason == ENXIO) return "it is no regular file; remove it, or give another folder";
    return std::string(std::strerror(reason)) + "; give another folder";
}

} // namespace lab
