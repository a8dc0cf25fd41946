#include "support/TracedCalls.h"

#include "support/Eventually.h"
#include "support/Patience.h"
#include "support/ProcessDescriptors.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <system_error>

namespace testsupport {
namespace {

// An option that prctl does not have: how the body speaks to whoever traces it.
constexpr int mark = 0x4f43414c;
constexpr unsigned long ofThisThread = 1, ofEveryThread = 2, ofOtherThreads = 3, noMore = 0;

struct Call {
    const char* name;
    int error;
};

const Call* memoryCall(long number) {
    static const std::map<long, Call> calls = {{SYS_mmap, {"mmap", ENOMEM}},
                                               {SYS_brk, {"brk", ENOMEM}},
                                               {SYS_mprotect, {"mprotect", ENOMEM}},
                                               {SYS_mremap, {"mremap", ENOMEM}}};
    const auto found = calls.find(number);
    return found == calls.end() ? nullptr : &found->second;
}

// Each with the failure that a machine at its limits gives.
const Call* failingCall(long number) {
    static const std::map<long, Call> calls = {{SYS_open, {"open", EMFILE}},
                                               {SYS_openat, {"openat", EMFILE}},
                                               {SYS_read, {"read", EIO}},
                                               {SYS_pread64, {"pread64", EIO}},
                                               {SYS_readv, {"readv", EIO}},
                                               {SYS_write, {"write", ENOSPC}},
                                               {SYS_writev, {"writev", ENOSPC}},
                                               {SYS_pwrite64, {"pwrite64", ENOSPC}},
                                               {SYS_close, {"close", EIO}},
                                               {SYS_lseek, {"lseek", EIO}},
                                               {SYS_stat, {"stat", EIO}},
                                               {SYS_lstat, {"lstat", EIO}},
                                               {SYS_fstat, {"fstat", EIO}},
                                               {SYS_newfstatat, {"newfstatat", EIO}},
                                               {SYS_statx, {"statx", EIO}},
                                               {SYS_getdents64, {"getdents64", EIO}},
                                               {SYS_mkdir, {"mkdir", ENOSPC}},
                                               {SYS_mkdirat, {"mkdirat", ENOSPC}},
                                               {SYS_rename, {"rename", ENOSPC}},
                                               {SYS_renameat, {"renameat", ENOSPC}},
                                               {SYS_renameat2, {"renameat2", ENOSPC}},
                                               {SYS_unlink, {"unlink", EIO}},
                                               {SYS_unlinkat, {"unlinkat", EIO}},
                                               {SYS_rmdir, {"rmdir", EIO}},
                                               {SYS_truncate, {"truncate", EIO}},
                                               {SYS_ftruncate, {"ftruncate", EIO}},
                                               {SYS_chmod, {"chmod", EIO}},
                                               {SYS_fchmod, {"fchmod", EIO}},
                                               {SYS_fchmodat, {"fchmodat", EIO}},
                                               {SYS_fsync, {"fsync", EIO}},
                                               {SYS_access, {"access", EIO}},
                                               {SYS_readlink, {"readlink", EIO}},
                                               {SYS_fcntl, {"fcntl", EMFILE}},
                                               {SYS_ioctl, {"ioctl", EIO}},
                                               {SYS_dup, {"dup", EMFILE}},
                                               {SYS_dup2, {"dup2", EMFILE}},
                                               {SYS_dup3, {"dup3", EMFILE}},
                                               {SYS_pipe, {"pipe", EMFILE}},
                                               {SYS_pipe2, {"pipe2", EMFILE}},
                                               {SYS_socket, {"socket", EMFILE}},
                                               {SYS_socketpair, {"socketpair", EMFILE}},
                                               {SYS_connect, {"connect", ECONNREFUSED}},
                                               {SYS_bind, {"bind", EADDRINUSE}},
                                               {SYS_listen, {"listen", EADDRINUSE}},
                                               {SYS_accept, {"accept", EMFILE}},
                                               {SYS_accept4, {"accept4", EMFILE}},
                                               {SYS_sendto, {"sendto", ECONNRESET}},
                                               {SYS_sendmsg, {"sendmsg", ECONNRESET}},
                                               {SYS_recvfrom, {"recvfrom", ECONNRESET}},
                                               {SYS_recvmsg, {"recvmsg", ECONNRESET}},
                                               {SYS_setsockopt, {"setsockopt", ENOBUFS}},
                                               {SYS_getsockopt, {"getsockopt", ENOBUFS}},
                                               {SYS_getsockname, {"getsockname", ENOBUFS}},
                                               {SYS_getpeername, {"getpeername", ENOTCONN}},
                                               {SYS_shutdown, {"shutdown", ENOTCONN}},
                                               {SYS_poll, {"poll", ENOMEM}},
                                               {SYS_ppoll, {"ppoll", ENOMEM}},
                                               {SYS_select, {"select", ENOMEM}},
                                               {SYS_pselect6, {"pselect6", ENOMEM}},
                                               {SYS_epoll_wait, {"epoll_wait", EINTR}},
                                               {SYS_epoll_create1, {"epoll_create1", EMFILE}},
                                               {SYS_epoll_ctl, {"epoll_ctl", ENOSPC}},
                                               {SYS_eventfd2, {"eventfd2", EMFILE}},
                                               {SYS_timerfd_create, {"timerfd_create", EMFILE}},
                                               {SYS_clone, {"clone", EAGAIN}},
                                               {SYS_clone3, {"clone3", EAGAIN}},
                                               {SYS_fork, {"fork", EAGAIN}},
                                               {SYS_vfork, {"vfork", EAGAIN}},
                                               {SYS_execve, {"execve", ENOMEM}},
                                               {SYS_sendfile, {"sendfile", ENOSPC}},
                                               {SYS_wait4, {"wait4", ECHILD}},
                                               {SYS_uname, {"uname", EIO}}};
    const auto found = calls.find(number);
    if (found != calls.end()) return &found->second;
    return sanitized ? nullptr : memoryCall(number); // a checker cannot go on without
}

// What each thread of a process does: the number of the call that it waits in, or that it runs.
std::string callsUnderWay(pid_t process) {
    std::string calls;
    std::error_code gone;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", gone)) {
        std::string call;
        std::ifstream(thread.path() / "syscall") >> call;
        calls += ' ' + call;
    }
    return calls;
}

// One child under the tracer.
class Tracer {
public:
    Tracer(const std::function<void()>& body, const std::string& name, long number, bool kills)
        : name_(name), number_(number), kills_(kills) {
        std::fflush(nullptr);
        child_ = fork();
        if (child_ != 0) return;
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        endAfter(body);
    }

