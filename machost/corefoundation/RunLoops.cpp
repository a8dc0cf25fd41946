#include "machost/corefoundation/RunLoops.h"

#include "machost/corefoundation/Library.h"
#include "machost/corefoundation/Values.h"
#include "machost/objc/Messages.h"
#include "machost/world/Clock.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace machost::corefoundation {
namespace {

struct Source {
    std::function<void()> perform;
    bool signalled = false;
    bool valid = true;
};

struct Loop {
    std::vector<Held> sources;
};

extern const Class sourceClass, loopClass;

// Guards all loops and sources, which are few and rarely change.
struct Shared {
    std::mutex lock;
    std::condition_variable changed;
};

Shared& shared() {
    static auto& one = *new Shared;
    return one;
}

// A thread's loop is made when it is first asked for and goes with the thread; nobody owns it.
Held& currentLoop() {
    static thread_local Held loop = Held::adopt(createObject<Loop>(loopClass));
    return loop;
}

ObjectRef playedGetCurrent() { return currentLoop().get(); }

void playedAddSource(ObjectRef loop, ObjectRef source, const void*) {
    const std::lock_guard<std::mutex> guard(shared().lock);
    auto& sources = valueOf<Loop>(loop).sources;
    const bool there =
        std::any_of(sources.begin(), sources.end(), [&](const Held& held) { return held.get() == source; });
    if (!there && valueOf<Source>(source).valid) sources.push_back(Held::retain(source));
    shared().changed.notify_all();
}

void playedRemoveSource(ObjectRef loop, ObjectRef source, const void*) {
    Held removed;
    const std::lock_guard<std::mutex> guard(shared().lock);
    auto& sources = valueOf<Loop>(loop).sources;
    const auto found =
        std::find_if(sources.begin(), sources.end(), [&](const Held& held) { return held.get() == source; });
    if (found == sources.end()) return;
    removed = std::move(*found);
    sources.erase(found);
    shared().changed.notify_all();
}

void playedInvalidate(ObjectRef source) {
    const std::lock_guard<std::mutex> guard(shared().lock);
    valueOf<Source>(source).valid = false;
    shared().changed.notify_all();
}

// The loop's next signalled source; invalid ones fall out. Held, so that what it performs may remove it.
Held takeSignalled(Loop& loop) {
    auto& sources = loop.sources;
    sources.erase(std::remove_if(sources.begin(), sources.end(),
                                 [](const Held& held) { return !valueOf<Source>(held.get()).valid; }),
                  sources.end());
    for (const Held& held : sources) {
        auto& source = valueOf<Source>(held.get());
        if (!source.signalled) continue;
        source.signalled = false;
        return Held::retain(held.get());
    }
    return {};
}

using RealTime = std::chrono::steady_clock::time_point;

// Runs this thread's loop up to that time; without sources it comes back at once.
void run(RealTime until) {
    auto& loop = valueOf<Loop>(currentLoop().get());
    std::unique_lock<std::mutex> guard(shared().lock);
    for (;;) {
        const Held next = takeSignalled(loop);
        if (loop.sources.empty() && !next.get()) return;
        if (next.get()) {
            guard.unlock();
            valueOf<Source>(next.get()).perform();
            guard.lock();
        } else if (until == RealTime::max()) {
            shared().changed.wait(guard);
        } else if (shared().changed.wait_until(guard, until) == std::cv_status::timeout) {
            return;
        }
    }
}

void playedRun() { run(RealTime::max()); }

// Whichever loop is asked, it is the caller's that runs.
ObjectRef mainRunLoop(ObjectRef, objc::Selector) { return currentLoop().get(); }

void runUntilDate(ObjectRef, objc::Selector, const void* date) {
    const std::int64_t left = world::eventLimit(microsecondsUntil(date));
    if (left > 0) run(std::chrono::steady_clock::now() + std::chrono::microseconds(left));
}

const Class sourceClass{nullptr, nullptr, {}, nullptr, "CFRunLoopSource", destroyValue<Source>};
const Class loopClass{&classOfClasses, &rootClass, {}, nullptr, "CFRunLoop", destroyValue<Loop>};

} // namespace

ObjectRef makeSource(std::function<void()> perform) {
    return createObject<Source>(sourceClass, std::move(perform));
}

void signalSource(ObjectRef source) {
    const std::lock_guard<std::mutex> guard(shared().lock);
    valueOf<Source>(source).signalled = true;
    shared().changed.notify_all();
}

const ImportTable& runLoopImports() {
    constexpr const char* source = "CFRunLoop.c of CF, its default mode";
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_NSRunLoop", &loopClass, "NSRunLoop.h"),
        function("_CFRunLoopGetCurrent", playedGetCurrent, source),
        function("_CFRunLoopAddSource", playedAddSource, source),
        function("_CFRunLoopRemoveSource", playedRemoveSource, source),
        function("_CFRunLoopSourceInvalidate", playedInvalidate, source),
        function("_CFRunLoopRun", playedRun, source),
    };
    return table;
}

const objc::PlayedClass& playedLoopClass() {
    static const auto& played = *new objc::PlayedClass{&loopClass,
                                                       "NSRunLoop.h and CFRunLoop.c of CF",
                                                       {objc::method("mainRunLoop", mainRunLoop)},
                                                       {objc::method("runUntilDate:", runUntilDate)}};
    return played;
}

} // namespace machost::corefoundation
