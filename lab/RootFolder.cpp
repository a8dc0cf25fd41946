#include "lab/RootFolder.h"

#include "lab/Policy.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t longestRoot = 60;

void checkLength(const std::string& path) {
    if (path.size() <= longestRoot) return;
    throw InputError(fmt::format("{}: a scratch folder's path has at most {} bytes; choose a shorter one",
                                 path, longestRoot));
}

// Follows no link below the root and waits for no reader: a program may have written there before.
int openBelow(const std::string& root, const std::string& path) {
    const int folder = open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    open_how how{};
    how.flags = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC;
    how.mode = 0644;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const int file = static_cast<int>(syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how));
    const int reason = errno;
    if (folder >= 0) close(folder);
    errno = reason;
    return file;
}

void writeWhole(const std::string& root, const std::string& path, const std::string& text) {
    const int file = openBelow(root, path);
    const bool written =
        file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int reason = errno;
    if (file >= 0) close(file);
    if (!written) throw InputError(fmt::format("{}/{}: {}", root, path, std::strerror(reason)));
}

constexpr const char* temporaryName = "fernhill-XXXXXX";

// In a temporary folder as long as it is one of the lab's.
constexpr const char* marker = ".of-fernhill-lab";

// A lock on the folder, which ends with the processes that hold it, or -1.
int lockFolder(const std::string& path) {
    const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0 || flock(folder, LOCK_EX | LOCK_NB) == 0) return folder;
    close(folder);
    return -1;
}

bool isOfALab(int folder) {
    struct stat entry {};
    return fstat(folder, &entry) == 0 && entry.st_uid == geteuid() &&
           faccessat(folder, marker, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

// Those that no process has locked any more: their labs were killed.
void removeAbandoned(const fs::path& folder) {
    std::error_code ignored;
    const std::string name = temporaryName;
    const std::string beginning = name.substr(0, name.find('X'));
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, ignored)) {
        const std::string other = entry.path().filename().string();
        if (other.size() != name.size() || other.rfind(beginning, 0) != 0) continue;
        const int lock = lockFolder(entry.path());
        if (lock >= 0 && isOfALab(lock)) fs::remove_all(entry.path(), ignored);
        if (lock >= 0) close(lock);
    }
}

std::string makeTemporary(int& lock) {
    std::error_code error;
    const fs::path folder = fs::temp_directory_path(error);
    removeAbandoned(folder);
    std::string path = (folder / temporaryName).string();
    checkLength(path);
    if (error || !mkdtemp(path.data()) || (lock = lockFolder(path)) < 0)
        throw InputError(fmt::format("{}: no scratch folder can be made there", path));
    writeWhole(path, marker, "");
    return path;
}

} // namespace

RootFolder::RootFolder(const std::string& path) : kept_(!path.empty()) {
    std::error_code error;
    path_ = kept_ ? fs::absolute(path, error).lexically_normal().string() : makeTemporary(lock_);
    checkLength(path_);
    for (const char* folder : {"/Library/Logs", "/Library/Preferences", "/Library/twsys", "/var/run/fernhill",
                               "/bin", "/usr/local/bin"}) {
        fs::create_directories(path_ + folder, error);
        if (error) throw InputError(fmt::format("{}{}: {}", path_, folder, error.message()));
    }
    // The extension counts as loaded when this prints nothing.
    const std::string kextload = programs() + "/kextload";
    writeWhole(path_, "bin/kextload", "#!/bin/sh\nexit 0\n");
    fs::permissions(kextload, fs::perms::owner_all, error);
    if (error) throw InputError(fmt::format("{}: {}", kextload, error.message()));
}

RootFolder::~RootFolder() {
    std::error_code ignored;
    if (!kept_) fs::remove_all(path_, ignored);
    if (lock_ >= 0) close(lock_);
}

std::string RootFolder::outputTail() const {
    constexpr std::size_t tail = 2000;
    std::ifstream file(output(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return text.size() > tail ? text.substr(text.size() - tail) : text;
}

void RootFolder::configure(bool blockOnFailure, int logLevel) const {
    writeWhole(
        path_, "Library/twsys/fernhill.xml",
        fmt::format("<Fernhill>\n<BlockOnFailure>{}</BlockOnFailure>\n<LogLevel>{}</LogLevel>\n</Fernhill>\n",
                    blockOnFailure ? "true" : "false", logLevel));
}

} // namespace lab
