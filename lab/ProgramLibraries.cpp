#include "lab/ProgramLibraries.h"

#include "lab/ElfFile.h"
#include "lab/LibraryFolders.h"
#include "lab/Policy.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <utility>

namespace lab {
namespace {

namespace fs = std::filesystem;

// Builds of the daemon have some dozens.
constexpr std::size_t mostLibraries = 512;

// One whose way to look for libraries is known.
bool isOfGlibc(const std::string& interpreter) {
    return fs::path(interpreter).filename().string().rfind("ld-linux", 0) == 0;
}

class Search {
public:
    explicit Search(const std::string& program) : program_(program) { add(program, readElf(program), 0); }

    // The paths of all libraries, each once.
    std::vector<std::string> libraries() {
        for (std::size_t i = 0; i < loaded_.size(); ++i)
            for (const std::string& name : std::vector<std::string>(loaded_[i].file.needed))
                if (names_.insert(name).second) load(name, i);
        std::vector<std::string> paths;
        for (std::size_t i = 1; i < loaded_.size(); ++i)
            paths.push_back(loaded_[i].path);
        return paths;
    }

private:
    struct Loaded {
        std::string path;
        ElfFile file;
        std::size_t by; // the first that names it; the program names itself
    };

    void add(const std::string& path, ElfFile file, std::size_t by) {
        if (!file.name.empty()) names_.insert(file.name);
        loaded_.push_back({path, std::move(file), by});
    }

    void load(const std::string& name, std::size_t by) {
        if (loaded_.size() > mostLibraries)
            throw InputError(program_ + ": it has more libraries than any build");
        if (name.find('/') != std::string::npos) return loadPath(name, by);
        for (const std::string& folder : foldersFor(by)) {
            const std::string path = fs::path(folder) / name;
            if (access(path.c_str(), R_OK) == 0 && loadIfFits(path, by)) return;
        }
        throw InputError(fmt::format(
            "{}: its library {} is not found; install it, or name its folder, from / on, in LD_LIBRARY_PATH",
            program_, name));
    }

    void loadPath(const std::string& name, std::size_t by) {
        if (name.front() != '/')
            throw InputError(
                fmt::format("{}: its library {} is named from the folder where it runs, which in the lab "
                            "is /; link it with a library that has a name (-soname)",
                            program_, name));
        if (access(name.c_str(), R_OK) != 0 || !loadIfFits(name, by))
            throw InputError(fmt::format("{}: its library {} is not there; install it", program_, name));
    }

    bool loadIfFits(const std::string& path, std::size_t by) {
        ElfFile file = readElfLibrary(path);
        if (file.foreign) return false;
        if (!file.fault.empty())
            throw InputError(
                fmt::format("{}: its library {} cannot be loaded: {}", program_, path, file.fault));
        add(path, std::move(file), by);
        return true;
    }

    std::vector<std::string> foldersFor(std::size_t by) const {
        std::vector<std::string> folders;
        const auto append = [&folders](const std::vector<std::string>& more) {
            folders.insert(folders.end(), more.begin(), more.end());
        };
        if (loaded_[by].file.pathForItself.empty())
            for (const std::size_t i : wayFrom(by))
                if (loaded_[i].file.pathForItself.empty())
                    append(foldersOf(loaded_[i].file.pathForAll, originOf(i)));
        const char* named = std::getenv("LD_LIBRARY_PATH");
        std::string list = named ? named : "";
        std::replace(list.begin(), list.end(), ';', ':');
        append(foldersOf(list, originOf(0)));
        append(foldersOf(loaded_[by].file.pathForItself, originOf(by)));
        append(systems_);
        return folders;
    }

    // From it to the program.
    std::vector<std::size_t> wayFrom(std::size_t i) const {
        std::vector<std::size_t> way = {i};
        while (i != 0)
            way.push_back(i = loaded_[i].by);
        return way;
    }

    std::string originOf(std::size_t i) const { return fs::path(loaded_[i].path).parent_path(); }

    const std::string program_;
    const std::vector<std::string> systems_ = systemsLibraryFolders();
    std::vector<Loaded> loaded_;
    std::set<std::string> names_;
};

} // namespace

std::vector<std::string> librariesOf(const std::string& program) {
    std::vector<std::string> files = {readElf(program).interpreter};
    if (!isOfGlibc(files.front())) return files;
    for (const std::string& library : Search(program).libraries())
        files.push_back(library);
    return files;
}

} // namespace lab
