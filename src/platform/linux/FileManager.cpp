#include "platform/FileManager.h"

#include <sys/sendfile.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace platform {
namespace {

long codeOf(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return fileNoSuchFileError;
        case EACCES:
        case EPERM:
            return fileWriteNoPermissionError;
        case EEXIST:
        case ENOTEMPTY:
            return fileWriteFileExistsError;
        case ENAMETOOLONG:
            return fileWriteInvalidFileNameError;
        case ENOSPC:
            return fileWriteOutOfSpaceError;
        case EROFS:
            return fileWriteVolumeReadOnlyError;
        default:
            return fileWriteUnknownError;
    }
}

FileResult resultOf(bool done, int error) { return {done, done ? 0 : codeOf(error), {}}; }

// A descriptor that is closed at the end of the scope.
class OpenFile {
public:
    OpenFile(const char* path, int flags, mode_t mode) : descriptor_(open(path, flags | O_CLOEXEC, mode)) {}
    ~OpenFile() {
        if (descriptor_ >= 0) close(descriptor_);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// Copies a file to a new one of the same mode. False, with errno set, when that fails. Others may write to the folder
// that it lies in, so no link is followed and no pipe waited for.
bool copyNew(const char* from, const char* to) {
    const OpenFile source(from, O_RDONLY | O_NOFOLLOW | O_NONBLOCK, 0);
    struct stat entry {};
    if (source.descriptor() < 0 || fstat(source.descriptor(), &entry) != 0) return false;
    if (!S_ISREG(entry.st_mode)) {
        errno = EINVAL;
        return false;
    }
    const OpenFile target(to, O_WRONLY | O_CREAT | O_EXCL, entry.st_mode & 07777);
    if (target.descriptor() < 0) return false;
    for (off_t left = entry.st_size; left > 0;) {
        const ssize_t copied =
            sendfile(target.descriptor(), source.descriptor(), nullptr, static_cast<std::size_t>(left));
        if (copied < 0 && errno == EINTR) continue;
        if (copied < 0) return false;
        if (copied == 0) break;
        left -= copied;
    }
    return fsync(target.descriptor()) == 0;
}

// What rename does not do: the two paths lie on different volumes.
FileResult moveAcross(const char* from, const char* to) {
    const bool copied = copyNew(from, to);
    if (copied && unlink(from) == 0) return resultOf(true, 0);
    const int error = errno;
    if (copied || error != EEXIST) unlink(to);
    return resultOf(false, error);
}

class PosixFileManager final : public FileManager {
public:
    // A folder is emptied from its own descriptor on, so nobody can lead the removal elsewhere meanwhile.
    FileResult removeItem(const char* path) override {
        struct stat entry {};
        if (lstat(path, &entry) != 0) return resultOf(false, errno);
        std::error_code error;
        std::filesystem::remove_all(path, error);
        return resultOf(!error, error.value());
    }

    FileResult moveItem(const char* from, const char* to) override {
        struct stat entry {};
        if (lstat(from, &entry) != 0) return resultOf(false, errno);
        if (lstat(to, &entry) == 0) return resultOf(false, EEXIST);
        if (errno != ENOENT) return resultOf(false, errno);
        if (rename(from, to) == 0) return resultOf(true, 0);
        return errno == EXDEV ? moveAcross(from, to) : resultOf(false, errno);
    }
};

PosixFileManager posixFileManager;

} // namespace

Service<FileManager> fileManagerService{&posixFileManager};

} // namespace platform
