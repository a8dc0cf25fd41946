#include "lab/SystemProgram.h"

#include "lab/Descriptor.h"
#include "lab/ElfFile.h"
#include "lab/ProgramLibraries.h"
#include "lab/SystemView.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace lab {

const int systemProgramNamespaces = CLONE_NEWNS | CLONE_NEWIPC;

namespace {

void require(bool done, const std::string& what) {
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

bool isRightOfADaemon(int capability) {
    for (int kept : {CAP_CHOWN, CAP_DAC_OVERRIDE, CAP_FOWNER, CAP_FSETID, CAP_KILL, CAP_SETGID, CAP_SETUID,
                     CAP_NET_BIND_SERVICE})
        if (kept == capability) return true;
    return false;
}

// Those that may be inherited come to root's programs beside what bounds the rest.
void giveInheritableRightsUp() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {};
    require(syscall(SYS_capget, &header, rights) == 0, "the rights of root");
    for (__user_cap_data_struct& half : rights)
        half.inheritable = 0;
    require(syscall(SYS_capset, &header, rights) == 0, "the rights of root");
}

// For the program and all that it starts, setuid programs included.
void giveRightsUp() {
    giveInheritableRightsUp();
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

bool areTheSame(int one, int other) {
    struct stat first {
    }, second{};
    return fstat(one, &first) == 0 && fstat(other, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// Where the running program looks for itself, and for what lies beside it.
std::string pathOf(int file) {
    std::error_code unreadable;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), unreadable);
}

// In its place, where the view has it there: by a file opened before, one on a volume of its own would have lost its
// folder.
Descriptor programInView(const std::string& program, Descriptor before, bool looksBesideItself) {
    Descriptor there(open(program.c_str(), O_RDONLY | O_CLOEXEC));
    if (there >= 0 && areTheSame(there, before)) return there;
    if (looksBesideItself && pathOf(before) != program)
        throw std::runtime_error(program +
                                 ": it looks for libraries beside itself, where a program in the lab "
                                 "has a folder of the lab's; move it below /opt");
    return before;
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
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words)
        pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    Descriptor before(open(program.c_str(), O_RDONLY | O_CLOEXEC));
    require(before >= 0, program);
    const bool looksBesideItself = readElf(program).looksBesideItself;
    enterView(root, program, librariesOf(program));
    const Descriptor file = programInView(program, std::move(before), looksBesideItself);
    giveDescriptorsUp(clock);
    giveRightsUp();
    setSurroundings(clock);
    fexecve(file, pointers.data(), environ);
    throw std::system_error(errno, std::generic_category(), program);
}

} // namespace lab
