#include "gp/GPFilesystem.h"

#include "gp/GPArray.h"
#include "gp/GPData.h"
#include "gp/GPList.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/ProgramName.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

bool statOf(const char* path, struct stat& entry) { return path && ::stat(path, &entry) == 0; }

GPString* processName = nullptr;

} // namespace

bool ifExist(const char* path) {
    struct stat entry;
    return statOf(path, entry);
}

bool isDirectory(const char* path) {
    struct stat entry;
    return statOf(path, entry) && S_ISDIR(entry.st_mode);
}

// True for what is not there: that is no directory.
bool isFile(const char* path) { return !isDirectory(path); }

// stat follows links, so this is false in practice.
bool isSymbolicLink(const char* path) {
    struct stat entry;
    return statOf(path, entry) && S_ISLNK(entry.st_mode);
}

bool isHidden(const char* path) { return path && path[0] == '~'; }

bool isUnix() { return true; }

namespace {

// Whatever has a size has none afterwards; a pipe or a terminal has none to begin with.
bool makeEmpty(int descriptor) { return ftruncate(descriptor, 0) == 0 || errno == EINVAL; }

} // namespace

// fopen's own letter for this is not known to every system. A file is emptied last, so that one which does not open has
// lost nothing.
std::FILE* openFile(const char* path, const char* mode) {
    int flags = O_RDONLY;
    if (mode[0] == 'w') flags = O_WRONLY | O_CREAT;
    if (mode[0] == 'a') flags = O_WRONLY | O_CREAT | O_APPEND;
    const int descriptor = open(path, flags | O_CLOEXEC, 0666);
    if (descriptor < 0) return nullptr;
    File file(fdopen(descriptor, mode));
    if (!file) {
        close(descriptor);
        return nullptr;
    }
    if (mode[0] == 'w' && !makeEmpty(descriptor)) return nullptr;
    return file.release();
}

bool readFile(const char* path, char* buffer, long& length, int offset, bool binary) {
    if (!path || !buffer || length < 1) return false;
    const File file(openFile(path, binary ? "rb" : "r"));
    if (!file) return false;
    // NOLINTNEXTLINE(cert-err33-c): what cannot be passed over is read from the start
    std::fseek(file.get(), offset, SEEK_SET);
    length = static_cast<long>(std::fread(buffer, 1, static_cast<std::size_t>(length), file.get()));
    return true;
}

bool writeFile(const char* path, const char* data, long length, bool binary, bool truncate) {
    if (!path) return false;
    const char* mode = truncate ? (binary ? "wb" : "w") : (binary ? "ab" : "a");
    File file(openFile(path, mode));
    if (!file || !data) return false;
    if (length == 0 && !binary)
        length = static_cast<long>(std::strlen(data));
    else if (length < 1)
        return false;
    const auto size = static_cast<std::size_t>(length);
    const bool written = std::fwrite(data, 1, size, file.get()) == size;
    return std::fclose(file.release()) == 0 && written;
}

GPData* readData(const char* path, int first, int offset) {
    if (!path || first != 0) return nullptr;
    long length = fileSize(path);
    if (length < 1 || length > INT_MAX) return nullptr;
    std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(length)]);
    if (!readFile(path, buffer.get(), length, offset, true)) return nullptr;
    return GPData::absorbeData(buffer.release(), static_cast<int>(length));
}

GPString* readText(const char* path, int first, int offset) {
    const auto data = Owned<GPData>::adopt(readData(path, first, offset));
    return data ? data->convertToString() : nullptr;
}

bool writeData(const char* path, GPData* data, bool truncate) {
    return writeFile(path, data->bytes(), data->length(), true, truncate);
}

bool writeText(const char* path, GPString* text, bool truncate) {
    return writeFile(path, text->cstr(), text->length(), false, truncate);
}

bool createNewFile(const char* path) {
    if (!path) return false;
    const File file(openFile(path, "w"));
    return file != nullptr;
}

bool copyFile(const char* from, const char* to) {
    if (!from || !to) return false;
    const auto content = Owned<GPData>::adopt(readData(from, 0, 0));
    if (!content) return false;
    // Without truncation: an old content stays in front of the copy.
    return writeFile(to, content->bytes(), content->length(), true, false);
}

bool renameFile(const char* from, const char* to) { return from && to && std::rename(from, to) == 0; }

bool moveFile(const char* from, const char* to) { return renameFile(from, to); }

bool deleteFile(const char* path) { return path && std::remove(path) == 0; }

long fileSize(const char* path) {
    struct stat entry;
    return statOf(path, entry) ? static_cast<long>(entry.st_size) : 0;
}

int fileMode(const char* path) {
    struct stat entry;
    return statOf(path, entry) ? static_cast<int>(entry.st_mode & 07777) : 0;
}

bool setFileMode(const char* path, int mode) { return path && ::chmod(path, static_cast<mode_t>(mode)) == 0; }

bool createDir(const char* path) { return path && ::mkdir(path, 0775) == 0; }

bool deleteDir(const char* path) { return path && ::rmdir(path) == 0; }

namespace {

bool isSkipped(const char* entry) {
    return std::strcmp(entry, ".") == 0 || std::strcmp(entry, "..") == 0 ||
           std::strcmp(entry, ".DS_Store") == 0;
}

template <class Container>
void listDirectory(const char* path, Container* found, bool recursive, GPFileSearchType type) {
    if (!path) return;
    const Directory directory(opendir(path));
    if (!directory) return;
    while (const dirent* entry = readdir(directory.get())) {
        if (isSkipped(entry->d_name)) continue;
        const auto full = Owned<GPString>::adopt(GPString::format("%s/%s", path, entry->d_name));
        // Tested by its bare name, so the answer is about the working directory.
        const bool isFolder = isDirectory(entry->d_name);
        const GPFileSearchType unwanted = isFolder ? GPFileSearchFiles : GPFileSearchDirectories;
        // Each object keeps the reference of its creation beside the container's, and so outlives it.
        if (type != unwanted) found->addObject(new GPFilesystem(full->cstr()));
        if (isFolder && recursive) listDirectory(full->cstr(), found, true, type);
    }
}

} // namespace

