#include "lab/ScratchRoot.h"

#include "lab/Policy.h"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t longestRoot = 60;

std::string makeTemporary() {
    std::string pattern = (fs::temp_directory_path() / "fernhill-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw InputError(fmt::format("{}: no scratch folder can be made", pattern));
    return pattern;
}

} // namespace

ScratchRoot::ScratchRoot(const std::string& path) : kept_(!path.empty()) {
    std::error_code error;
    path_ = kept_ ? fs::absolute(path, error).lexically_normal().string() : makeTemporary();
    if (path_.size() > longestRoot)
        throw InputError(fmt::format("{}: a scratch folder's path has at most {} bytes; choose a shorter one",
                                     path_, longestRoot));
    for (const char* folder :
         {"/Library/Logs", "/Library/Preferences", "/var/run/fernhill", "/bin", "/usr/local/bin"}) {
        fs::create_directories(path_ + folder, error);
        if (error) throw InputError(fmt::format("{}{}: {}", path_, folder, error.message()));
    }
    // The extension counts as loaded when this prints nothing.
    const std::string kextload = programs() + "/kextload";
    std::ofstream(kextload) << "#!/bin/sh\nexit 0\n";
    fs::permissions(kextload, fs::perms::owner_all, error);
    if (error) throw InputError(fmt::format("{}: {}", kextload, error.message()));
}

ScratchRoot::~ScratchRoot() {
    std::error_code ignored;
    if (!kept_) fs::remove_all(path_, ignored);
}

std::string ScratchRoot::outputTail() const {
    constexpr std::size_t tail = 2000;
    std::ifstream file(output(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return text.size() > tail ? text.substr(text.size() - tail) : text;
}

void ScratchRoot::configure(bool blockOnFailure, int logLevel) const {
    fs::create_directories(path_ + "/Library/twsys");
    std::ofstream(path_ + "/Library/twsys/fernhill.xml") << fmt::format(
        "<Fernhill>\n<BlockOnFailure>{}</BlockOnFailure>\n<LogLevel>{}</LogLevel>\n</Fernhill>\n",
        blockOnFailure ? "true" : "false", logLevel);
}

} // namespace lab
