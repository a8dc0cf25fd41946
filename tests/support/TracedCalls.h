#pragma once

// A forked child in which one system call fails, or at one of which it is killed. Run again and again, each time with
// the next call, it shows what comes of every failure. Linux alone can do that.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>

namespace testsupport {

// In the body: the calls of this thread count from here on, those of every thread, or those of all but this one.
enum class CallsOf { thisThread, everyThread, otherThreads };
void beginCalls(CallsOf threads = CallsOf::thisThread);
void endCalls();

// How a child ended that was killed in front of a call, or of which a call failed.
struct TracedEnd {
    std::string call; // that one; empty when the body makes fewer
    bool passed = false;
    std::string how; // of what did not pass: its status, its signal, or the calls in which it hung
    std::map<std::string, long> made; // how many calls of each name, up to that one
};

// Whether this process may trace its children.
bool canTrace();

// Whether calls of such a child can be made to fail besides: a checker makes some of its own and ends where one fails.
bool canFailCalls();

// Runs `body` as passesInChild does, once for each call that it makes: the first openat fails, the second, and so on, so
// that a call is met whatever the others around it do. It is not made and fails, as on a machine that has no descriptor,
// thread, room on its disk or memory left; a close is made and fails. Each run must pass, or end for want of memory in a
// call for memory; whatever does not is a failure of the test. Returns the number of runs with a failure.
// With a share only every so many of the runs, for a body that takes long: several tests do it together.
struct Share {
    long number = 0; // from 0
    long of = 1;
};
long failEachCall(const std::function<void()>& body, Share share = {});

// The same of three steps, with the calls of `act` alone, on this thread. It leaves no descriptor over.
long failEachCallOf(const std::function<void()>& prepare, const std::function<void()>& act,
                    const std::function<void()>& lookAt);

// Runs `body` until it is killed in front of each call in turn, and `lookAt` behind it, in this process; the last time
// behind a whole run. Returns the number of kills.
long killAtEachCall(const std::function<void()>& body, const std::function<void(const TracedEnd&)>& lookAt);

// A fixture whose tests make calls fail; one whose tests kill at calls. Skipped where that cannot be done.
template <class World>
class CallsFailIn : public World {
protected:
    void SetUp() override {
        if (!canFailCalls()) GTEST_SKIP() << "no child can be traced here, or a checker needs its calls";
        World::SetUp();
    }
};
template <class World>
class KilledIn : public World {
protected:
    void SetUp() override {
        if (!canTrace()) GTEST_SKIP() << "no child can be traced here";
        World::SetUp();
    }
};

} // namespace testsupport
