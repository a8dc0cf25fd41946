// In the daemon's place: tells what it sees, and ends.

#include <fcntl.h>
#include <netdb.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>

namespace {

namespace fs = std::filesystem;

void tellWhetherWritable(const char* file) {
    const int descriptor = open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    std::printf("%s: %s\n", file, descriptor >= 0 ? "written" : std::strerror(errno));
    if (descriptor < 0) return;
    close(descriptor);
}

void tellAddress(const char* name) {
    addrinfo* list = nullptr;
    std::printf("%s: %s\n", name, getaddrinfo(name, nullptr, nullptr, &list) == 0 ? "known" : "unknown");
    if (list) freeaddrinfo(list);
}

void tellLinesOf(const char* file, std::initializer_list<const char*> names) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);)
        for (const char* name : names)
            if (line.rfind(name, 0) == 0) std::printf("%s\n", line.c_str());
}

bool isNumber(const std::string& name) { return name.find_first_not_of("0123456789") == std::string::npos; }

void tellProcesses() {
    int count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc"))
        count += isNumber(entry.path().filename());
    std::printf("processes %d\n", count);
}

void tellDescriptors() {
    std::printf("descriptors");
    for (int i = 0; i < 1024; ++i)
        if (fcntl(i, F_GETFD) >= 0) std::printf(" %d", i);
    std::printf("\n");
}

void tellFlags(const char* folder) {
    struct statvfs volume {};
    const bool seen = statvfs(folder, &volume) == 0;
    std::printf("%s:%s%s\n", folder, seen && (volume.f_flag & ST_NOSUID) ? " nosuid" : "",
                seen && (volume.f_flag & ST_NODEV) ? " nodev" : "");
    std::printf("%s holds %llu MB\n", folder, (volume.f_frsize * 1ULL * volume.f_blocks) >> 20);
}

void tellWhetherAllowed(const char* call, bool done) {
    std::printf("%s: %s\n", call, done ? "allowed" : std::strerror(errno));
}

} // namespace

int main(int count, char** words) {
    for (int i = 0; i < count; ++i)
        std::printf("word %s\n", words[i]);
    std::printf("time %ld\n", static_cast<long>(std::time(nullptr)));
    for (const char* file : {"/usr/of-the-onlooker", "/var/of-the-onlooker", "/of-the-onlooker-only",
                             "/etc/of-the-onlooker", "/tmp/of-the-onlooker", "/Library/Logs/of-the-onlooker"})
        tellWhetherWritable(file);
    tellAddress("localhost");
    tellAddress("host-without-an-address.example");
    tellLinesOf("/proc/self/status", {"Uid:", "CapInh:", "CapPrm:", "CapEff:", "CapBnd:", "NoNewPrivs:"});
    tellProcesses();
    tellDescriptors();
    tellWhetherAllowed("mount", mount("none", "/tmp", "tmpfs", 0, nullptr) == 0);
    tellWhetherAllowed("chroot", chroot("/tmp") == 0);
    for (const char* device : {"/dev/null", "/dev/kmsg", "/dev/mem"})
        std::printf("%s: %s\n", device, access(device, F_OK) == 0 ? "seen" : "unseen");
    for (const char* folder : {"/usr", "/tmp", "/Library", "/var/run/fernhill", "/proc", "/run", "/dev/shm"})
        tellFlags(folder);
    std::printf("preload %s\n", std::getenv("LD_PRELOAD") ? "seen" : "unseen");
    // The last, since it is another process with all rights there when it may.
    tellWhetherAllowed("users of its own", unshare(CLONE_NEWUSER) == 0);
}
