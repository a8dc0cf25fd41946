#include "gp/GPThread.h"

#include "platform/ThreadNumber.h"
#include "support/ForkedChild.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>

namespace {

// A thread's doings that the test watches: it says that it began, and goes on when it may.
struct Job {
    std::promise<void> begun;
    std::promise<void> may;
    std::promise<std::uint64_t> ended;
};

// A detached thread can outlive the test's view of it, so a job lives as long as the process.
Job& lastingJob() {
    static auto* jobs = new std::deque<Job>;
    return jobs->emplace_back();
}

void* runJob(void* argument) {
    auto* job = static_cast<Job*>(argument);
    job->begun.set_value();
    job->may.get_future().wait();
    job->ended.set_value(platform::threadNumber());
    return nullptr;
}

void* markDone(void* argument) {
    *static_cast<bool*>(argument) = true;
    return nullptr;
}

// A value that tells when it is destroyed.
class Witness : public GPObject {
public:
    explicit Witness(std::atomic<bool>& gone) : gone_(gone) {}
    ~Witness() override { gone_ = true; }

private:
    std::atomic<bool>& gone_;
};

TEST(GPThread, ANewThreadIsNotRunning) {
    GPThread thread;
    EXPECT_FALSE(thread.isRunning());
}

TEST(GPThread, StartRunsTheFunctionWithItsArgument) {
    bool done = false;
    GPThread thread(markDone);
    EXPECT_EQ(thread.start(&done), 0);
    thread.wait();
    EXPECT_TRUE(done);
}

TEST(GPThread, SetFunctionChoosesWhatTheNextStartRuns) {
    bool done = false;
    GPThread thread;
    thread.setFunction(markDone);
    thread.start(&done);
    thread.wait();
    EXPECT_TRUE(done);
}

TEST(GPThread, RunningStaysTrueAfterTheThreadsEndUntilSomebodyClearsIt) {
    bool done = false;
    GPThread thread(markDone);
    thread.start(&done);
    thread.wait();
    EXPECT_TRUE(thread.isRunning());
    thread.setRunning(false);
    EXPECT_FALSE(thread.isRunning());
}

TEST(GPThread, StartMarksTheThreadAsRunningEvenWhenNoneCouldBeMade) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the address space that this takes away";
    EXPECT_EQ(testsupport::answerOfChild([] {
                  bool done = false;
                  GPThread thread(markDone);
                  const rlimit none = {1, 1};
                  setrlimit(RLIMIT_AS, &none);
                  const int result = thread.start(&done);
                  thread.wait();
                  return std::string(result != 0 ? "failed" : "made") +
                         (thread.isRunning() ? ", running" : "");
              }),
              "failed, running");
}

TEST(GPThread, WaitWithoutAStartReturnsAtOnce) {
    EXPECT_TRUE(testsupport::comesToItsEnd([] { GPThread().wait(); }));
}

TEST(GPThread, ASecondWaitReturnsAtOnce) {
    bool done = false;
    GPThread thread(markDone);
    thread.start(&done);
    thread.wait();
    thread.wait();
    EXPECT_TRUE(done);
}

TEST(GPThread, AThreadThatWasWaitedForCanBeStartedAgain) {
    bool first = false;
    bool second = false;
    GPThread thread(markDone);
    thread.start(&first);
    thread.wait();
    thread.start(&second);
    thread.wait();
    EXPECT_TRUE(second);
}

TEST(GPThread, StartOnAThreadThatStillRunsDetachesItAndStartsASecond) {
    Job& first = lastingJob();
    Job& second = lastingJob();
    auto firstEnded = first.ended.get_future();
    auto secondEnded = second.ended.get_future();
    GPThread thread(runJob);
    thread.start(&first);
    first.begun.get_future().wait();

    thread.start(&second);
    second.begun.get_future().wait();
    second.may.set_value();
    thread.wait(); // for the second alone: the first still waits for its permission

    first.may.set_value();
    EXPECT_NE(firstEnded.get(), secondEnded.get());
}

