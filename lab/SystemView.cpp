#include "lab/SystemView.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace lab {

const char* const viewsLabFolder = "/run/fernhill-lab";
const char* const viewsPlayedTime = "/run/fernhill-lab/played-time.so";

namespace {

namespace fs = std::filesystem;

constexpr unsigned long plain = MS_NOSUID | MS_NODEV;
constexpr std::uint64_t forReading = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;
constexpr std::uint64_t forWriting = MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;
constexpr std::uint64_t asDevice = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NOEXEC;

void require(bool done, const std::string& what) {
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor {
public:
    Descriptor(int number, const std::string& what) : number_(number) { require(number >= 0, what); }
    Descriptor(Descriptor&& other) noexcept : number_(other.number_) { other.number_ = -1; }
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    operator int() const { return number_; }

private:
    int number_;
};

// A file or folder by what it is and not by its path, which the view may cover.
Descriptor found(const fs::path& path) { return {open(path.c_str(), O_PATH | O_CLOEXEC), path}; }

void mountMemory(const fs::path& place, const char* options) {
    fs::create_directories(place);
    require(mount("lab", place.c_str(), "tmpfs", plain, options) == 0, place);
}

void writeWhole(const fs::path& file, const std::string& text) {
    require(static_cast<bool>(std::ofstream(file) << text << std::flush), file);
}

// Shows a file or folder below `from`, with all that is mounted in it, at another place, which must be there.
void show(int from, const fs::path& below, const fs::path& place, std::uint64_t attributes) {
    const Descriptor tree(
        open_tree(from, below.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE | AT_EMPTY_PATH),
        place);
    mount_attr wanted{};
    wanted.attr_set = attributes;
    require(mount_setattr(tree, "", AT_EMPTY_PATH | AT_RECURSIVE, &wanted, sizeof wanted) == 0, place);
    require(move_mount(tree, "", AT_FDCWD, place.c_str(), MOVE_MOUNT_F_EMPTY_PATH) == 0, place);
}

void showFolder(const fs::path& from, const fs::path& place, std::uint64_t attributes) {
    fs::create_directory(place);
    show(AT_FDCWD, from, place, attributes);
}

void showFile(int file, const fs::path& place, std::uint64_t attributes) {
    writeWhole(place, "");
    show(file, "", place, attributes);
}

bool belongsToTheLab(const fs::path& name) {
    for (const char* own : {"tmp", "run", "etc", "dev", "proc", "Library", "system"})
        if (name == own) return true;
    return false;
}

void showMachine(const fs::path& view) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
        const fs::path place = view / entry.path().filename();
        if (belongsToTheLab(entry.path().filename())) continue;
        if (entry.is_symlink())
            fs::copy_symlink(entry.path(), place);
        else if (entry.is_directory())
            showFolder(entry.path(), place, forReading);
    }
}

std::string hostsOf(const fs::path& root) {
    std::ifstream file(root / "etc/hosts", std::ios::binary);
    if (!file) return "127.0.0.1 localhost\n::1 localhost\n";
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The machine's files by links, but for those that say what names mean.
void makeEtc(const fs::path& view, const std::string& hosts) {
    mountMemory(view / "etc", "mode=0755");
    showFolder("/etc", view / "run/fernhill-lab/etc", forReading);
    for (const fs::directory_entry& entry : fs::directory_iterator("/etc")) {
        const fs::path name = entry.path().filename();
        if (name == "hosts" || name == "nsswitch.conf" || name == "resolv.conf") continue;
        fs::create_symlink(fs::path(viewsLabFolder) / "etc" / name, view / "etc" / name);
    }
    writeWhole(view / "etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n");
    writeWhole(view / "etc/hosts", hosts);
}

void makeDevices(const fs::path& view) {
    mountMemory(view / "dev", "mode=0755");
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        const fs::path device = fs::path("/dev") / name;
        if (fs::exists(device)) showFile(found(device), view / "dev" / name, asDevice);
    }
    mountMemory(view / "dev/shm", "mode=1777");
    fs::create_symlink("/proc/self/fd", view / "dev/fd");
    const char* const names[] = {"stdin", "stdout", "stderr"};
    for (int i = 0; i < 3; ++i)
        fs::create_symlink(fmt::format("/proc/self/fd/{}", i), view / "dev" / names[i]);
}

