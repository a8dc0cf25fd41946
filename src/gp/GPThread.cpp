#include "gp/GPThread.h"

#include "gp/Owned.h"

#include <utility>

std::atomic<std::uint8_t> threadKeepGoing{1};

GPThread::GPThread() = default;

GPThread::GPThread(void* (*function)(void*)) : function_(function) {}

GPThread::~GPThread() { cleanup(); }

void GPThread::setFunction(void* (*function)(void*)) { function_ = function; }

int GPThread::start(void* arg) {
    int result;
    {
        std::lock_guard<std::mutex> lock(handleGuard_);
        dropHandle();
        handle_ = new pthread_t{};
        result = pthread_create(handle_, nullptr, function_, arg);
        if (result != 0) *handle_ = pthread_t{};
    }
    // After the creation and without a look at its result, by rule: a thread that has cleared the flag by now leaves
    // it set for good. The pool's workers therefore wait for it.
    setRunning(true);
    return result;
}

void GPThread::wait() {
    pthread_t thread;
    {
        std::lock_guard<std::mutex> lock(handleGuard_);
        thread = takeThread();
    }
    if (thread != pthread_t{}) pthread_join(thread, nullptr);
}

void GPThread::cleanup() {
    std::lock_guard<std::mutex> lock(handleGuard_);
    dropHandle();
}

pthread_t GPThread::takeThread() {
    pthread_t thread{};
    if (handle_) std::swap(thread, *handle_);
    return thread;
}

void GPThread::dropHandle() {
    const pthread_t thread = takeThread();
    if (thread != pthread_t{}) pthread_detach(thread);
    delete handle_;
    handle_ = nullptr;
}

void GPThread::taskOnBackground(void* (*function)(void*), void* arg) {
    const auto thread = Owned<GPThread>::adopt(new GPThread(function));
    thread->start(arg);
}

void GPThread::addLocalThreadValue(unsigned long& key, void* value) {
    if (key == 0) {
        pthread_key_t made{};
        if (pthread_key_create(&made, globalDestructor) != 0) return;
        if (made == 0) {
            // Zero means that there is no key yet, so it cannot serve as one.
            const pthread_key_t zero = made;
            const bool another = pthread_key_create(&made, globalDestructor) == 0;
            pthread_key_delete(zero);
            if (!another) return;
        }
        key = made;
    }
    pthread_setspecific(static_cast<pthread_key_t>(key), value);
}

void* GPThread::getLocalThreadValue(unsigned long key) {
    if (key == 0) return nullptr;
    return pthread_getspecific(static_cast<pthread_key_t>(key));
}

void GPThread::releaseLocalValue(unsigned long) {}

void GPThread::globalDestructor(void* value) { delete static_cast<GPObject*>(value); }