void getDirectoryFiles(const char* path, GPArray* found, bool recursive, GPFileSearchType type) {
    listDirectory(path, found, recursive, type);
}

void getDirectoryFiles(const char* path, GPList* found, bool recursive, GPFileSearchType type) {
    listDirectory(path, found, recursive, type);
}

const char* getCurrentDirectory() {
    std::vector<char> text(PATH_MAX + 1);
    if (!getcwd(text.data(), text.size())) return nullptr;
    // Never released, which keeps the text valid. NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
    return (new GPString(text.data()))->cstr();
}

const char* getAppDirectory() { return "/Applications"; }

const char* getUserDirectory() {
    thread_local std::string home;
    std::vector<char> buffer(4096);
    passwd account = {};
    passwd* result = nullptr;
    // cppcheck-suppress ignoredReturnValue // without an account there is no home
    getpwuid_r(getuid(), &account, buffer.data(), buffer.size(), &result);
    home = result && result->pw_dir ? result->pw_dir : "";
    return home.c_str();
}

const char* getDocDirectory() {
    thread_local std::string documents;
    documents = std::string(getUserDirectory()) + "/Documents";
    return documents.c_str();
}

const char* getTempDirectory() {
    const char* set = std::getenv("TMPDIR");
    return set && *set ? set : "/tmp";
}

const char* getAppDataDirectory() { return "/Library/Preferences"; }

// "user" is meant.
const char* getSystemDirectory() { return "/user/local/bin"; }

const char* getProcessName() { return processName ? processName->cstr() : platform::programName(); }

void setProcessName(const char* name) {
    if (processName)
        processName->reset(name);
    else
        processName = new GPString(name);
    const int slash = processName->find("/", true);
    // Above 0: a name whose only slash is its first character stays whole.
    if (slash > 0) processName->subString(slash + 1);
}

int getPID() { return static_cast<int>(getpid()); }

GPFilesystem::GPFilesystem(const char* path) {
    if (path) path_ = new GPString(path);
}

GPFilesystem::~GPFilesystem() {
    if (path_) path_->release();
}

GPFilesystem* GPFilesystem::createFile(const char* path) {
    if (!path) return nullptr;
    auto* made = new GPFilesystem(path);
    if (!ifExist(path)) createNewFile(path);
    return made;
}

void GPFilesystem::setPath(const char* path) {
    if (path_)
        path_->reset(path);
    else
        path_ = new GPString(path);
}

const char* GPFilesystem::fullPath() { return path_ ? path_->cstr() : nullptr; }

const char* GPFilesystem::lastComponent() {
    if (!path_) return nullptr;
    const int slash = path_->find("/", true);
    if (slash == 0) return nullptr;
    // Never released, which keeps the text valid.
    return GPString::of(path_->cstr() + slash + 1)->cstr();
}

const char* GPFilesystem::name() { return lastComponent(); }

// The same as name(), not the directory.
const char* GPFilesystem::path() { return lastComponent(); }

long GPFilesystem::size() { return fileSize(fullPath()); }

bool GPFilesystem::isDirectory() { return ::isDirectory(fullPath()); }

bool GPFilesystem::isFile() { return ::isFile(fullPath()); }

bool GPFilesystem::isHidden() { return ::isHidden(fullPath()); }

bool GPFilesystem::isSymbolicLink() { return ::isSymbolicLink(fullPath()); }

int GPFilesystem::fileMode() { return ::fileMode(fullPath()); }

bool GPFilesystem::setFileMode(int mode) { return ::setFileMode(fullPath(), mode); }

bool GPFilesystem::deleteFile() { return ::deleteFile(fullPath()); }

GPData* GPFilesystem::read(int first, int offset) { return readData(fullPath(), first, offset); }

GPString* GPFilesystem::readText(int first, int offset) { return ::readText(fullPath(), first, offset); }

bool GPFilesystem::write(const char* data, long length, bool binary) {
    return writeFile(fullPath(), data, length, binary, false);
}

bool GPFilesystem::write(GPData* data) { return writeData(fullPath(), data, false); }

bool GPFilesystem::writeText(GPString* text) { return ::writeText(fullPath(), text, false); }

bool GPFilesystem::writeFormat(const char* fmt, ...) {
    if (!path_) return false;
    va_list arguments;
    va_start(arguments, fmt);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, fmt, arguments);
    va_end(arguments);
    bool written = false;
    if (length >= 0) {
        std::vector<char> text(static_cast<std::size_t>(length) + 1);
        // NOLINTNEXTLINE(cert-err33-c): writes what the first pass measured
        std::vsnprintf(text.data(), text.size(), fmt, again);
        written = writeFile(fullPath(), text.data(), 0, false, false);
    }
    va_end(again);
    return written;
}

bool GPFilesystem::renameFile(const char* newName) {
    if (!newName || !path_) return false;
    auto target = Owned<GPString>::adopt(new GPString(newName));
    if (path_->find("/", true) == 0) {
        // path() gives nothing for a file of the root directory, so the target begins with the slash.
        const char* front = path();
        target = Owned<GPString>::adopt(GPString::format("%s/%s", front ? front : "", newName));
    }
    if (!::renameFile(fullPath(), target->cstr())) return false;
    path_->reset(target->cstr());
    return true;
}
