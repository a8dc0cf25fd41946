// What a thread's object shows while its thread is being made, and while it is not waited for.

#include "gp/GPHTTP.h"
#include "gp/GPThread.h"
#include "support/AnswerServer.h"
#include "support/Await.h"
#include "support/HTTPRequestWorld.h"
#include "support/Objects.h"
#include "support/ThreadStarts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <pthread.h>

namespace {

GPThread* starting = nullptr;
bool runningAtCreation = false;

int lookAndStart(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                 void* argument) {
    runningAtCreation = starting->isRunning();
    EXPECT_EQ(attributes, nullptr) << "default attributes";
    return testsupport::startThread(thread, attributes, function, argument);
}

void* doNothing(void*) { return nullptr; }

TEST(GPThreadStart, TheRunningMarkComesBehindTheCreation) {
    GPThread thread(doNothing);
    starting = &thread;
    testsupport::playThreadStarts(lookAndStart);

    EXPECT_EQ(thread.start(nullptr), 0);

    testsupport::playThreadStarts(nullptr);
    EXPECT_FALSE(runningAtCreation);
    EXPECT_TRUE(thread.isRunning());
    thread.wait();
}

TEST(GPThreadStart, AThreadThatCannotBeMadeIsMarkedAsRunningWithNothingToWaitFor) {
    GPThread thread(doNothing);
    testsupport::playThreadStarts([](pthread_t* made, const pthread_attr_t*, void* (*)(void*), void*) {
        *made = pthread_self(); // nothing that a join would come back from
        return EAGAIN;
    });

    EXPECT_EQ(thread.start(nullptr), EAGAIN);

    testsupport::playThreadStarts(nullptr);
    EXPECT_TRUE(thread.isRunning());
    thread.wait();
}

// A thread's function with its argument, and whether it has come to its end.
struct Watched {
    void* (*function)(void*);
    void* argument;
};
std::atomic<int> ended{0};

int startAndWatch(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                  void* argument) {
    const auto runWatched = [](void* watched) -> void* {
        const std::unique_ptr<Watched> own(static_cast<Watched*>(watched));
        void* const result = own->function(own->argument);
        ++ended;
        return result;
    };
    return testsupport::startThread(thread, attributes, runWatched, new Watched{function, argument});
}

class GPHTTPThread : public testsupport::HTTPRequestWorld {};

void* noteCompletion(GPHTTP* request) {
    EXPECT_EQ(ended, 0);
    EXPECT_EQ(testsupport::references(request), 2) << "the caller's and the exchange's";
    return nullptr;
}

TEST_F(GPHTTPThread, AnExchangeInTheBackgroundGivesItsReferenceBackAtItsEnd) {
    testsupport::AnswerServer server({"HTTP/1.1 204 No Content\r\n\r\n", "HTTP/1.1 204 No Content\r\n\r\n"});
    GPHTTP request(server.url("/").c_str());
    testsupport::playThreadStarts(startAndWatch);

    request.startAsync(noteCompletion);
    EXPECT_TRUE(testsupport::comesTrue([] { return ended == 1; }));
    EXPECT_EQ(testsupport::references(&request), 1);

    request.startAsync(nullptr);
    EXPECT_TRUE(testsupport::comesTrue([] { return ended == 2; }));
    EXPECT_EQ(testsupport::references(&request), 1);
    testsupport::playThreadStarts(nullptr);
}

} // namespace
