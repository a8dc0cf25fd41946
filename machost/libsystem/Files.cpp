// Files and folders by path.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/FileLayouts.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/Paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace machost::libsystem {
namespace {

mac::Time timeOf(const timespec& time) { return {time.tv_sec, time.tv_nsec}; }

void convert(const struct stat& from, mac::Stat& to) {
    to = {};
    to.device = static_cast<std::int32_t>(from.st_dev);
    to.mode = static_cast<std::uint16_t>(from.st_mode);
    to.links = static_cast<std::uint16_t>(from.st_nlink);
    to.number = from.st_ino;
    to.user = from.st_uid;
    to.group = from.st_gid;
    to.specialDevice = static_cast<std::int32_t>(from.st_rdev);
    to.accessed = timeOf(from.st_atim);
    to.modified = timeOf(from.st_mtim);
    to.changed = timeOf(from.st_ctim);
    to.made = timeOf(from.st_ctim);
    to.size = from.st_size;
    to.blocks = from.st_blocks;
    to.blockSize = static_cast<std::int32_t>(from.st_blksize);
}

int playedStat(const char* path, mac::Stat* result) {
    const ErrorScope scope;
    struct stat found {};
    if (stat(hostPath(path).c_str(), &found) != 0) return -1;
    convert(found, *result);
    return 0;
}

int playedFstat(int descriptor, mac::Stat* result) {
    const ErrorScope scope;
    struct stat found {};
    if (fstat(descriptor, &found) != 0) return -1;
    convert(found, *result);
    return 0;
}

int playedLstat(const char* path, mac::Stat* result) {
    const ErrorScope scope;
    struct stat found {};
    if (lstat(hostPath(path).c_str(), &found) != 0) return -1;
    convert(found, *result);
    return 0;
}

struct OpenFlag {
    int mac;
    int host;
};
constexpr OpenFlag openFlags[] = {
    {mac::nonBlocking, O_NONBLOCK}, {mac::append, O_APPEND},    {mac::noFollow, O_NOFOLLOW},
    {mac::create, O_CREAT},         {mac::cut, O_TRUNC},        {mac::exclusive, O_EXCL},
    {mac::noTerminal, O_NOCTTY},    {mac::folder, O_DIRECTORY}, {mac::closeOnExec, O_CLOEXEC}};

// A flag that is not among these is not played.
int playedOpen(const char* path, int flags, ...) {
    const ErrorScope scope;
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & mac::create) ? va_arg(arguments, int) : 0;
    va_end(arguments);
    int host = flags & mac::accessMode;
    int left = flags & ~mac::accessMode;
    for (const OpenFlag& flag : openFlags) {
        if (left & flag.mac) host |= flag.host;
        left &= ~flag.mac;
    }
    if (left != 0) {
        errno = EINVAL;
        return -1;
    }
    return open(hostPath(path).c_str(), host, mode);
}

int playedMkdir(const char* path, std::uint16_t mode) {
    const ErrorScope scope;
    return mkdir(hostPath(path).c_str(), mode);
}

int playedRmdir(const char* path) {
    const ErrorScope scope;
    return rmdir(hostPath(path).c_str());
}

int playedRemove(const char* path) {
    const ErrorScope scope;
    return std::remove(hostPath(path).c_str());
}

int playedRename(const char* from, const char* to) {
    const ErrorScope scope;
    return std::rename(hostPath(from).c_str(), hostPath(to).c_str());
}

int playedChmod(const char* path, std::uint16_t mode) {
    const ErrorScope scope;
    return chmod(hostPath(path).c_str(), mode);
}

int playedTruncate(const char* path, std::int64_t length) {
    const ErrorScope scope;
    return truncate(hostPath(path).c_str(), length);
}

int playedFtruncate(int descriptor, std::int64_t length) {
    const ErrorScope scope;
    return ftruncate(descriptor, length);
}

// An open folder, with room for the one entry that the program looks at.
struct Folder {
    DIR* open;
    mac::Entry entry;
};

Folder* playedOpendir(const char* path) {
    const ErrorScope scope;
    DIR* open = opendir(hostPath(path).c_str());
    return open ? new Folder{open, {}} : nullptr;
}

mac::Entry* playedReaddir(Folder* folder) {
    const ErrorScope scope;
    const dirent* found = readdir(folder->open);
    if (!found) return nullptr;
    mac::Entry& entry = folder->entry;
    entry = {};
    entry.number = found->d_ino;
    entry.place = static_cast<std::uint64_t>(found->d_off);
    entry.type = found->d_type;
    entry.nameLength = static_cast<std::uint16_t>(std::strlen(found->d_name));
    std::memcpy(entry.name, found->d_name, entry.nameLength);
    entry.recordLength =
        static_cast<std::uint16_t>((offsetof(mac::Entry, name) + entry.nameLength + 1 + 7) / 8 * 8);
    return &entry;
}

int playedClosedir(Folder* folder) {
    const ErrorScope scope;
    const int result = closedir(folder->open);
    delete folder;
    return result;
}

char* playedGetcwd(char* room, std::size_t size) {
    const ErrorScope scope;
    return getcwd(room, size);
}

// Answers an error number of the Mac's, as the call itself does.
int playedGetpwuid(uid_t user, mac::Account* account, char* room, std::size_t size, mac::Account** result) {
    passwd found{};
    passwd* there = nullptr;
    *result = nullptr;
    const int error = getpwuid_r(user, &found, room, size, &there);
    if (error != 0) return macError(error);
    if (!there) return 0;
    static char none[] = "";
    *account = {found.pw_name, found.pw_passwd, found.pw_uid, found.pw_gid,   0,
                none,          found.pw_gecos,  found.pw_dir, found.pw_shell, 0};
    *result = account;
    return 0;
}

} // namespace

const ImportTable& fileImports() {
    static const auto& table = *new ImportTable{
        function("_stat$INODE64", playedStat, "stat(2) of xnu"),
        function("_lstat$INODE64", playedLstat, "lstat(2) of xnu"),
        function("_open", playedOpen, "open(2) of xnu"),
        function("_fstat$INODE64", playedFstat, "fstat(2) of xnu"),
        function("_mkdir", playedMkdir, "mkdir(2) of xnu"),
        function("_rmdir", playedRmdir, "rmdir(2) of xnu"),
        function("_remove", playedRemove, "remove.c of Libc"),
        function("_rename", playedRename, "rename(2) of xnu"),
        function("_chmod", playedChmod, "chmod(2) of xnu"),
        function("_truncate", playedTruncate, "truncate(2) of xnu"),
        function("_ftruncate", playedFtruncate, "ftruncate(2) of xnu"),
        function("_opendir$INODE64", playedOpendir, "opendir.c of Libc"),
        function("_readdir$INODE64", playedReaddir, "readdir.c of Libc"),
        function("_closedir", playedClosedir, "closedir.c of Libc"),
        function("_getcwd", playedGetcwd, "getcwd.c of Libc"),
        function("_getpwuid_r", playedGetpwuid, "getpwuid(3) of Libinfo"),
        function("_getuid", &getuid, "getuid(2) of xnu"),
        function("_geteuid", &geteuid, "geteuid(2) of xnu"),
    };
    return table;
}

} // namespace machost::libsystem
