// In the daemon's place: does what a daemon does not, as the environment asks.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

[[noreturn]] void linger() {
    for (;;)
        pause();
}

void leaveAChild() {
    if (fork() == 0) linger();
}

// Into the background as daemons of old went there.
void leaveADaemon() {
    if (fork() > 0) return;
    setsid();
    if (fork() > 0) _exit(0);
    for (int i = 0; i < 64; ++i)
        close(i);
    linger();
}

// By the name that leads to its file from everywhere, when it runs no more.
void writeToItself() {
    const int itself = open("/proc/self/exe", O_RDONLY);
    char command[64];
    std::snprintf(command, sizeof command, "echo more >> /proc/self/fd/%d", itself);
    execl("/bin/sh", "sh", "-c", command, nullptr);
}

// Not to be stopped with their parent, and never at rest.
void leaveWriters() {
    for (int writer = 0; writer < 2; ++writer) {
        if (fork() != 0) continue;
        setsid();
        for (int i = 0;; i = (i + 1) % 1000) {
            char folder[64];
            std::snprintf(folder, sizeof folder, "/Library/Logs/of-%d-%d", writer, i);
            mkdir(folder, 0700);
        }
    }
}

} // namespace

int main() {
    const char* asked = std::getenv("OSTLER_UNRULY");
    std::printf("unruly: %s\n", asked ? asked : "");
    if (!asked) return 0;
    if (std::strcmp(asked, "leaves a child") == 0) leaveAChild();
    if (std::strcmp(asked, "leaves a daemon") == 0) leaveADaemon();
    if (std::strcmp(asked, "writes to itself") == 0) writeToItself();
    if (std::strcmp(asked, "leaves writers") == 0) {
        leaveWriters();
        linger();
    }
    if (std::strcmp(asked, "lingers") == 0) {
        signal(SIGTERM, SIG_IGN);
        signal(SIGINT, SIG_IGN);
        signal(SIGHUP, SIG_IGN);
        leaveADaemon();
        close(open("/Library/Logs/lingers", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        linger();
    }
}
