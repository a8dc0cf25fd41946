#include "lab/ProgramLibraries.h"

#include "lab/ElfFile.h"
#include "lab/LibraryFolders.h"
#include "lab/Policy.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <utility>

namespace lab {
namespace {

namespace fs = std::filesystem;

// Builds of the daemon have some dozens of libraries, each with some dozens of names and folders.
constexpr std::size_t mostLibraries = 512;
constexpr std::size_t mostLooks = std::size_t{1} << 18;
constexpr std::size_t mostText = std::size_t{1} << 24;

// One whose way to look for libraries is known.
bool isOfGlibc(const std::string& interpreter) {
    return fs::path(interpreter).filename().string().rfind("ld-linux", 0) == 0;
}

// Of the interpreter's, beside $ORIGIN.
bool hasUnknownWord(const std::string& path) {
    for (const char* word : {"$LIB", "${LIB}", "$PLATFORM", "${PLATFORM}"})
        if (path.find(word) != std::string::npos) return true;
    return false;
}

std::vector<std::string> foldersOfTheEnvironment(const std::string& origin) {
    const char* named = std::getenv("LD_LIBRARY_PATH");
    std::string list = named ? named : "";
    std::replace(list.begin(), list.end(), ';', ':');
    return foldersOf(list, origin);
}

class Search {
public:
    Search(const std::string& program, std::chrono::milliseconds patience)
        : program_(program), limit_(std::chrono::steady_clock::now() + patience) {
        add(program, readElf(program), 0);
    }

    // The paths of all libraries, each once.
    std::vector<std::string> libraries() {
        for (std::size_t i = 0; i < loaded_.size(); ++i) {
            const std::vector<std::string> folders = foldersFor(i);
            for (const std::string& needed : std::vector<std::string>(loaded_[i].file.needed)) {
                const std::string name = withOrigin(needed, originOf(i));
                if (names_.insert(name).second) load(name, i, folders);
            }
        }
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
        std::vector<std::string> foldersForAll;
        std::vector<std::string> foldersForItself;
    };

    void add(const std::string& path, ElfFile file, std::size_t by) {
        const std::string origin = fs::path(path).parent_path();
        std::vector<std::string> forAll = foldersOf(file.pathForAll, origin);
        std::vector<std::string> forItself = foldersOf(file.pathForItself, origin);
        for (const auto* texts : {&file.needed, &forAll, &forItself})
            for (const std::string& text : *texts)
                text_ += text.size();
        if (text_ > mostText)
            throw InputError(program_ +
                             ": its libraries have more names and folders than any build's; give a build "
                             "of the daemon");
        if (!file.name.empty()) names_.insert(file.name);
        loaded_.push_back({path, std::move(file), by, std::move(forAll), std::move(forItself)});
    }

    void countLooks(std::size_t more) {
        looks_ += more;
        if (looks_ > mostLooks)
            throw InputError(program_ +
                             ": its libraries are to be looked for in more folders than any build's; name "
                             "fewer in LD_LIBRARY_PATH, or where it is linked (-rpath)");
    }

    void countTime() const {
        if (std::chrono::steady_clock::now() >= limit_)
            throw InputError(program_ +
                             ": its libraries take longer to be found than any build's; name fewer "
                             "folders in LD_LIBRARY_PATH, or give a build whose libraries lie on "
                             "this machine's own volumes");
    }

    void load(const std::string& name, std::size_t by, const std::vector<std::string>& folders) {
        if (loaded_.size() > mostLibraries)
            throw InputError(program_ + ": it has more libraries than any build; give a build of the daemon");
        if (name.find('/') != std::string::npos) return loadPath(name, by);
        for (const std::string& folder : folders) {
            countLooks(1);
            countTime();
            const std::string path = fs::path(folder) / name;
            if (access(path.c_str(), R_OK) == 0 && loadIfFits(path, by)) return;
        }
        throw InputError(fmt::format(
            "{}: its library {} is not found; install it, or name its folder, from / on, in LD_LIBRARY_PATH",
            program_, name));
    }

    void loadPath(const std::string& name, std::size_t by) {
        if (name.front() == '$')
            throw InputError(
                fmt::format("{}: its library {} begins with a word that the lab does not know; link "
                            "it with a library that has a name (-soname)",
                            program_, name));
        if (name.front() != '/')
            throw InputError(
                fmt::format("{}: its library {} is named from the folder where it runs, which in the lab "
                            "is /; link it with a library that has a name (-soname)",
                            program_, name));
        const bool loaded = access(name.c_str(), R_OK) == 0 && loadIfFits(name, by);
        if (!loaded && hasUnknownWord(name))
            throw InputError(
                fmt::format("{}: its library {} has a word in its path that the lab does not know; "
                            "link it with a library that has a name (-soname)",
                            program_, name));
        if (!loaded)
            throw InputError(fmt::format("{}: its library {} is not there; install it", program_, name));
    }

    bool loadIfFits(const std::string& path, std::size_t by) {
        countTime();
        ElfFile file = readElfLibrary(path);
        if (file.foreign) return false;
        if (!file.fault.empty())
            throw InputError(
                fmt::format("{}: its library {} cannot be loaded: {}", program_, path, file.fault));
        add(path, std::move(file), by);
        return true;
    }

    // In their order, each once.
    std::vector<std::string> foldersFor(std::size_t by) {
        std::vector<std::string> folders;
        std::set<std::string> listed;
        const auto append = [&](const std::vector<std::string>& more) {
            countLooks(more.size());
            for (const std::string& folder : more)
                if (listed.insert(folder).second) folders.push_back(folder);
        };
        if (loaded_[by].file.pathForItself.empty())
            for (const std::size_t i : wayFrom(by))
                if (loaded_[i].file.pathForItself.empty()) append(loaded_[i].foldersForAll);
        append(named_);
        append(loaded_[by].foldersForItself);
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
    const std::chrono::steady_clock::time_point limit_;
    const std::vector<std::string> named_ = foldersOfTheEnvironment(fs::path(program_).parent_path());
    const std::vector<std::string> systems_ = systemsLibraryFolders();
    std::vector<Loaded> loaded_;
    std::set<std::string> names_;
    std::size_t looks_ = 0; // in how many folders it has looked
    std::size_t text_ = 0;  // how long all names and folders are
};

} // namespace

std::vector<std::string> librariesOf(const std::string& program, std::chrono::milliseconds patience) {
    std::vector<std::string> files = {readElf(program).interpreter};
    if (!isOfGlibc(files.front())) return files;
    for (const std::string& library : Search(program, patience).libraries())
        files.push_back(library);
    return files;
}

} // namespace lab
