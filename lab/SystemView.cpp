#include "lab/SystemView.h"

#include "lab/Descriptor.h"
#include "lab/FilesBelow.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace lab {

const char* const viewsLabFolder = "/run/fernhill-lab";
const char* const viewsPlayedTime = "/run/fernhill-lab/played-time.so";

namespace {

namespace fs = std::filesystem;

constexpr unsigned long plain = MS_NOSUID | MS_NODEV;

// Of names in a file of hosts.
constexpr std::size_t longestHosts = std::size_t{1} << 20;

constexpr mount_attr forReading = {MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV, 0, 0, 0};
constexpr mount_attr asItIs = {MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV, 0, 0, 0};
constexpr mount_attr asDevice = {MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NOEXEC, 0, 0, 0};

void require(bool done, const std::string& what) {
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

Descriptor required(Descriptor descriptor, const std::string& what) {
    require(descriptor >= 0, what);
    return descriptor;
}

// A file or folder by what it is and not by its path, which the view may cover.
Descriptor found(const fs::path& path) {
    return required(Descriptor(open(path.c_str(), O_PATH | O_CLOEXEC)), path);
}

// Of a size that bounds what a program can take of the machine's memory.
void mountMemory(const fs::path& place, const char* mode) {
    fs::create_directories(place);
    const std::string options = fmt::format("mode={},size=64m,nr_inodes=65536", mode);
    require(mount("lab", place.c_str(), "tmpfs", plain, options.c_str()) == 0, place);
}

void writeWhole(const fs::path& file, const std::string& text) {
    require(static_cast<bool>(std::ofstream(file) << text << std::flush), file);
}

void limit(int tree, const mount_attr& attributes, const std::string& name) {
    mount_attr wanted = attributes;
    const bool done = mount_setattr(tree, "", AT_EMPTY_PATH | AT_RECURSIVE, &wanted, sizeof wanted) == 0;
    if (!done && errno == ENOSYS)
        throw std::runtime_error("this kernel cannot show a program the machine for reading only (it has no "
                                 "mount_setattr); take Linux 5.12 or a later one");
    require(done, name);
}

// A file or folder, with all that is mounted in it as it is now, for another place.
Descriptor cloned(int what, const std::string& name, const mount_attr& attributes) {
    Descriptor tree = required(
        Descriptor(open_tree(what, "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE | AT_EMPTY_PATH)),
        name);
    limit(tree, attributes, name);
    return tree;
}

// The place must be one of the same kind.
void attach(int tree, int place, const std::string& name) {
    require(move_mount(tree, "", place, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) == 0, name);
}

void show(int what, int place, const std::string& name, const mount_attr& attributes) {
    attach(cloned(what, name, attributes), place, name);
}

void showFolder(const fs::path& from, const fs::path& place, const mount_attr& attributes) {
    fs::create_directory(place);
    show(found(from), found(place), place, attributes);
}

void showFile(int file, const fs::path& place, const mount_attr& attributes) {
    writeWhole(place, "");
    show(file, found(place), place, attributes);
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

std::string hostsOf(int root, const std::string& rootPath) {
    const Descriptor file = openFileBelow(root, "etc/hosts", O_RDONLY);
    if (file < 0 && errno == ENOENT) return "127.0.0.1 localhost\n::1 localhost\n";
    if (file < 0) throw std::runtime_error(fmt::format("{}/etc/hosts: {}", rootPath, faultBelow(errno)));
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = read(file, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
        if (text.size() > longestHosts)
            throw std::runtime_error(
                fmt::format("{}/etc/hosts: it is longer than a megabyte; give another folder", rootPath));
    }
    return text;
}

// The machine's files by links, but for those that say what names mean.
void makeEtc(const fs::path& view, const std::string& hosts) {
    mountMemory(view / "etc", "0755");
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
    mountMemory(view / "dev", "0755");
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        const fs::path device = fs::path("/dev") / name;
        if (fs::exists(device)) showFile(found(device), view / "dev" / name, asDevice);
    }
    mountMemory(view / "dev/shm", "1777");
    fs::create_symlink("/proc/self/fd", view / "dev/fd");
    const char* const names[] = {"stdin", "stdout", "stderr"};
    for (int i = 0; i < 3; ++i)
        fs::create_symlink(fmt::format("/proc/self/fd/{}", i), view / "dev" / names[i]);
}

// Its own processes; the machine's only where the system grants no such view, as within some containers.
void makeProcesses(const fs::path& view) {
    fs::create_directory(view / "proc");
    if (mount("proc", (view / "proc").c_str(), "proc", plain | MS_NOEXEC | MS_RDONLY, nullptr) == 0) return;
    show(found("/proc"), found(view / "proc"), "/proc", forReading);
}

// A folder of the root for its place in the view.
struct RootsTree {
    std::string place;
    Descriptor tree;
};

// A root below would have its sockets' place made in itself.
void refuseBelow(const std::string& rootPath, const std::string& folder) {
    if ((rootPath + "/").rfind(folder + "/", 0) == 0)
        throw std::runtime_error(fmt::format(
            "{}: a program in the lab has a folder of the lab's there; give another folder", rootPath));
}

// What the program can write to, as far as the machine lets it: taken before the machine is made for reading only. The
// sockets lie at their fixed place, and at the one that their own addresses name, by which the daemon finds the options.
std::vector<RootsTree> treesOf(int root, const std::string& rootPath) {
    std::vector<RootsTree> trees;
    const auto add = [&](const std::string& folder, const std::string& place) {
        const Descriptor own = openBelow(root, folder, O_PATH | O_DIRECTORY, Links::refused);
        if (own < 0 && errno == ENOENT) return;
        if (own < 0) throw std::runtime_error(fmt::format("{}/{}: {}", rootPath, folder, faultBelow(errno)));
        if (place == "/" + folder) refuseBelow(rootPath, place);
        trees.push_back({place, cloned(own, fmt::format("{}/{}", rootPath, folder), asItIs)});
    };
    refuseBelow(rootPath, "/run/fernhill");
    for (const char* folder : {"Library", "system", "usr/local/bin", "usr/local/etc"})
        add(folder, std::string("/") + folder);
    const std::string sockets = "var/run/fernhill";
    add(sockets, "/" + sockets);
    add(sockets, fmt::format("{}/{}", rootPath, sockets));
    return trees;
}

void showRoots(const RootsTree& own, int view) {
    const Descriptor place = makeFolderBelow(view, own.place, Links::followed);
    if (place < 0 && errno == EROFS)
        throw std::runtime_error(
            fmt::format("this machine has no folder {}, in whose place the program is to "
                        "see the lab's; make it (mkdir -p)",
                        own.place));
    require(place >= 0, own.place);
    attach(own.tree, place, own.place);
}

struct NeededFile {
    fs::path path;
    Descriptor file;
};

std::vector<NeededFile> filesOf(const std::vector<std::string>& paths) {
    std::vector<NeededFile> files;
    files.reserve(paths.size());
    for (const std::string& path : paths)
        files.push_back({path, found(path)});
    return files;
}

bool isSeen(int view, const NeededFile& needed) {
    const Descriptor there = openBelow(view, needed.path, O_PATH, Links::followed);
    struct stat seen {
    }, wanted{};
    return there >= 0 && fstat(there, &seen) == 0 && fstat(needed.file, &wanted) == 0 &&
           seen.st_dev == wanted.st_dev && seen.st_ino == wanted.st_ino;
}

// Where all that the view has is its own.
bool canBeShown(const fs::path& path) {
    const std::string text = path.lexically_normal();
    for (const char* own : {"/tmp/", "/run/", "/var/run/", "/dev/shm/"})
        if (text.rfind(own, 0) == 0) return true;
    return false;
}

// False where the program cannot see it in its place.
bool showNeeded(int view, const NeededFile& needed) {
    if (isSeen(view, needed)) return true;
    if (!canBeShown(needed.path)) return false;
    const Descriptor folder = makeFolderBelow(view, needed.path.parent_path(), Links::followed);
    const std::string name = needed.path.filename();
    const Descriptor place(
        openat(folder, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (folder < 0 || place < 0) return false;
    show(needed.file, openBelow(folder, name, O_PATH, Links::refused), needed.path, forReading);
    return true;
}

// In place of a folder of the machine that the view does not show: the view lies in it.
fs::path placeOfView() { return fs::is_directory("/run") ? "/run" : "/tmp"; }

void makeView(const RootFolder& root, int folder, const std::vector<RootsTree>& trees,
              const std::string& program, const std::vector<std::string>& libraries, const fs::path& view) {
    const Descriptor playedTime = found(OSTLER_PLAYED_TIME_PATH);
    const std::vector<NeededFile> files = filesOf(libraries);
    const NeededFile programFile{program, found(program)};
    const std::string hosts = hostsOf(folder, root.path());
    mountMemory(view.parent_path(), "0755");
    mountMemory(view, "0755");
    const Descriptor top = found(view);
    showMachine(view);
    mountMemory(view / "tmp", "1777");
    mountMemory(view / "run", "0755");
    if (!fs::is_symlink("/var/run")) mountMemory(view / "var/run", "0755");
    fs::create_directories(view / "run/fernhill-lab/bin");
    makeEtc(view, hosts);
    makeDevices(view);
    makeProcesses(view);
    for (const RootsTree& own : trees)
        showRoots(own, top);
    show(required(openBelow(folder, "bin", O_PATH | O_DIRECTORY, Links::refused), "bin"),
         found(view / "run/fernhill-lab/bin"), "bin", forReading);
    showFile(playedTime, view / fs::path(viewsPlayedTime).relative_path(), forReading);
    showNeeded(top, programFile);
    for (const NeededFile& library : files)
        if (!showNeeded(top, library))
            throw std::runtime_error(
                fmt::format("{}: the program needs it and cannot see it there; move it below /opt",
                            library.path.string()));
}

// Nothing that is mounted here is seen elsewhere.
void makeMountsOwn() {
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        if (errno != EINVAL) throw std::system_error(errno, std::generic_category(), "/");
        throw std::runtime_error(
            "the lab runs in a chroot whose folder is no mount, so that it can give no program a "
            "view of its own; mount that folder at its own place (mount --bind)");
    }
}

} // namespace

void enterView(const RootFolder& root, const std::string& program,
               const std::vector<std::string>& libraries) {
    makeMountsOwn();
    const Descriptor folder = found(root.path());
    const std::vector<RootsTree> trees = treesOf(folder, root.path());
    // A program that the view covers still leads to its own file in the machine.
    limit(found("/"), {MOUNT_ATTR_RDONLY, 0, 0, 0}, "/");
    const fs::path place = placeOfView();
    const std::string name = "view";
    makeView(root, folder, trees, program, libraries, place / name);
    require(chdir(place.c_str()) == 0, place);
    // The machine's folders are gone for good, but where its root is the kernel's first file system, which stays.
    if (syscall(SYS_pivot_root, ".", ".") == 0) require(umount2(".", MNT_DETACH) == 0, "/");
    // In a chroot no program makes a namespace of users, where it would have all rights, and could mount the machine's
    // control groups.
    require(chroot(name.c_str()) == 0 && chdir("/") == 0, name);
}

} // namespace lab