// Its own processes; the machine's only where the system grants no such view, as within some containers.
void makeProcesses(const fs::path& view) {
    fs::create_directory(view / "proc");
    if (mount("proc", (view / "proc").c_str(), "proc", plain | MS_NOEXEC | MS_RDONLY, nullptr) == 0) return;
    show(AT_FDCWD, "/proc", view / "proc", forReading);
}

// The root's folder in place of the machine's, where there is one.
void showRoots(int root, const fs::path& view, const fs::path& folder) {
    if (faccessat(root, folder.c_str(), F_OK, 0) != 0) return;
    std::error_code isThere;
    fs::create_directories(view / folder, isThere);
    show(root, folder, view / folder, forWriting);
}

// At their fixed place, and at the one that their own addresses name, by which the daemon finds the options.
void showSockets(int root, const fs::path& rootPath, const fs::path& view) {
    const fs::path sockets = "var/run/fernhill";
    const fs::path fixed = fs::is_symlink("/var/run") ? "run/fernhill" : sockets;
    for (const fs::path& place : {view / fixed, view / (rootPath / sockets).relative_path()}) {
        if (!fs::exists(place)) fs::create_directories(place);
        show(root, sockets, place, forWriting);
    }
}

struct NeededFile {
    fs::path path;
    Descriptor file;
};

std::vector<NeededFile> filesOf(const std::vector<std::string>& paths) {
    std::vector<NeededFile> files;
    for (const std::string& path : paths)
        files.push_back({path, found(path)});
    return files;
}

bool isSeen(const fs::path& view, const fs::path& path) {
    const Descriptor top = found(view);
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT;
    const int file =
        static_cast<int>(syscall(SYS_openat2, static_cast<int>(top), path.c_str(), &how, sizeof how));
    if (file >= 0) close(file);
    return file >= 0;
}

// Only where all that the view has is its own.
void showNeeded(const fs::path& view, const NeededFile& needed) {
    if (isSeen(view, needed.path)) return;
    fs::path path = needed.path.lexically_normal();
    if (path.string().rfind("/var/run/", 0) == 0 && fs::is_symlink("/var/run"))
        path = "/run" / path.lexically_relative("/var/run");
    const std::string text = path.string();
    if (text.rfind("/tmp/", 0) == 0 || text.rfind("/run/", 0) == 0) {
        fs::create_directories(view / path.parent_path().relative_path());
        if (!isSeen(view, path)) showFile(needed.file, view / path.relative_path(), forReading);
    }
    if (!isSeen(view, needed.path))
        throw std::runtime_error(
            fmt::format("{}: the program needs it and cannot see it there; move it below /usr or /opt",
                        needed.path.string()));
}

// In place of a folder of the machine that the view does not show.
fs::path placeOfView() { return fs::is_directory("/run") ? "/run" : "/tmp"; }

void makeView(const RootFolder& root, const std::vector<std::string>& needed, const fs::path& view) {
    const Descriptor folder = found(root.path());
    const Descriptor playedTime = found(OSTLER_PLAYED_TIME_PATH);
    const std::vector<NeededFile> files = filesOf(needed);
    const std::string hosts = hostsOf(root.path());
    mountMemory(view, "mode=0755");
    showMachine(view);
    mountMemory(view / "tmp", "mode=1777");
    mountMemory(view / "run", "mode=0755");
    if (!fs::is_symlink("/var/run")) mountMemory(view / "var/run", "mode=0755");
    fs::create_directories(view / "run/fernhill-lab/bin");
    makeEtc(view, hosts);
    makeDevices(view);
    makeProcesses(view);
    for (const char* own : {"Library", "system", "usr/local/bin", "usr/local/etc"})
        showRoots(folder, view, own);
    showSockets(folder, root.path(), view);
    show(folder, "bin", view / "run/fernhill-lab/bin", forReading);
    showFile(playedTime, view / fs::path(viewsPlayedTime).relative_path(), forReading);
    for (const NeededFile& file : files)
        showNeeded(view, file);
}

} // namespace

void enterView(const RootFolder& root, const std::vector<std::string>& needed) {
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "/");
    const std::string view = placeOfView();
    makeView(root, needed, view);
    require(chdir(view.c_str()) == 0, view);
    // The machine's folders are gone for good, but where its root is no mount of its own, as in a chroot.
    if (syscall(SYS_pivot_root, ".", ".") == 0)
        require(umount2(".", MNT_DETACH) == 0, "/");
    else
        require(chroot(".") == 0, view);
    require(chdir("/") == 0, "/");
}

} // namespace lab
