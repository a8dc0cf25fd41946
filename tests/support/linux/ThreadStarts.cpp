#include "support/ThreadStarts.h"

#include <cerrno>

extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
}

namespace testsupport {
namespace {

std::atomic<ThreadStart> played{nullptr};
std::atomic<ThreadRefusal*> inUse{nullptr};

} // namespace

void playThreadStarts(ThreadStart start) { played = start; }

void refuseThreadsBy(ThreadRefusal& refusal) { inUse = &refusal; }

int startThread(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                void* argument) {
    return __real_pthread_create(thread, attributes, function, argument);
}

int startNothing(pthread_t* thread, const pthread_attr_t* attributes, void* (*)(void*), void*) {
    return __real_pthread_create(
        thread, attributes, [](void*) -> void* { return nullptr; }, nullptr);
}

} // namespace testsupport

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) {
    testsupport::ThreadRefusal* refusal = testsupport::inUse;
    if (refusal && refusal->inForce) {
        refusal->meet(function);
        return EAGAIN;
    }
    const testsupport::ThreadStart play = testsupport::played;
    return (play ? play : testsupport::startThread)(thread, attributes, function, argument);
}
