#include "support/ThreadList.h"

#include "lab/WorldAnswers.h"
#include "support/ProgramSymbols.h"
#include "support/ShippedProgram.h"
#include "support/ThreadStarts.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <new>
#include <stdexcept>

namespace testsupport {

struct ThreadList::Shared {
    static constexpr int room = 256;

    struct Entry {
        std::atomic<std::uintptr_t> function{0};
        std::atomic<pid_t> number{0}; // 0 before the thread runs and after its end
    };
    std::atomic<int> used{0};
    Entry entries[room];

    Entry* add(std::uintptr_t function) {
        const int index = used++;
        if (index >= room) return nullptr;
        entries[index].function = function;
        return &entries[index];
    }
};

namespace {

// What stands for main's address: that function is the test program's.
constexpr std::uintptr_t mainThread = 1;

// Set in the child alone. The entry is a pointer to one of a private type.
std::atomic<void* (*)(std::uintptr_t)> addEntry{nullptr};
std::atomic<void (*)(void*, pid_t)> setNumber{nullptr};

struct Started {
    void* (*function)(void*);
    void* argument;
    void* entry;
};

pid_t ownNumber() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void* runRecorded(void* started) {
    const std::unique_ptr<Started> thread(static_cast<Started*>(started));
    setNumber.load()(thread->entry, ownNumber());
    void* result = thread->function(thread->argument);
    setNumber.load()(thread->entry, 0);
    return result;
}

int startRecorded(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                  void* argument) {
    void* entry = addEntry.load()(reinterpret_cast<std::uintptr_t>(function));
    auto* started = new Started{function, argument, entry};
    const int result = startThread(thread, attributes, runRecorded, started);
    if (result != 0) delete started;
    return result;
}

} // namespace

ThreadList::ThreadList() {
    void* memory = mmap(nullptr, sizeof *shared_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
    shared_ = new (memory) Shared;
}

void ThreadList::record() {
    static Shared* const shared = shared_;
    const auto noteThread = [](int number, std::uint64_t function) {
        if (function != 0) {
            if (Shared::Entry* entry = shared->add(function)) entry->number = number;
            return;
        }
        for (Shared::Entry& entry : shared->entries)
            if (entry.number == number) entry.number = 0;
    };
    setNumber = [](void* entry, pid_t number) {
        if (entry) static_cast<Shared::Entry*>(entry)->number = number;
    };
    setNumber.load()(shared->add(mainThread), ownNumber());
    addEntry = [](std::uintptr_t function) -> void* { return shared->add(function); };
    playThreadStarts(startRecorded);
    // The Mac's program tells the world of its threads itself.
    if (!macProgram().empty()) lab::observeThreads(noteThread);
}

std::vector<ThreadList::Thread> ThreadList::living() const {
    if (functions_.empty())
        functions_ = macProgram().empty() ? programFunctions() : macProgramFunctions(macProgram());
    std::vector<Thread> threads;
    for (int i = 0; i < std::min(shared_->used.load(), Shared::room); ++i) {
        const Shared::Entry& entry = shared_->entries[i];
        if (const pid_t number = entry.number)
            threads.push_back({number, entry.function == mainThread ? "main" : functions_[entry.function]});
    }
    return threads;
}

std::string ThreadList::waitOf(pid_t process, pid_t thread) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/syscall");
    std::string call;
    if (!(file >> call)) return "unknown";
    if (call == "running") return "nothing";
    switch (std::atol(call.c_str())) {
        case SYS_open:
        case SYS_openat:
            return "open";
        case SYS_read:
            return "run loop";
        case SYS_recvfrom:
            return "recv";
#ifdef SYS_pause
        case SYS_pause:
#endif
        case SYS_rt_sigsuspend:
            return "signal";
        case SYS_nanosleep:
        case SYS_clock_nanosleep:
            return "sleep";
        case SYS_epoll_wait:
        case SYS_epoll_pwait:
        case SYS_poll:
        case SYS_ppoll:
            return "event queue";
        case SYS_futex:
            return "semaphore";
        default:
            return "something else";
    }
}

} // namespace testsupport
