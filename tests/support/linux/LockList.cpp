#include "support/LockList.h"

#include "support/LockCalls.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <stdexcept>

// GPMutex::lock and GPMutex::unlock.
extern "C" {
void __real__ZN7GPMutex4lockEv(GPMutex*);
void __real__ZN7GPMutex6unlockEv(GPMutex*);
void __wrap__ZN7GPMutex4lockEv(GPMutex*);
void __wrap__ZN7GPMutex6unlockEv(GPMutex*);
}

namespace testsupport {

struct LockList::Shared {
    static constexpr int threadRoom = 256;
    static constexpr int depth = 8;
    static constexpr int pairRoom = 4096;

    struct Thread {
        std::atomic<pid_t> number{0};
        std::atomic<const GPMutex*> wanted{nullptr};
        std::atomic<const GPMutex*> held[depth]{}; // in the order of taking, null behind the last
    };
    // `outer` is null for a lock that was taken alone.
    struct Taking {
        std::atomic<const GPMutex*> outer{nullptr};
        std::atomic<const GPMutex*> inner{nullptr}; // stored last
    };

    std::atomic<bool> overflown{false};
    std::atomic<int> threadsUsed{0};
    std::atomic<int> takingsUsed{0};
    Thread threads[threadRoom];
    Taking takings[pairRoom];

    Thread* addThread() {
        const int index = threadsUsed++;
        if (index >= threadRoom) {
            overflown = true;
            return nullptr;
        }
        threads[index].number = static_cast<pid_t>(syscall(SYS_gettid));
        return &threads[index];
    }

    int takingCount() const { return std::min(takingsUsed.load(), pairRoom); }

    // Two threads can note the same at once, which does no harm.
    void note(const GPMutex* outer, const GPMutex* inner) {
        for (int i = 0; i < takingCount(); ++i)
            if (takings[i].inner == inner && takings[i].outer == outer) return;
        const int index = takingsUsed++;
        if (index >= pairRoom) {
            overflown = true;
            return;
        }
        takings[index].outer = outer;
        takings[index].inner = inner;
    }
};

namespace {

// Set in the child alone, whose own children must not write on its list.
std::atomic<pid_t> recordedProcess{0};
std::atomic<void (*)(const GPMutex*)> onWant{nullptr};
std::atomic<void (*)(const GPMutex*)> onTake{nullptr};
std::atomic<void (*)(const GPMutex*)> onFree{nullptr};

bool isRecorded() { return recordedProcess == getpid(); }

} // namespace

LockList::LockList() {
    void* memory = mmap(nullptr, sizeof *shared_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
    shared_ = new (memory) Shared;
}

void LockList::record() {
    static Shared* const shared = shared_;
    static thread_local Shared::Thread* thread = nullptr;
    static const auto own = [] { return thread ? thread : thread = shared->addThread(); };
    onWant = [](const GPMutex* mutex) {
        if (Shared::Thread* self = own()) self->wanted = mutex;
    };
    onTake = [](const GPMutex* mutex) {
        Shared::Thread* self = own();
        if (!self) return;
        self->wanted = nullptr;
        shared->note(nullptr, mutex);
        int place = 0;
        for (; place < Shared::depth && self->held[place]; ++place)
            shared->note(self->held[place], mutex);
        if (place < Shared::depth)
            self->held[place] = mutex;
        else
            shared->overflown = true;
    };
    onFree = [](const GPMutex* mutex) {
        Shared::Thread* self = own();
        int place = 0;
        while (self && place < Shared::depth && self->held[place] != mutex)
            ++place;
        for (; self && place < Shared::depth; ++place)
            self->held[place] = place + 1 < Shared::depth ? self->held[place + 1].load() : nullptr;
    };
    recordedProcess = getpid();
}

std::map<const GPMutex*, pid_t> LockList::held() const {
    std::map<const GPMutex*, pid_t> result;
    for (const Shared::Thread& thread : shared_->threads)
        for (const auto& mutex : thread.held)
            if (const GPMutex* one = mutex) result[one] = thread.number;
    return result;
}

std::set<pid_t> LockList::waitingFor(const GPMutex* mutex) const {
    std::set<pid_t> result;
    for (const Shared::Thread& thread : shared_->threads)
        if (thread.wanted == mutex) result.insert(thread.number);
    return result;
}

std::set<const GPMutex*> LockList::taken() const {
    std::set<const GPMutex*> result;
    for (int i = 0; i < shared_->takingCount(); ++i)
        if (const GPMutex* mutex = shared_->takings[i].inner) result.insert(mutex);
    return result;
}

std::set<LockList::Pair> LockList::heldTogether() const {
    std::set<Pair> result;
    for (int i = 0; i < shared_->takingCount(); ++i) {
        const Shared::Taking& taking = shared_->takings[i];
        if (taking.inner && taking.outer) result.emplace(taking.outer, taking.inner);
    }
    return result;
}

bool LockList::isComplete() const { return !shared_->overflown; }

} // namespace testsupport

void __wrap__ZN7GPMutex4lockEv(GPMutex* mutex) {
    using namespace testsupport;
    const bool recorded = isRecorded();
    if (recorded) onWant.load()(mutex);
    noteLockWanted(mutex);
    __real__ZN7GPMutex4lockEv(mutex);
    noteLockTaken(mutex);
    if (recorded) onTake.load()(mutex);
}

void __wrap__ZN7GPMutex6unlockEv(GPMutex* mutex) {
    using namespace testsupport;
    if (isRecorded()) onFree.load()(mutex);
    noteLockFreed(mutex);
    __real__ZN7GPMutex6unlockEv(mutex);
}
