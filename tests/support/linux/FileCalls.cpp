#include "support/FileCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace {

struct Seen {
    int byPath = 0;
    int byDescriptor = 0;
    bool allClosedOnExec = true;
    std::function<void()> before;
    std::function<void()> behind;
    std::function<void()> beforeEach;
    std::size_t mostOfAWrite = SIZE_MAX;
    bool interruptsNext = false;
    int writes = 0;
};

thread_local Seen* seen = nullptr;

} // namespace

#ifndef OSTLER_SANITIZED

namespace {

template <class Function>
Function* ofTheLibrary(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void runOnce(std::function<void()>& action) {
    if (const auto now = std::exchange(action, nullptr)) now();
}

} // namespace

// These stand in front of the C library's own for the whole program.
extern "C" {

int stat(const char* path, struct stat* entry) noexcept {
    static auto* const real = ofTheLibrary<int(const char*, struct stat*)>("stat");
    if (seen) ++seen->byPath;
    return real(path, entry);
}

int lstat(const char* path, struct stat* entry) noexcept {
    static auto* const real = ofTheLibrary<int(const char*, struct stat*)>("lstat");
    if (seen) ++seen->byPath;
    return real(path, entry);
}

int fstat(int descriptor, struct stat* entry) noexcept {
    static auto* const real = ofTheLibrary<int(int, struct stat*)>("fstat");
    Seen* const noting = std::exchange(seen, nullptr);
    if (!noting) return real(descriptor, entry);
    ++noting->byDescriptor;
    if (!(fcntl(descriptor, F_GETFD) & FD_CLOEXEC)) noting->allClosedOnExec = false;
    if (noting->beforeEach) noting->beforeEach();
    runOnce(noting->before);
    const int result = real(descriptor, entry);
    runOnce(noting->behind);
    seen = noting;
    return result;
}

ssize_t write(int descriptor, const void* bytes, size_t length) {
    static auto* const real = ofTheLibrary<ssize_t(int, const void*, size_t)>("write");
    if (!seen) return real(descriptor, bytes, length);
    if (seen->interruptsNext) {
        seen->interruptsNext = false;
        errno = EINTR;
        return -1;
    }
    seen->interruptsNext = seen->mostOfAWrite != SIZE_MAX;
    ++seen->writes;
    return real(descriptor, bytes, std::min(length, seen->mostOfAWrite));
}

} // extern "C"

#endif

namespace testsupport {

FileCalls::FileCalls() { seen = new Seen; }

FileCalls::~FileCalls() { delete std::exchange(seen, nullptr); }

int FileCalls::byPath() const { return seen->byPath; }

int FileCalls::byDescriptor() const { return seen->byDescriptor; }

bool FileCalls::allClosedOnExec() const { return seen->allClosedOnExec; }

void FileCalls::beforeNextFstat(std::function<void()> action) { seen->before = std::move(action); }

void FileCalls::beforeEachFstat(std::function<void()> action) { seen->beforeEach = std::move(action); }

void FileCalls::shortenWrites(std::size_t most) { seen->mostOfAWrite = most; }

int FileCalls::writes() const { return seen->writes; }

void FileCalls::behindNextFstat(std::function<void()> action) { seen->behind = std::move(action); }

} // namespace testsupport
