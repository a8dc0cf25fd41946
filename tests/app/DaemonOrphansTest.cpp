// Nothing that a test forks outlives it.

#include "app/DaemonWorld.h"
#include "support/Patience.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class DaemonOrphans : public DaemonWorld {
protected:
    ~DaemonOrphans() override {
        if (watched_ >= 0) close(watched_);
    }

    // Looks at the process with that number from now on, whatever becomes of the number.
    void watch(pid_t process) {
        watched_ = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
        if (watched_ < 0 && errno == ENOSYS) GTEST_SKIP() << "this system has no descriptors of processes";
        ASSERT_GE(watched_, 0);
        ASSERT_FALSE(endsWithin(0));
    }

    bool endsWithin(int milliseconds) const {
        pollfd waited = {watched_, POLLIN, 0};
        return poll(&waited, 1, milliseconds) > 0;
    }

private:
    int watched_ = -1;
};

} // namespace

TEST_F(DaemonOrphans, TheDaemonEndsWithTheProcessThatForkedIt) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t forking = fork();
    if (forking == 0) {
        const pid_t number = prepare().process();
        if (write(ends[1], &number, sizeof number) != sizeof number) _exit(1);
        daemon->start("");
        for (;;)
            pause();
    }
    close(ends[1]);
    pid_t process = 0;
    ASSERT_EQ(read(ends[0], &process, sizeof process), static_cast<ssize_t>(sizeof process));
    close(ends[0]);
    watch(process);
    kill(forking, SIGKILL);
    waitpid(forking, nullptr, 0);
    EXPECT_TRUE(endsWithin(testsupport::patienceMilliseconds));
}

TEST_F(DaemonOrphans, AProgramThatTheDaemonRunsEndsWithIt) {
    const std::string file = root.path() + "/kextload-number";
    tools.programs().add("kextload", "echo $$ > '" + file + ".new'; mv '" + file + ".new' '" + file +
                                         "'; exec sleep 600");
    prepare().start("");
    ASSERT_TRUE(testsupport::eventually([&] { return std::filesystem::exists(file); }));
    watch(std::stoi(testsupport::readAll(file)));
    daemon->signal(SIGKILL);
    EXPECT_TRUE(endsWithin(testsupport::patienceMilliseconds));
}
