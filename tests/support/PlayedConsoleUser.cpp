#include "support/PlayedConsoleUser.h"

#include "support/Patience.h"

#include <cstring>

namespace testsupport {

void PlayedConsoleUser::seat(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    name_ = name;
}

void PlayedConsoleUser::leave() {
    std::lock_guard<std::mutex> lock(mutex_);
    name_.reset();
}

void PlayedConsoleUser::notify() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++notices_;
    moved_.notify_all();
}

bool PlayedConsoleUser::waitUntilDelivered() {
    std::unique_lock<std::mutex> lock(mutex_);
    return moved_.wait_for(lock, patience, [&] { return waits_ && notices_ == 0; });
}

void PlayedConsoleUser::endLoop() {
    std::lock_guard<std::mutex> lock(mutex_);
    ends_ = true;
    moved_.notify_all();
}

std::string PlayedConsoleUser::sessionName() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sessionName_;
}

int PlayedConsoleUser::sessions() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sessions_;
}

bool PlayedConsoleUser::hasLooped() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return looped_;
}

int PlayedConsoleUser::asked() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return asked_;
}

bool PlayedConsoleUser::copyName(char* buffer, std::size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++asked_;
    if (!name_ || name_->size() >= size) return false;
    std::memcpy(buffer, name_->c_str(), name_->size() + 1);
    return true;
}

platform::ConsoleUser::Watch* PlayedConsoleUser::create(const char* name, Callback changed) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (refuses_) return nullptr;
    sessionName_ = name;
    changed_ = changed;
    ++sessions_;
    return reinterpret_cast<Watch*>(this);
}

void PlayedConsoleUser::run(Watch* watch) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        waits_ = true;
        looped_ = true;
        moved_.notify_all();
        moved_.wait(lock, [&] { return notices_ > 0 || ends_; });
        waits_ = false;
        if (notices_ == 0) return;
        lock.unlock();
        changed_(watch, nullptr, nullptr);
        lock.lock();
        --notices_;
    }
}

void PlayedConsoleUser::release(Watch*) {
    std::lock_guard<std::mutex> lock(mutex_);
    --sessions_;
    moved_.notify_all();
}

} // namespace testsupport
