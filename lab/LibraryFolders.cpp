#include "lab/LibraryFolders.h"

#include <glob.h>

#include <cstddef>
#include <fstream>
#include <sstream>

namespace lab {
namespace {

// Files that include each other end there.
constexpr int deepestInclusion = 8;

std::vector<std::string> filesLike(const std::string& pattern) {
    glob_t matches{};
    std::vector<std::string> files;
    if (glob(pattern.c_str(), 0, nullptr, &matches) == 0)
        files.assign(matches.gl_pathv, matches.gl_pathv + matches.gl_pathc);
    globfree(&matches);
    return files;
}

void addConfigured(const std::string& path, int depth, std::vector<std::string>& folders) {
    std::ifstream file(path);
    for (std::string line; depth < deepestInclusion && std::getline(file, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string first;
        words >> first;
        if (first == "include") {
            for (std::string pattern; words >> pattern;)
                for (const std::string& included :
                     filesLike(pattern.front() == '/' ? pattern : "/etc/" + pattern))
                    addConfigured(included, depth + 1, folders);
        } else if (!first.empty() && first.front() == '/') {
            folders.push_back(first);
        }
    }
}

void replaceAll(std::string& text, const std::string& what, const std::string& by) {
    for (std::size_t place = 0; (place = text.find(what, place)) != std::string::npos; place += by.size())
        text.replace(place, what.size(), by);
}

} // namespace

std::vector<std::string> foldersOf(const std::string& list, const std::string& origin) {
    std::vector<std::string> folders;
    std::istringstream parts(list);
    for (std::string folder; std::getline(parts, folder, ':');) {
        replaceAll(folder, "$ORIGIN", origin);
        replaceAll(folder, "${ORIGIN}", origin);
        if (!folder.empty() && folder.front() == '/') folders.push_back(folder);
    }
    return folders;
}

std::vector<std::string> systemsLibraryFolders() {
    std::vector<std::string> folders;
    addConfigured("/etc/ld.so.conf", 0, folders);
    for (const char* folder :
         {"/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu", "/lib64", "/usr/lib64", "/lib", "/usr/lib"})
        folders.push_back(folder);
    return folders;
}

} // namespace lab
