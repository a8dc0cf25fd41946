#include "lab/SystemProgram.h"

#include "lab/Namespaces.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace lab {
namespace {

namespace fs = std::filesystem;

constexpr int cannotRun = 99;

// Where the lab's own things lie for the program.
constexpr const char* labFolder = "/run/fernhill-lab";

void require(bool done, const std::string& what) {
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

void mountMemory(const fs::path& place, const char* options) {
    fs::create_directories(place);
    require(mount("lab", place.c_str(), "tmpfs", 0, options) == 0, place);
}

// Shows a file or folder, with all that is mounted in it, at another place, which must be there.
void show(const fs::path& from, const fs::path& place) {
    require(mount(from.c_str(), place.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, place);
}

void showForReading(const fs::path& from, const fs::path& place) {
    fs::create_directory(place);
    show(from, place);
    mount_attr readOnly{};
    readOnly.attr_set = MOUNT_ATTR_RDONLY;
    require(mount_setattr(AT_FDCWD, place.c_str(), AT_RECURSIVE, &readOnly, sizeof readOnly) == 0, place);
}

bool belongsToTheLab(const fs::path& name) {
    return name == "tmp" || name == "run" || name == "etc" || name == "Library" || name == "system";
}

void showMachine(const fs::path& view) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
        const fs::path place = view / entry.path().filename();
        if (belongsToTheLab(entry.path().filename())) continue;
        if (entry.is_symlink())
            fs::copy_symlink(entry.path(), place);
        else if (entry.is_directory())
            showForReading(entry.path(), place);
    }
}

void writeWhole(const fs::path& file, const std::string& text) {
    require(static_cast<bool>(std::ofstream(file) << text << std::flush), file);
}

// The machine's files by links, but for those that say what names mean.
void makeEtc(const fs::path& view, const fs::path& root) {
    mountMemory(view / "etc", "mode=0755");
    showForReading("/etc", view / "run/fernhill-lab/etc");
    for (const fs::directory_entry& entry : fs::directory_iterator("/etc")) {
        const fs::path name = entry.path().filename();
        if (name == "hosts" || name == "nsswitch.conf" || name == "resolv.conf") continue;
        fs::create_symlink(fs::path(labFolder) / "etc" / name, view / "etc" / name);
    }
    writeWhole(view / "etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n");
    writeWhole(view / "etc/hosts", "127.0.0.1 localhost\n::1 localhost\n");
    if (fs::exists(root / "etc/hosts"))
        fs::copy_file(root / "etc/hosts", view / "etc/hosts", fs::copy_options::overwrite_existing);
}

// The root's folder in place of the machine's, where there is one.
void showRoots(const fs::path& root, const fs::path& view, const fs::path& folder) {
    if (!fs::is_directory(root / folder)) return;
    std::error_code isThere;
    fs::create_directories(view / folder, isThere);
    show(root / folder, view / folder);
}

// At their fixed place, and at the one that their own addresses name, by which the daemon finds the options.
void showSockets(const fs::path& root, const fs::path& view) {
    const fs::path sockets = "var/run/fernhill";
    const fs::path fixed = fs::is_symlink("/var/run") ? "run/fernhill" : sockets;
    for (const fs::path& place : {view / fixed, view / (root / sockets).relative_path()}) {
        if (!fs::exists(place)) fs::create_directories(place);
        show(root / sockets, place);
    }
}

void makeView(const fs::path& root, const fs::path& view) {
    mountMemory(view, "mode=0755");
    showMachine(view);
    mountMemory(view / "tmp", "mode=1777");
    mountMemory(view / "run", "mode=0755");
    if (!fs::is_symlink("/var/run")) mountMemory(view / "var/run", "mode=0755");
    fs::create_directories(view / "run/fernhill-lab/bin");
    makeEtc(view, root);
    for (const char* folder : {"Library", "system", "usr/local/bin", "usr/local/etc"})
        showRoots(root, view, folder);
    showSockets(root, view);
    show(root / "bin", view / "run/fernhill-lab/bin");
    writeWhole(view / "run/fernhill-lab/played-time.so", "");
    show(OSTLER_PLAYED_TIME_PATH, view / "run/fernhill-lab/played-time.so");
}

void enterView(const RootFolder& root) {
    require(unshareAsRoot(CLONE_NEWNS), "a program of this system needs a mount namespace");
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "/");
    const std::string view = root.view();
    makeView(root.path(), view);
    require(chroot(view.c_str()) == 0 && chdir("/") == 0, view);
}

void setSurroundings(int clock) {
    const char* path = std::getenv("PATH");
    setenv("PATH", (std::string(labFolder) + "/bin:" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
    setenv("LD_PRELOAD", (std::string(labFolder) + "/played-time.so").c_str(), 1);
    if (clock < 0) return;
    fcntl(clock, F_SETFD, 0);
    setenv("OSTLER_PLAYED_CLOCK", std::to_string(clock).c_str(), 1);
}

} // namespace

void becomeSystemProgram(const std::string& program, const RootFolder& root,
                         const std::vector<std::string>& words, int clock) {
    const int file = open(program.c_str(), O_RDONLY | O_CLOEXEC);
    std::vector<char*> pointers;
    for (const std::string& word : words)
        pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    try {
        enterView(root);
        setSurroundings(clock);
        fexecve(file, pointers.data(), environ);
        throw std::system_error(errno, std::generic_category(), program);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        _exit(cannotRun);
    }
}

} // namespace lab
