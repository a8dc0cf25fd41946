#include "lab/TemporaryRoots.h"

#include "lab/FilesBelow.h"
#include "lab/Policy.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr const char* temporaryName = "fernhill-XXXXXX";

// In a temporary folder from its lock on until it is empty again.
constexpr const char* marker = ".of-fernhill-lab";

// How often another lab may take a folder for an abandoned one before it is locked.
constexpr int mostAttempts = 100;

// How often a folder is emptied into which somebody may still write, such as another thread of a lab that is ending.
constexpr int mostRounds = 100;

fs::path placeOfAll() {
    const char* named = std::getenv("TMPDIR");
    const std::string place = named && *named ? named : "/tmp";
    std::error_code error;
    const fs::path whole = fs::canonical(place, error);
    if (error)
        throw InputError(fmt::format("{}: {}; name a folder that is there in TMPDIR, or unset it", place,
                                     error.message()));
    return whole;
}

InputError notThere(const std::string& place, const char* reason) {
    return InputError(fmt::format(
        "{}: no scratch folder can be made there ({}); name another folder in TMPDIR", place, reason));
}

Descriptor opened(const std::string& path) {
    return Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool lock(int folder, int operation) {
    int result = 0;
    while ((result = flock(folder, operation)) != 0 && errno == EINTR) {
    }
    return result == 0;
}

bool isStillAt(const std::string& path, int folder) {
    struct stat here {
    }, there{};
    return fstat(folder, &here) == 0 && lstat(path.c_str(), &there) == 0 && here.st_dev == there.st_dev &&
           here.st_ino == there.st_ino;
}

// One without a mark was made a moment before its lab was killed, or is all but removed.
bool isOfALab(const std::string& path, int folder) {
    std::error_code unreadable;
    struct stat entry {};
    return isStillAt(path, folder) && fstat(folder, &entry) == 0 && entry.st_uid == geteuid() &&
           (entry.st_mode & 0777) == 0700 &&
           (faccessat(folder, marker, F_OK, AT_SYMLINK_NOFOLLOW) == 0 || fs::is_empty(path, unreadable));
}

void removeAbandoned(const fs::path& place) {
    std::error_code ignored;
    const std::string name = temporaryName;
    const std::string beginning = name.substr(0, name.find('X'));
    for (const fs::directory_entry& entry : fs::directory_iterator(place, ignored)) {
        const std::string other = entry.path().filename().string();
        if (other.size() != name.size() || other.rfind(beginning, 0) != 0) continue;
        const Descriptor folder = opened(entry.path());
        if (folder >= 0 && lock(folder, LOCK_EX | LOCK_NB) && isOfALab(entry.path(), folder))
            removeTemporaryRoot(entry.path());
    }
}

// None when another lab has removed it meanwhile, as one that was abandoned.
Descriptor lockAndMark(const std::string& path, const std::string& place) {
    Descriptor folder = opened(path);
    if (folder < 0) return folder;
    if (lock(folder, LOCK_EX)) {
        if (!isStillAt(path, folder)) return Descriptor();
        if (openFileBelow(folder, marker, O_WRONLY | O_CREAT, 0600) >= 0) return folder;
    }
    const int reason = errno;
    rmdir(path.c_str());
    throw notThere(place, std::strerror(reason));
}

// One round. What is not removed, since somebody has put something there meanwhile, has its mark again.
bool isRemoved(const std::string& path) {
    if (!removeAllIn(opened(path), marker)) return false;
    const std::string mark = path + "/" + marker;
    unlink(mark.c_str());
    if (rmdir(path.c_str()) == 0) return true;
    const Descriptor again(open(mark.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    return false;
}

} // namespace

Descriptor makeTemporaryRoot(std::string& path, std::size_t longest) {
    const fs::path place = placeOfAll();
    removeAbandoned(place);
    for (int attempt = 0; attempt < mostAttempts; ++attempt) {
        path = (place / temporaryName).string();
        if (path.size() > longest)
            throw InputError(fmt::format(
                "{}: a scratch folder's path has at most {} bytes; choose a shorter one", path, longest));
        if (!mkdtemp(path.data())) throw notThere(place, std::strerror(errno));
        Descriptor folder = lockAndMark(path, place);
        if (folder >= 0) return folder;
    }
    throw notThere(place, "another process removes it");
}

void removeTemporaryRoot(const std::string& path) {
    for (int round = 0; round < mostRounds; ++round)
        if (isRemoved(path)) return;
}

} // namespace lab
