// What a forked child finds of the system, called as the program calls it. On the Mac the locks behind these calls are
// the kernel's: a child waits for none that a thread of its parent holds.

#include "machost/MacQueueWords.h"
#include "machost/objects/Object.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <thread>

namespace {

using namespace machosttest;

constexpr unsigned patience = 20; // seconds that a child may take

class Forks : public testing::Test {
protected:
    Forks() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
    ~Forks() override {
        close(ends[0]);
        close(ends[1]);
        played<int(int)>("_close")(queue);
    }

    // The status that waitpid gives of a child that does this, and nothing else.
    static int statusOf(const std::function<bool()>& act) {
        const pid_t child = played<pid_t()>("_fork")();
        if (child == 0) {
            alarm(patience);
            _exit(act() ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return status;
    }

    bool watch(std::uint16_t flags) const {
        Event found{};
        const Event wanted{static_cast<std::uint64_t>(ends[0]), readFilter, flags, 0, 0, nullptr};
        return waitAt(queue, &wanted, 1, 0, found) >= 0;
    }

    int ends[2] = {-1, -1};
    const int queue = played<int()>("_kqueue")();
};

class Busy {
public:
    explicit Busy(const std::function<void()>& act)
        : thread_([this, act] {
              while (!over_)
                  act();
          }) {}
    ~Busy() {
        over_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> over_{false};
    std::thread thread_;
};

const machost::Class plain{&machost::classOfClasses, nullptr, {}, nullptr, "plain", nullptr};

} // namespace

TEST_F(Forks, LeaveNoLockOfAThreadThatTheChildHasNot) {
    constexpr int noDescriptor = -1; // any number may be another thread's by then
    const Busy changes([this] { watch(add); });
    const Busy closes([] { played<int(int)>("_close")(noDescriptor); });
    const Busy objects([] { machost::releaseObject(machost::allocateObject(plain, 8)); });
    for (int round = 0; round < 100; ++round) {
        const int status = statusOf([this] {
            played<int(int, int)>("_dup2")(ends[0], STDIN_FILENO);
            played<int(int)>("_close")(ends[1]);
            machost::releaseObject(machost::allocateObject(plain, 8));
            return true;
        });
        ASSERT_EQ(status, 0) << "in round " << round;
    }
}

// A handler of the program may wait for a thread that is about to call the system.
TEST_F(Forks, LetTheProgramsOwnHandlersCallTheSystem) {
    const auto callTheSystem = [] { played<int(int)>("_close")(-1); };
    const pid_t child = fork();
    if (child == 0) {
        alarm(patience);
        using Handler = void (*)();
        played<int(Handler, Handler, Handler)>("_pthread_atfork")(callTheSystem, callTheSystem,
                                                                  callTheSystem);
        _exit(statusOf([] { return true; }) == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

// Whoever holds a child's sign open may be waiting for its parent.
TEST_F(Forks, TellThatAChildHasCalledExecWhileItsOwnChildLives) {
    alarm(patience);
    signal(SIGCHLD, SIG_IGN);
    const pid_t child = played<pid_t()>("_fork")();
    if (child == 0) {
        char word = 0;
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, 0);
            close(ends[1]);
            _exit(write(ends[0], "x", 1) == 1 && read(ends[0], &word, 1) == 0 ? 0 : 1);
        }
        if (read(ends[1], &word, 1) != 1) _exit(1);
        char program[] = "/bin/true";
        char* const words[] = {program, nullptr};
        played<int(const char*, char* const*)>("_execv")(program, words);
        _exit(1);
    }
    waitpid(child, nullptr, 0); // until it has gone: nobody asks for its status
    EXPECT_EQ(played<int(pid_t, pid_t)>("_setpgid")(child, child), -1);
    EXPECT_EQ(programError(), EACCES);
}

TEST_F(Forks, HandDownNoKernelQueue) {
    EXPECT_EQ(statusOf([this] { return !watch(add) && played<int(int)>("_close")(queue) == -1; }), 0);
    EXPECT_TRUE(watch(add));
}

TEST_F(Forks, LeaveTheParentsWatchesToTheParent) {
    ASSERT_TRUE(watch(add));
    EXPECT_EQ(statusOf([this] { return played<int(int)>("_close")(ends[0]) == 0; }), 0);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    Event found{};
    EXPECT_EQ(waitAt(queue, nullptr, 0, 0, found), 1);
    EXPECT_EQ(found.ident, static_cast<std::uint64_t>(ends[0]));
}
