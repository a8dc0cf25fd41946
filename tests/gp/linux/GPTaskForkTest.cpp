// Children that are forked while another thread holds a lock that they need: what a child finds locked stays so.
// The C library converts times under such a lock. The time zone is a pipe here, so a thread that reads it for the
// first time stays inside for as long as the test wants.

#include "gp/GPTask.h"

#include "gp/GPDate.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/Await.h"
#include "support/CapturedLog.h"
#include "support/FileCalls.h"
#include "support/ForkedChild.h"
#include "support/ManualClock.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

using testsupport::comesTrue;

std::atomic<bool> forkBegun{false};
std::atomic<bool> forkDone{false};

// The system call that the main thread waits in; nothing while it runs, or where the system does not tell.
std::string waitOfMainThread() {
    std::ifstream file("/proc/self/task/" + std::to_string(getpid()) + "/syscall");
    std::string call;
    return file >> call && call != "running" ? call : "";
}

bool mainThreadWaitsAtALock() { return waitOfMainThread() == std::to_string(SYS_futex); }

bool systemTellsWaits() {
    std::string seen;
    std::thread([&] { comesTrue([&] { return !(seen = waitOfMainThread()).empty(); }); }).join();
    return !seen.empty();
}

class GPTaskForkTest : public testing::Test {
protected:
    void SetUp() override {
        if (!systemTellsWaits()) GTEST_SKIP() << "this system does not tell what a thread waits in";
        testsupport::ManualClock::installed().letSleepsPass(true);
        setenv("PATH", folder_.file("none").c_str(), 1);
        ASSERT_EQ(mkfifo(zone().c_str(), 0600), 0);
    }

    // Blocks until this process has forked, or comes no further with it because of a lock.
    static void awaitFork() {
        comesTrue([] { return forkDone || (forkBegun && mainThreadWaitsAtALock()); });
    }

    static void watchForks() {
        pthread_atfork([] { forkBegun = true; }, [] { forkDone = true; }, nullptr);
    }

    static std::string failure() {
        const auto text = Owned<GPString>::adopt(GPTask::task("no-such-program", true, false));
        return text ? text->cstr() : "null";
    }

    // What a command that names nothing comes back as, when it is run while another thread is inside `convert`.
    std::string failureWhile(const std::function<void()>& convert) {
        return testsupport::answerOfChild([&]() -> std::string {
            setenv("TZ", (":" + zone()).c_str(), 1);
            watchForks();

            std::thread converting(convert);
            int end = -1;
            if (!comesTrue(
                    [&] { return (end = open(zone().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; })) {
                converting.join();
                return "nobody reads the time zone";
            }
            std::thread letsGo([&] {
                awaitFork();
                close(end);
            });
            std::string text = failure();
            letsGo.join();
            converting.join();
            return text;
        });
    }

private:
    std::string zone() const { return folder_.file("zone"); }

    testsupport::TemporaryFolder folder_;
    testsupport::CapturedLog log_;
};

constexpr char report[] = "GPTask exec failure: 2. Path that was detected: (null)";

} // namespace

TEST_F(GPTaskForkTest, AChildThatLogsDoesNotHangWhenAnotherThreadLoggedAtTheFork) {
    EXPECT_EQ(failureWhile([] { logs("inside"); }), report);
}

TEST_F(GPTaskForkTest, AChildThatLogsDoesNotHangWhenAnotherThreadMadeADateAtTheFork) {
    EXPECT_EQ(failureWhile([] { Owned<GPDate>::adopt(GPDate::now()); }), report);
    EXPECT_EQ(failureWhile([] { Owned<GPDate>::adopt(GPDate::UTC()); }), report);
    EXPECT_EQ(failureWhile([] { Owned<GPDate>::adopt(new GPDate)->toString(); }), report);
    EXPECT_EQ(failureWhile([] { Owned<GPDate>::adopt(new GPDate)->clockTime(); }), report);
    EXPECT_EQ(failureWhile([] { Owned<GPDate>::adopt(new GPDate)->setHour(1); }), report);
}

// Here the process has a time zone when the pipe takes its place, which is what these look for each time.
TEST_F(GPTaskForkTest, AChildThatLogsDoesNotHangWhenAnotherThreadUsedADateAtTheFork) {
    const auto date = Owned<GPDate>::adopt(new GPDate);
    date->hour();
    EXPECT_EQ(failureWhile([&] { date->clockTime(); }), report);
    EXPECT_EQ(failureWhile([&] { date->setHour(1); }), report);
    date->setFormat("%s"); // the seconds, which are mktime's
    EXPECT_EQ(failureWhile([&] { date->toString(); }), report);
}

TEST_F(GPTaskForkTest, AChildThatLogsDoesNotHangWhenAnotherThreadHeldTheLogsLockAtTheFork) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the call that is stopped";
    EXPECT_EQ(testsupport::answerOfChild([] {
                  makeLogThreadSafe();
                  watchForks();
                  std::atomic<bool> inside{false};
                  std::thread logging([&] {
                      testsupport::FileCalls calls;
                      calls.beforeNextFstat([&] {
                          inside = true;
                          awaitFork();
                      });
                      logs("inside");
                  });
                  comesTrue([&] { return inside.load(); });
                  std::string text = failure();
                  logging.join();
                  return text;
              }),
              report);
}
