#include "lab/SystemProgram.h"

#include "lab/ProgramLibraries.h"
#include "lab/SystemView.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace lab {

const int systemProgramNamespaces = CLONE_NEWNS | CLONE_NEWIPC;

namespace {

constexpr int cannotRun = 99;

void require(bool done, const std::string& what) {
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

bool isRightOfADaemon(int capability) {
    for (int kept : {CAP_CHOWN, CAP_DAC_OVERRIDE, CAP_FOWNER, CAP_FSETID, CAP_KILL, CAP_SETGID, CAP_SETUID,
                     CAP_NET_BIND_SERVICE})
        if (kept == capability) return true;
    return false;
}

// For the program and all that it starts, setuid programs included.
void giveRightsUp() {
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability)
        if (!isRightOfADaemon(capability))
            require(prctl(PR_CAPBSET_DROP, capability) == 0, "the rights of root");
    require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "the rights of root");
}

void setSurroundings(int clock) {
    const char* path = std::getenv("PATH");
    setenv("PATH", (std::string(viewsLabFolder) + "/bin:" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
    setenv("LD_PRELOAD", viewsPlayedTime, 1);
    if (clock >= 0) setenv("OSTLER_PLAYED_CLOCK", std::to_string(clock).c_str(), 1);
}

void giveDescriptorsUp(int clock) {
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    require(nothing >= 0 && dup2(nothing, STDIN_FILENO) == STDIN_FILENO, "/dev/null");
    if (nothing != STDIN_FILENO) close(nothing);
    require(close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0, "the lab's descriptors");
    if (clock >= 0) fcntl(clock, F_SETFD, 0);
}

} // namespace

void becomeSystemProgram(const std::string& program, const RootFolder& root,
                         const std::vector<std::string>& words, int clock) {
    std::vector<char*> pointers;
    for (const std::string& word : words)
        pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    try {
        const int file = open(program.c_str(), O_RDONLY | O_CLOEXEC);
        require(file >= 0, program);
        enterView(root, librariesOf(program));
        giveDescriptorsUp(clock);
        giveRightsUp();
        setSurroundings(clock);
        fexecve(file, pointers.data(), environ);
        throw std::system_error(errno, std::generic_category(), program);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        _exit(cannotRun);
    }
}

} // namespace lab
