// Threads and their own values. Most of these calls answer the Mac's error numbers.

#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Forks.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/ThreadLayouts.h"
#include "machost/world/ThreadNotes.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdint>
#include <memory>

namespace machost::libsystem {
namespace {

// What a thread has for its stack on the Mac, and room for what this system's libraries need on top.
constexpr std::size_t stackSize = 512 * 1024 + 512 * 1024;

struct Started {
    void* (*run)(void*);
    void* argument;
};

void* runNoted(void* given) {
    const std::unique_ptr<Started> started(static_cast<Started*>(given));
    world::noteThreadStart(reinterpret_cast<const void*>(started->run));
    void* result = started->run(started->argument);
    world::noteThreadEnd();
    return result;
}

int playedCreate(pthread_t* thread, const mac::ThreadAttributes* attributes, void* (*run)(void*),
                 void* argument) {
    if (attributes) return macError(EINVAL); // no call that makes attributes is played
    pthread_attr_t own;
    pthread_attr_init(&own);
    pthread_attr_setstacksize(&own, stackSize);
    auto started = std::make_unique<Started>(Started{run, argument});
    const int error = pthread_create(thread, &own, runNoted, started.get());
    if (error == 0) static_cast<void>(started.release());
    pthread_attr_destroy(&own);
    return macError(error);
}

int playedJoin(pthread_t thread, void** result) { return macError(pthread_join(thread, result)); }
int playedDetach(pthread_t thread) { return macError(pthread_detach(thread)); }

// The numbers of threads are this system's; the program shows them and compares them, no more.
int playedThreadId(pthread_t thread, std::uint64_t* number) {
    if (!number || (thread && !pthread_equal(thread, pthread_self()))) return macError(EINVAL);
    *number = static_cast<std::uint64_t>(gettid());
    return 0;
}

std::uint32_t playedMachThread(pthread_t) { return static_cast<std::uint32_t>(gettid()); }

int playedKeyCreate(unsigned long* key, void (*destroy)(void*)) {
    pthread_key_t made = 0;
    const int error = pthread_key_create(&made, destroy);
    *key = made + 1UL; // none of the Mac's keys is zero
    return macError(error);
}

pthread_key_t hostKey(unsigned long key) { return static_cast<pthread_key_t>(key - 1); }

int playedKeyDelete(unsigned long key) { return macError(pthread_key_delete(hostKey(key))); }
void* playedGet(unsigned long key) { return pthread_getspecific(hostKey(key)); }
int playedSet(unsigned long key, const void* value) {
    return macError(pthread_setspecific(hostKey(key), value));
}

int playedAtFork(void (*before)(), void (*inParent)(), void (*inChild)()) {
    prepareForks();
    return macError(pthread_atfork(before, inParent, inChild));
}

} // namespace

const ImportTable& threadImports() {
    constexpr const char* source = "pthread.c of libpthread";
    static const auto& table = *new ImportTable{
        function("_pthread_create", playedCreate, source),
        function("_pthread_join", playedJoin, source),
        function("_pthread_detach", playedDetach, source),
        function("_pthread_self", &pthread_self, source),
        function("_pthread_equal", &pthread_equal, source),
        function("_pthread_threadid_np", playedThreadId, source),
        function("_pthread_mach_thread_np", playedMachThread, source),
        function("_pthread_key_create", playedKeyCreate, "pthread_tsd.c of libpthread"),
        function("_pthread_key_delete", playedKeyDelete, "pthread_tsd.c of libpthread"),
        function("_pthread_getspecific", playedGet, "pthread_tsd.c of libpthread"),
        function("_pthread_setspecific", playedSet, "pthread_tsd.c of libpthread"),
        function("_pthread_atfork", playedAtFork, "pthread_atfork.c of libpthread"),
        function("_sched_yield", &sched_yield, "sched_yield of libpthread"),
    };
    return table;
}

} // namespace machost::libsystem
