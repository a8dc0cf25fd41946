// In the daemon's place: tells what it sees, and ends.

#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

namespace {

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
    std::printf("preload %s\n", std::getenv("LD_PRELOAD") ? "seen" : "unseen");
}
