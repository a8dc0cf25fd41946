#include "gp/GuardedAppend.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool hasOneName(const struct stat& entry) { return S_ISREG(entry.st_mode) && entry.st_nlink == 1; }

enum class Place { own, other, left };

// Whether the open file is what lies at `path`, and lies nowhere else; or has left that place for another, as a file
// does that a rotation moves. To ask the descriptor alone is not enough: whoever puts a second name of some file there
// can take it away again once it is open, and one name is left.
Place placeOf(int descriptor, const char* path, KnownFile* known) {
    struct stat opened;
    if (fstat(descriptor, &opened) != 0 || !hasOneName(opened)) return Place::other;
    if (known && known->is(opened.st_dev, opened.st_ino)) return Place::own;

    struct stat named;
    if (lstat(path, &named) != 0) return errno == ENOENT ? Place::left : Place::other;
    if (!hasOneName(named)) return Place::other;
    if (named.st_dev != opened.st_dev || named.st_ino != opened.st_ino) return Place::left;
    if (known) known->set(opened.st_dev, opened.st_ino);
    return Place::own;
}

bool writeWhole(int descriptor, const char* text, std::size_t length) {
    while (length > 0) {
        const ssize_t written = write(descriptor, text, length);
        if (written < 0 && errno == EINTR) continue;
        if (written < 1) return false;
        text += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace

bool appendGuarded(const char* path, const char* text, std::size_t length, KnownFile* known) {
    // Without waiting, since a pipe waits for its reader and a file with a lease for its holder.
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    // Nobody is to keep a caller here by moving every file away.
    constexpr int mostTries = 8;
    for (int tries = 0; tries < mostTries; ++tries) {
        const int descriptor = open(path, flags, 0666);
        if (descriptor < 0) return false;
        const Place place = placeOf(descriptor, path, known);
        const bool written = place == Place::own && writeWhole(descriptor, text, length);
        const bool closed = close(descriptor) == 0;
        if (place != Place::left) return closed && written;
    }
    return false;
}
