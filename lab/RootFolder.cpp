#include "lab/RootFolder.h"

#include "lab/FilesBelow.h"
#include "lab/Policy.h"
#include "lab/TemporaryRoots.h"
#include "lab/Terminal.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t longestRoot = 60;

constexpr const char* outputName = "daemon-output.txt";

Descriptor makeKeptRoot(const std::string& given, std::string& path) {
    std::error_code error;
    path = fs::weakly_canonical(fs::absolute(given), error).string();
    if (error) throw InputError(fmt::format("{}: {}; give another folder", given, error.message()));
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    if (path.size() > longestRoot)
        throw InputError(fmt::format("{}: a scratch folder's path has at most {} bytes; choose a shorter one",
                                     path, longestRoot));
    fs::create_directories(path, error);
    Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder < 0)
        throw InputError(
            fmt::format("{}: {}; give another folder", path, error ? error.message() : std::strerror(errno)));
    return folder;
}

} // namespace

RootFolder::RootFolder(const std::string& path)
    : kept_(!path.empty()),
      folder_(kept_ ? makeKeptRoot(path, path_) : makeTemporaryRoot(path_, longestRoot)) {
    for (const char* folder :
         {"Library/Logs", "Library/Preferences", "Library/twsys", "var/run/fernhill", "bin", "usr/local/bin"})
        if (makeFolderBelow(folder_, folder, Links::refused) < 0)
            throw InputError(fmt::format("{}/{}: {}", path_, folder, faultBelow(errno)));
    for (const char* shown : {"system", "usr/local/etc"})
        if (openBelow(folder_, shown, O_PATH | O_DIRECTORY, Links::refused) < 0 && errno != ENOENT)
            throw InputError(fmt::format("{}/{}: {}", path_, shown, faultBelow(errno)));
    if (openFileBelow(folder_, "etc/hosts", O_RDONLY) < 0 && errno != ENOENT)
        throw InputError(fmt::format("{}/etc/hosts: {}", path_, faultBelow(errno)));
    // The extension counts as loaded when this prints nothing.
    writeWhole("bin/kextload", "#!/bin/sh\nexit 0\n", 0700);
    writeWhole(outputName, "", 0644);
}

RootFolder::~RootFolder() { remove(); }

void RootFolder::remove() const {
    if (!kept_) removeTemporaryRoot(path_);
}

void RootFolder::writeWhole(const std::string& name, const std::string& text, mode_t mode) const {
    const Descriptor file = openFileBelow(folder_, name, O_WRONLY | O_CREAT | O_TRUNC, mode);
    const bool program = (mode & S_IXUSR) != 0;
    if (file < 0 || (program && fchmod(file, mode) != 0) ||
        write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw InputError(fmt::format("{}/{}: {}", path_, name, faultBelow(errno)));
}

std::string RootFolder::output() const { return path_ + "/" + outputName; }

Descriptor RootFolder::openOutput() const {
    return openFileBelow(folder_, outputName, O_WRONLY | O_CREAT | O_TRUNC, 0644);
}

std::string RootFolder::outputTail() const {
    constexpr off_t tail = 2000;
    const Descriptor file = openFileBelow(folder_, outputName, O_RDONLY);
    struct stat entry {};
    if (file < 0 || fstat(file, &entry) != 0) return {};
    std::string text(tail, '\0');
    const ssize_t count =
        pread(file, text.data(), text.size(), entry.st_size > tail ? entry.st_size - tail : 0);
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return printable(std::move(text), "\n\t");
}

void RootFolder::configure(bool blockOnFailure, int logLevel) const {
    writeWhole(
        "Library/twsys/fernhill.xml",
        fmt::format("<Fernhill>\n<BlockOnFailure>{}</BlockOnFailure>\n<LogLevel>{}</LogLevel>\n</Fernhill>\n",
                    blockOnFailure ? "true" : "false", logLevel),
        0644);
}

} // namespace lab
