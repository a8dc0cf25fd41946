// The terminal of whoever starts a live run: whose it is meanwhile, and what its keys do.

#include "lab/LiveTraffic.h"
#include "support/Eventually.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace {

using testsupport::writeAll;

// A terminal with a session of its own, as a shell has it.
class DivertTerminalTest : public labtest::LiveTraffic {
protected:
    enum class Place { foreground, background };

    // What the session's leader saw when the run was over.
    enum Outcome { terminalIsBack = 0, terminalIsGone = 1, runFailed = 2 };

    void TearDown() override {
        if (leader_ > 0) kill(leader_, SIGKILL);
        if (leader_ > 0) waitpid(leader_, nullptr, 0);
        close(keyboard_);
    }

    void start(Place place, const std::string& script) {
        writeAll(policy_, "allow *\n");
        keyboard_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_EQ(grantpt(keyboard_), 0);
        ASSERT_EQ(unlockpt(keyboard_), 0);
        const std::string terminal = ptsname(keyboard_);
        leader_ = fork();
        if (leader_ == 0) lead(terminal, place, script);
    }

    void press(const std::string& keys) {
        ASSERT_EQ(write(keyboard_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    // Whether the terminal comes to show the text.
    bool shows(const std::string& text) {
        return testsupport::eventually([&] {
            pollfd waiting{keyboard_, POLLIN, 0};
            char buffer[4096];
            if (poll(&waiting, 1, 10) == 1) {
                const ssize_t count = read(keyboard_, buffer, sizeof buffer);
                if (count > 0) shown_.append(buffer, static_cast<std::size_t>(count));
            }
            return shown_.find(text) != std::string::npos;
        });
    }

    int outcome() {
        int status = 0;
        if (!testsupport::eventually([&] { return waitpid(leader_, &status, WNOHANG) == leader_; }))
            return -1;
        leader_ = -1;
        return WEXITSTATUS(status);
    }

    std::string shown_;

private:
    // The run is a job of the session, in a process group of its own.
    [[noreturn]] void lead(const std::string& terminal, Place place, const std::string& script) const {
        setsid();
        const int screen = open(terminal.c_str(), O_RDWR);
        ioctl(screen, TIOCSCTTY, 0);
        for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            dup2(screen, descriptor);
        signal(SIGTTOU, SIG_IGN);
        const pid_t job = fork();
        if (job == 0) {
            setpgid(0, 0);
            if (place == Place::foreground) tcsetpgrp(STDIN_FILENO, getpid());
            signal(SIGTTOU, SIG_DFL);
            execl(OSTLER_BINARY_DIR "/lab/fernhill-lab", "fernhill-lab", "divert", "--policy",
                  policy_.c_str(), "--table", "/dev/null", "--", "sh", "-c", script.c_str(), nullptr);
            _exit(127);
        }
        int status = 0;
        waitpid(job, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) _exit(runFailed);
        const pid_t owner = place == Place::foreground ? job : getpgrp();
        _exit(tcgetpgrp(STDIN_FILENO) == owner ? terminalIsBack : terminalIsGone);
    }

    int keyboard_ = -1;
    pid_t leader_ = -1;
};

TEST_F(DivertTerminalTest, TheCommandReadsFromTheTerminalAndItIsGivenBack) {
    start(Place::foreground, "echo ready; read answer; echo got $answer");
    ASSERT_TRUE(shows("ready"));
    press("a line\n");
    EXPECT_TRUE(shows("got a line")) << shown_;
    EXPECT_EQ(outcome(), terminalIsBack);
}

TEST_F(DivertTerminalTest, ARunInTheBackgroundLeavesTheTerminalToItsShell) {
    start(Place::background, "true");
    EXPECT_EQ(outcome(), terminalIsBack) << shown_;
}

TEST_F(DivertTerminalTest, TheStopKeyDoesNotFreezeTheCommand) {
    start(Place::foreground, "echo ready; read answer; echo got $answer");
    ASSERT_TRUE(shows("ready"));
    press("\x1a");
    press("a line\n");
    EXPECT_TRUE(shows("got a line")) << shown_;
    EXPECT_EQ(outcome(), terminalIsBack);
}

TEST_F(DivertTerminalTest, TheInterruptKeyEndsTheCommandAndNotTheRun) {
    start(Place::foreground, "trap 'echo interrupted; exit 0' INT; echo ready; while :; do sleep 1; done");
    ASSERT_TRUE(shows("ready"));
    press("\x03");
    EXPECT_TRUE(shows("interrupted")) << shown_;
    EXPECT_EQ(outcome(), terminalIsBack);
}

} // namespace
