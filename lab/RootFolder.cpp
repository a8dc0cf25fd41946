#include "lab/RootFolder.h"

#include "lab/Policy.h"

#include <fmt/format.h>

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

std::string makeTemporary() {
    std::error_code error;
    std::string pattern = (fs::temp_directory_path(error) / "fernhill-XXXXXX").string();
    checkLength(pattern);
    if (error || !mkdtemp(pattern.data()))
        throw InputError(fmt::format("{}: no scratch folder can be made there", pattern));
    return pattern;
}

void writeWhole(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
}

} // namespace

RootFolder::RootFolder(const std::string& path) : kept_(!path.empty()) {
    std::error_code error;
    path_ = kept_ ? fs::absolute(path, error).lexically_normal().string() : makeTemporary();
    checkLength(path_);
    for (const char* folder : {"/Library/Logs", "/Library/Preferences", "/Library/twsys", "/var/run/fernhill",
                               "/bin", "/usr/local/bin"}) {
        fs::create_directories(path_ + folder, error);
        if (error) throw InputError(fmt::format("{}{}: {}", path_, folder, error.message()));
    }
    // The extension counts as loaded when this prints nothing.
    const std::string kextload = programs() + "/kextload";
    writeWhole(kextload, "#!/bin/sh\nexit 0\n");
    fs::permissions(kextload, fs::perms::owner_all, error);
    if (error) throw InputError(fmt::format("{}: {}", kextload, error.message()));
}

RootFolder::~RootFolder() {
    std::error_code ignored;
    fs::remove(view(), ignored);
    if (!kept_) fs::remove_all(path_, ignored);
}

std::string RootFolder::outputTail() const {
    constexpr std::size_t tail = 2000;
    std::ifstream file(output(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return text.size() > tail ? text.substr(text.size() - tail) : text;
}

void RootFolder::configure(bool blockOnFailure, int logLevel) const {
    writeWhole(
        path_ + "/Library/twsys/fernhill.xml",
        fmt::format("<Fernhill>\n<BlockOnFailure>{}</BlockOnFailure>\n<LogLevel>{}</LogLevel>\n</Fernhill>\n",
                    blockOnFailure ? "true" : "false", logLevel));
}

} // namespace lab