    TracedEnd follow() {
        for (int status = 0;;) {
            const pid_t thread = waitpid(-1, &status, __WALL);
            if (thread < 0) return end_;
            if (WIFSTOPPED(status)) {
                stopped(thread, status);
            } else if (thread == child_) {
                ended(status);
                return end_;
            }
        }
    }

private:
    void stopped(pid_t thread, int status) {
        const int signal = WSTOPSIG(status);
        if (signal == SIGALRM) callsAtAlarm_ = callsUnderWay(child_);
        if (known_.insert(thread).second) { // a thread's, or the child's own, first stop
            if (thread == child_)
                ptrace(PTRACE_SETOPTIONS, thread, nullptr,
                       PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
            goOn(thread, 0);
        } else if (signal == (SIGTRAP | 0x80)) {
            atCall(thread);
            goOn(thread, 0);
        } else {
            goOn(thread, signal == SIGTRAP && status >> 16 != 0 ? 0 : signal);
        }
    }

    // Once the call is found nothing needs to be looked at any more.
    void goOn(pid_t thread, int signal) const {
        ptrace(done_ ? PTRACE_CONT : PTRACE_SYSCALL, thread, nullptr, static_cast<long>(signal));
    }

    void atCall(pid_t thread) {
        if (done_) return; // of another thread, which was stopped already
        bool& inside = inside_[thread];
        inside = !inside;
        user_regs_struct registers{};
        ptrace(PTRACE_GETREGS, thread, nullptr, &registers);
        if (inside)
            entered(thread, registers);
        else if (thread == failing_)
            fail(thread, registers);
    }

    bool counts(pid_t thread) const {
        if (counted_ == ofThisThread) return thread == counting_;
        if (counted_ == ofOtherThreads) return thread != counting_;
        return counted_ == ofEveryThread;
    }

    bool isTheOne(const std::string& name) {
        const long ofTheName = ++end_.made[name];
        ++count_;
        return name_.empty() ? count_ == number_ : name == name_ && ofTheName == number_;
    }

    void entered(pid_t thread, user_regs_struct& registers) {
        const auto call = static_cast<long>(registers.orig_rax);
        if (call == SYS_prctl && registers.rdi == mark) {
            counted_ = registers.rsi;
            counting_ = thread;
            return;
        }
        if (!counts(thread)) return;
        const Call* known = failingCall(call);
        if (!known || !isTheOne(known->name)) return;
        end_.call = known->name;
        error_ = known->error;
        failing_ = thread;
        if (call == SYS_close && !kills_) return; // a close that fails has closed
        argument_ = registers.rdi;
        if (call == SYS_brk && !kills_)
            registers.rdi = 0; // one that fails answers where the memory ends, as one that only asks
        else
            registers.orig_rax = static_cast<unsigned long long>(-1);
        ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
        if (!kills_) return;
        done_ = true;
        kill(child_, SIGKILL);
    }

    void fail(pid_t thread, user_regs_struct& registers) {
        done_ = true;
        if (static_cast<long>(registers.orig_rax) == SYS_brk)
            registers.rdi = argument_;
        else
            registers.rax = static_cast<unsigned long long>(-error_);
        ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
    }

    void ended(int status) {
        if (WIFEXITED(status)) {
            end_.passed = WEXITSTATUS(status) == 0;
            end_.how = "status " + std::to_string(WEXITSTATUS(status));
        } else if (kills_ && !end_.call.empty()) {
            end_.passed = WTERMSIG(status) == SIGKILL;
        } else {
            // Memory that runs out ends the process.
            end_.passed = WTERMSIG(status) == SIGABRT && error_ == ENOMEM;
            end_.how = WTERMSIG(status) == SIGALRM ? "hung, its threads in" + callsAtAlarm_
                                                   : "signal " + std::to_string(WTERMSIG(status));
        }
    }

    const std::string name_; // empty for any
    const long number_;      // from 1; 0 for none
    const bool kills_;
    pid_t child_ = 0;
    pid_t counting_ = 0;
    pid_t failing_ = 0;
    unsigned long counted_ = noMore;
    unsigned long long argument_ = 0; // the failing call's first
    long count_ = 0;
    int error_ = 0;
    bool done_ = false;
    std::set<pid_t> known_;
    std::map<pid_t, bool> inside_;
    std::string callsAtAlarm_;
    TracedEnd end_;
};

} // namespace

void beginCalls(CallsOf threads) {
    alarm(static_cast<unsigned>(2 * patience.count())); // what the body waits for in vain shows first
    constexpr unsigned long words[] = {ofThisThread, ofEveryThread, ofOtherThreads};
    prctl(mark, words[static_cast<int>(threads)], 0, 0, 0);
}

void endCalls() { prctl(mark, noMore, 0, 0, 0); }

bool canTrace() {
    return Tracer([] {}, "", 0, false).follow().passed;
}

bool canFailCalls() { return canTrace() && !sanitized; }

namespace {

// Where the runs have their temporary files, so that one which ends early leaves none.
class FolderOfRuns {
public:
    FolderOfRuns() {
        if (const char* directory = std::getenv("TMPDIR")) before_ = directory;
        setenv("TMPDIR", folder_.path().c_str(), 1);
    }
    ~FolderOfRuns() {
        if (before_)
            setenv("TMPDIR", before_->c_str(), 1);
        else
            unsetenv("TMPDIR");
    }
    FolderOfRuns(const FolderOfRuns&) = delete;
    FolderOfRuns& operator=(const FolderOfRuns&) = delete;

private:
    std::optional<std::string> before_;
    const TemporaryFolder folder_;
};

std::string faultOf(const TracedEnd& end, long number) {
    return end.passed ? "" : end.how + " at " + end.call + ' ' + std::to_string(number) + '\n';
}

} // namespace

long failEachCall(const std::function<void()>& body, Share share) {
    const FolderOfRuns folder;
    const TracedEnd whole = Tracer(body, "", 0, false).follow();
    // Told at the end: a failure of this process would be one of each child behind it.
    std::string faults = faultOf(whole, 0);
    long failures = 0, runs = 0;
    for (const auto& [name, times] : whole.made) {
        for (long number = 1; number <= times; ++number) {
            if (runs++ % share.of != share.number) continue;
            const TracedEnd end = Tracer(body, name, number, false).follow();
            faults += faultOf(end, number);
            failures += end.call.empty() ? 0 : 1;
        }
    }
    EXPECT_EQ(faults, "");
    return failures;
}

long failEachCallOf(const std::function<void()>& prepare, const std::function<void()>& act,
                    const std::function<void()>& lookAt) {
    return failEachCall([&] {
        prepare();
        const DescriptorList before = descriptorsOf(getpid());
        beginCalls();
        act();
        endCalls();
        // A thread that `act` has started can still have some for a moment.
        EXPECT_TRUE(eventually([&] { return descriptorsOf(getpid()) == before; }));
        lookAt();
    });
}

long killAtEachCall(const std::function<void()>& body, const std::function<void(const TracedEnd&)>& lookAt) {
    std::string faults;
    for (long number = 1;; ++number) {
        const TracedEnd end = Tracer(body, "", number, true).follow();
        faults += faultOf(end, number);
        lookAt(end);
        if (!end.call.empty()) continue;
        EXPECT_EQ(faults, "");
        return number - 1;
    }
}

} // namespace testsupport
