// The console user of this system: the login manager's files are played in a mount namespace of a child's own.

#include "platform/ConsoleUser.h"

#include "support/Eventually.h"
#include "support/ManualClock.h"
#include "support/NetworkNamespace.h"
#include "support/Patience.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

using testsupport::ManualClock;

namespace {

constexpr int noNamespace = 77;

platform::ConsoleUser& system() { return platform::consoleUserService.backend(); }

// As the login manager writes its files: in one step.
void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path + ".new") << content;
    rename((path + ".new").c_str(), path.c_str());
}

void startLoginManager() {
    mkdir("/run/systemd", 0755);
    for (const char* folder : {"/run/systemd/seats", "/run/systemd/sessions", "/run/systemd/users"})
        mkdir(folder, 0755);
}

// Puts a session in front of the first seat.
void sitDown(int user, const std::string& kind = "user") {
    const std::string number = std::to_string(user);
    writeFile("/run/systemd/sessions/c" + number, "UID=" + number + "\nCLASS=" + kind + "\nACTIVE=1\n");
    writeFile("/run/systemd/seats/seat0", "ACTIVE=c" + number + "\nACTIVE_UID=" + number + "\n");
}

void standUp() { writeFile("/run/systemd/seats/seat0", "IS_SEAT0=1\n"); }

std::string consoleName(std::size_t size = 255) {
    char name[255];
    return system().copyName(name, size) ? name : "(nobody)";
}

bool writeLine(const char* path, const std::string& line) {
    return static_cast<bool>((std::ofstream(path) << line).flush());
}

// Only mapped users and groups can own what is made there.
bool enterNamespace() {
    const std::string user = "0 " + std::to_string(getuid()) + " 1";
    const std::string group = "0 " + std::to_string(getgid()) + " 1";
    return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeLine("/proc/self/setgroups", "deny") &&
           writeLine("/proc/self/uid_map", user) && writeLine("/proc/self/gid_map", group) &&
           mount("run", "/run", "tmpfs", 0, nullptr) == 0;
}

// Runs `story` over an empty /run of its own and answers its exit status.
template <class Story>
int overEmptyRun(Story story) {
    std::fflush(nullptr);
    const pid_t child = testsupport::forkAlone();
    if (child == 0) {
        alarm(testsupport::patience.count());
        if (!enterNamespace()) _exit(noNamespace);
        story();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

// The number of the system call that the first thread is in; empty where the system does not tell.
std::string mainThreadsCall() {
    std::string number;
    std::ifstream("/proc/" + std::to_string(getpid()) + "/syscall") >> number;
    return number;
}

void expectPassed(int status) {
    if (status == noNamespace) GTEST_SKIP() << "no mount namespace can be made here";
    EXPECT_EQ(status, 0);
}

} // namespace

TEST(ConsoleUser, OfThisSystemIsTheActiveUserOfTheFirstSeat) {
    expectPassed(overEmptyRun([] {
        EXPECT_EQ(consoleName(), "(nobody)");
        startLoginManager();
        EXPECT_EQ(consoleName(), "(nobody)");
        sitDown(0);
        EXPECT_EQ(consoleName(), "root");
        sitDown(1);
        EXPECT_EQ(consoleName(), "daemon");
        standUp();
        EXPECT_EQ(consoleName(), "(nobody)");
    }));
}

TEST(ConsoleUser, OfThisSystemMayHaveAnEarlySession) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        sitDown(0, "user-early");
        EXPECT_EQ(consoleName(), "root");
    }));
}

TEST(ConsoleUser, OfThisSystemIsNobodyInASessionOfNoKind) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        sitDown(0);
        writeFile("/run/systemd/sessions/c0", "UID=0\nACTIVE=1\n");
        EXPECT_EQ(consoleName(), "(nobody)");
    }));
}

TEST(ConsoleUser, OfThisSystemIsNobodyAtALogInScreen) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        sitDown(1, "greeter");
        EXPECT_EQ(consoleName(), "(nobody)");
    }));
}

TEST(ConsoleUser, OfThisSystemIsNobodyWithoutAnAccount) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        sitDown(3999999);
        EXPECT_EQ(consoleName(), "(nobody)");
    }));
}

TEST(ConsoleUser, OfThisSystemMustFitIntoTheBuffer) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        sitDown(0);
        EXPECT_EQ(consoleName(5), "root");
        EXPECT_EQ(consoleName(4), "(nobody)");
    }));
}

TEST(ConsoleUser, OfThisSystemIsWrittenUpToItsZeroAndNoFurther) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        sitDown(0);
        std::string buffer(8, 'x');
        EXPECT_TRUE(system().copyName(buffer.data(), 5));
        EXPECT_EQ(buffer, std::string("root\0xxx", 8));
    }));
}