TEST(GPThread, CleanupDetachesAndLeavesNothingToWaitFor) {
    Job& job = lastingJob();
    GPThread thread(runJob);
    thread.start(&job);
    thread.cleanup();
    thread.wait();
    job.may.set_value();
    EXPECT_NE(job.ended.get_future().get(), 0u);
}

TEST(GPThread, TaskOnBackgroundReturnsAtOnceAndTheThreadGoesOnAfterItsObjectHasGone) {
    Job& job = lastingJob();
    auto ended = job.ended.get_future();
    GPThread::taskOnBackground(runJob, &job);
    EXPECT_EQ(ended.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    job.may.set_value();
    EXPECT_NE(ended.get(), platform::threadNumber());
}

TEST(GPThread, AZeroKeyIsMadeAnewAndANonZeroKeyIsKept) {
    unsigned long key = 0;
    auto* first = new GPObject;
    auto* second = new GPObject;
    GPThread::addLocalThreadValue(key, first);
    const unsigned long made = key;
    EXPECT_NE(made, 0u);
    EXPECT_EQ(GPThread::getLocalThreadValue(key), first);

    GPThread::addLocalThreadValue(key, second);
    EXPECT_EQ(key, made);
    EXPECT_EQ(GPThread::getLocalThreadValue(key), second);

    GPThread::addLocalThreadValue(key, nullptr);
    first->release();
    second->release();
}

TEST(GPThread, AMadeKeyIsNeverZeroThoughTheSystemHandsZeroOut) {
    EXPECT_EQ(testsupport::answerOfChild([] {
                  pthread_key_delete(0);
                  unsigned long key = 0;
                  GPObject value;
                  GPThread::addLocalThreadValue(key, &value);
                  return std::string(key != 0 ? "key " : "no key ") +
                         (GPThread::getLocalThreadValue(key) == &value ? "holds" : "lost");
              }),
              "key holds");
}

TEST(GPThread, WithNoKeyLeftNothingIsStoredAndNoKeyOfAnotherGivenUp) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need keys of their own";
    EXPECT_EQ(testsupport::answerOfChild([] {
                  pthread_key_t last{};
                  while (pthread_key_create(&last, nullptr) == 0) {
                  }
                  unsigned long key = 0;
                  GPThread::addLocalThreadValue(key, nullptr);
                  const bool stillNone = pthread_key_create(&last, nullptr) != 0;
                  return std::string(key == 0 ? "no key, " : "key, ") +
                         (stillNone ? "none left" : "one left");
              }),
              "no key, none left");
}

TEST(GPThread, EachThreadHasAValueOfItsOwn) {
    unsigned long key = 0;
    GPObject value;
    GPThread::addLocalThreadValue(key, &value);
    auto seen = std::async(std::launch::async, [&] { return GPThread::getLocalThreadValue(key); });
    EXPECT_EQ(seen.get(), nullptr);
    EXPECT_EQ(GPThread::getLocalThreadValue(key), &value);
    GPThread::addLocalThreadValue(key, nullptr);
}

TEST(GPThread, NoKeyHasNoValue) { EXPECT_EQ(GPThread::getLocalThreadValue(0), nullptr); }

TEST(GPThread, ReleaseLocalValueLeavesTheValueInPlace) {
    unsigned long key = 0;
    GPObject value;
    GPThread::addLocalThreadValue(key, &value);
    GPThread::releaseLocalValue(key);
    EXPECT_EQ(GPThread::getLocalThreadValue(key), &value);
    GPThread::addLocalThreadValue(key, nullptr);
}

TEST(GPThread, AThreadsValueDiesWithItsThreadWhateverItsCount) {
    std::atomic<bool> gone{false};
    std::thread([&] {
        unsigned long key = 0;
        auto* value = new Witness(gone);
        value->retain();
        value->retain();
        GPThread::addLocalThreadValue(key, value);
        EXPECT_FALSE(gone);
    }).join();
    EXPECT_TRUE(gone);
}

TEST(GPThread, TheKeysDestructorIgnoresNull) {
    EXPECT_TRUE(testsupport::comesToItsEnd([] { GPThread::globalDestructor(nullptr); }));
}

TEST(GPThread, ThePermissionToKeepGoingIsOneAtStart) { EXPECT_EQ(threadKeepGoing.load(), 1); }

} // namespace
