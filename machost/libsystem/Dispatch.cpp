// What the program uses of libdispatch: counting semaphores, and blocks that run some time on another thread.

#include "machost/Block.h"
#include "machost/libsystem/Library.h"
#include "machost/objects/Object.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace machost::libsystem {
namespace {

constexpr std::uint64_t forever = ~std::uint64_t{0};
constexpr std::uint64_t atOnce = 0;

// The count below zero is the number of threads that wait.
class Semaphore {
public:
    explicit Semaphore(long count) : original_(count), count_(count) {}

    // Whether a thread was woken.
    long signal() {
        const std::lock_guard<std::mutex> guard(lock_);
        if (++count_ > 0) return 0;
        ++wakes_;
        woken_.notify_one();
        return 1;
    }

    void wait() {
        std::unique_lock<std::mutex> guard(lock_);
        if (--count_ >= 0) return;
        woken_.wait(guard, [&] { return wakes_ > 0; });
        --wakes_;
    }

    bool tryWait() {
        const std::lock_guard<std::mutex> guard(lock_);
        if (count_ <= 0) return false;
        --count_;
        return true;
    }

    bool inUse() {
        const std::lock_guard<std::mutex> guard(lock_);
        return count_ < original_;
    }

private:
    const long original_;
    std::mutex lock_;
    std::condition_variable woken_;
    long count_;
    long wakes_ = 0;
};

Semaphore* playedCreate(long count) { return count < 0 ? nullptr : new Semaphore(count); }

long playedSignal(Semaphore* semaphore) { return semaphore->signal(); }

long playedWait(Semaphore* semaphore, std::uint64_t limit) {
    if (limit == forever) {
        semaphore->wait();
        return 0;
    }
    if (limit == atOnce) return semaphore->tryWait() ? 0 : 49;
    __builtin_trap(); // a wait with a limit is not played
}

// A semaphore that is still held, its count below the one that it was made with, is a fault that ends the process
// there and here.
void playedRelease(Semaphore* semaphore) {
    if (semaphore->inUse()) __builtin_trap();
    delete semaphore;
}

const Class queueClass{&classOfClasses, &rootClass, {}, nullptr, "OS_dispatch_queue_global", nullptr};

// An object of Objective-C, too, that programs retain and release; nobody owns it.
void* playedGlobalQueue(long, unsigned long) {
    static const Class* queue = &queueClass;
    declareConstantClass(queueClass);
    return &queue;
}

// Every block has a thread of its own: what runs at the same time there may run at the same time here.
void playedAsync(void*, const Block* block) {
    Block* copy = copyBlock(block);
    std::thread([copy] {
        callBlock(copy);
        releaseBlock(copy);
    }).detach();
}

} // namespace

const ImportTable& dispatchImports() {
    constexpr const char* semaphore = "semaphore.c of libdispatch";
    constexpr const char* queue = "queue.c of libdispatch, without its limit on threads";
    static const auto& table = *new ImportTable{
        function("_dispatch_semaphore_create", playedCreate, semaphore),
        function("_dispatch_semaphore_signal", playedSignal, semaphore),
        function("_dispatch_semaphore_wait", playedWait, semaphore),
        function("_dispatch_release", playedRelease, semaphore),
        function("_dispatch_get_global_queue", playedGlobalQueue, queue),
        function("_dispatch_async", playedAsync, queue),
    };
    return table;
}

} // namespace machost::libsystem
