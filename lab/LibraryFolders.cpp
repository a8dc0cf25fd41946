#include "lab/LibraryFolders.h"

#include <glob.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <system_error>

namespace lab {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> filesLike(const std::string& pattern) {
    glob_t matches{};
    std::vector<std::string> files;
    if (glob(pattern.c_str(), 0, nullptr, &matches) == 0)
        files.assign(matches.gl_pathv, matches.gl_pathv + matches.gl_pathc);
    globfree(&matches);
    return files;
}

// Reads files of the interpreter's configuration. They are read from a list of what is still to be read, so that no
// number of them includes each other too deep.
class Configuration {
public:
    explicit Configuration(const std::string& file) { include(file); }

    std::vector<std::string> folders() {
        while (!open_.empty()) {
            std::string line;
            if (std::getline(open_.back().text, line))
                take(line.substr(0, line.find('#')));
            else
                open_.pop_back();
        }
        return folders_;
    }

private:
    struct Open {
        fs::path folder;
        std::istringstream text;
    };

    void include(const fs::path& path) {
        std::error_code absent;
        if (!read_.insert(fs::canonical(path, absent)).second || absent) return;
        std::ifstream file(path);
        open_.push_back({path.parent_path(),
                         std::istringstream(std::string((std::istreambuf_iterator<char>(file)), {}))});
    }

    void take(const std::string& line) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first != "include") {
            if (!first.empty() && first.front() == '/') folders_.push_back(first);
            return;
        }
        const fs::path folder = open_.back().folder;
        std::vector<std::string> files;
        for (std::string pattern; words >> pattern;)
            for (const std::string& file : filesLike(folder / pattern))
                files.push_back(file);
        // The first is to be read first.
        for (auto file = files.rbegin(); file != files.rend(); ++file)
            include(*file);
    }

    std::vector<Open> open_; // the last is being read
    std::set<fs::path> read_;
    std::vector<std::string> folders_;
};

void replaceAll(std::string& text, const std::string& what, const std::string& by) {
    for (std::size_t place = 0; (place = text.find(what, place)) != std::string::npos; place += by.size())
        text.replace(place, what.size(), by);
}

} // namespace

std::string withOrigin(std::string text, const std::string& origin) {
    replaceAll(text, "$ORIGIN", origin);
    replaceAll(text, "${ORIGIN}", origin);
    return text;
}

std::vector<std::string> foldersOf(const std::string& list, const std::string& origin) {
    std::vector<std::string> folders;
    std::set<std::string> listed;
    std::istringstream parts(list);
    for (std::string folder; std::getline(parts, folder, ':');) {
        if (folder.empty() || !listed.insert(folder).second) continue;
        const std::string whole = withOrigin(folder, origin);
        if (whole.front() == '/') folders.push_back(whole);
    }
    return folders;
}

std::vector<std::string> configuredFolders(const std::string& file) { return Configuration(file).folders(); }

std::vector<std::string> systemsLibraryFolders() {
    std::vector<std::string> folders = configuredFolders("/etc/ld.so.conf");
    for (const char* folder :
         {"/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu", "/lib64", "/usr/lib64", "/lib", "/usr/lib"})
        folders.push_back(folder);
    return folders;
}

} // namespace lab