TEST(ConsoleUser, OfThisSystemIsWatched) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        sitDown(0);
        auto* watch = system().create(
            "name", [](const void*, const void*, void*) { _exit(consoleName() == "daemon" ? 0 : 2); });
        std::thread([] { sitDown(1); }).detach();
        system().run(watch);
    }));
}

TEST(ConsoleUser, OfThisSystemHasNothingMoreToReadWhenItTellsOfAChange) {
    static int descriptor;
    expectPassed(overEmptyRun([] {
        startLoginManager();
        descriptor = dup(0);
        close(descriptor);
        auto* watch = system().create("name", [](const void*, const void*, void*) {
            pollfd session = {descriptor, POLLIN, 0};
            _exit(poll(&session, 1, 0) == 0 ? 0 : 2);
        });
        std::thread([] { sitDown(1); }).detach();
        system().run(watch);
    }));
}

TEST(ConsoleUser, OfThisSystemIsWatchedOnceTheLoginManagerIsThere) {
    expectPassed(overEmptyRun([] {
        auto* watch = system().create(
            "name", [](const void*, const void*, void*) { _exit(consoleName() == "root" ? 0 : 2); });
        std::thread([] {
            EXPECT_TRUE(ManualClock::installed().waitForSleepers(1));
            startLoginManager();
            sitDown(0);
            ManualClock::installed().advanceSeconds(10);
        }).detach();
        system().run(watch);
    }));
}

// A limit of no descriptors at all makes every wait for one fail.
TEST(ConsoleUser, OfThisSystemWaitsBetweenTriesWhereTheSeatsCannotBeWaitedFor) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker opens descriptors of its own";
    expectPassed(overEmptyRun([] {
        startLoginManager();
        auto* watch = system().create(
            "name", [](const void*, const void*, void*) { _exit(testing::Test::HasFailure() ? 1 : 0); });
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit none = {0, limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        std::thread([&limit] {
            ManualClock& clock = ManualClock::installed();
            for (int tries = 1; tries <= 3; ++tries) {
                EXPECT_TRUE(testsupport::eventually([&] {
                    return clock.sleptMicroseconds() == tries * 1000000;
                })) << "a wait of one second for each try";
                if (tries == 3) setrlimit(RLIMIT_NOFILE, &limit);
                clock.advanceSeconds(1);
            }
            sitDown(0);
        }).detach();
        system().run(watch);
    }));
}

// The session's descriptor is taken from it, so that the wait for it ends at once without anything to read.
TEST(ConsoleUser, OfThisSystemWaitsBetweenTriesWhereTheSeatsHaveNothingToRead) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        const int next = dup(0);
        close(next);
        auto* watch = system().create("name", [](const void*, const void*, void*) { _exit(2); });
        close(next);
        std::thread([] {
            ManualClock& clock = ManualClock::installed();
            for (int tries = 1; tries <= 3; ++tries) {
                EXPECT_TRUE(testsupport::eventually([&] {
                    return clock.sleptMicroseconds() == tries * 1000000;
                })) << "a wait of one second for each try";
                if (tries < 3) clock.advanceSeconds(1);
            }
            std::fflush(nullptr);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }).detach();
        system().run(watch);
    }));
}

TEST(ConsoleUser, OfThisSystemIsWatchedOnWithoutAPauseAfterAnInterruption) {
    if (mainThreadsCall().empty()) GTEST_SKIP() << "this system does not tell what a thread waits in";
    expectPassed(overEmptyRun([] {
        startLoginManager();
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        auto* watch = system().create("name", [](const void*, const void*, void*) {
            const bool paused = ManualClock::installed().sleptMicroseconds() != 0;
            _exit(!paused && consoleName() == "daemon" ? 0 : 2);
        });
        std::thread([] {
            EXPECT_TRUE(
                testsupport::eventually([] { return mainThreadsCall() == std::to_string(SYS_poll); }));
            kill(getpid(), SIGUSR1);
            sitDown(1);
        }).detach();
        system().run(watch);
    }));
}

TEST(ConsoleUser, OfThisSystemGivesItsDescriptorBackAtTheRelease) {
    expectPassed(overEmptyRun([] {
        startLoginManager();
        auto* watch = system().create("name", [](const void*, const void*, void*) {});
        ASSERT_NE(watch, nullptr);
        const int behind = dup(0);
        system().release(watch);
        // The session's descriptor is free again.
        EXPECT_EQ(dup(0), behind - 1);
    }));
}
