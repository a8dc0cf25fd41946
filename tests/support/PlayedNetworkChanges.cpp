#include "support/PlayedNetworkChanges.h"

#include "support/Patience.h"

namespace testsupport {

void PlayedNetworkChanges::change() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++ahead_;
    moved_.notify_all();
}

bool PlayedNetworkChanges::waitUntilDelivered() {
    std::unique_lock<std::mutex> lock(mutex_);
    return moved_.wait_for(lock, patience, [&] { return waits_ && ahead_ == 0; });
}

std::string PlayedNetworkChanges::name() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return name_;
}

int PlayedNetworkChanges::created() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return created_;
}

int PlayedNetworkChanges::released() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return released_;
}

platform::NetworkChanges::Watch* PlayedNetworkChanges::create(const char* name, void (*changed)(),
                                                              int& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++created_;
    name_ = name;
    changed_ = changed;
    error = refuses_ ? 1001 : 0;
    return refuses_ ? nullptr : reinterpret_cast<Watch*>(this);
}

void PlayedNetworkChanges::run(Watch*) {
    std::unique_lock<std::mutex> lock(mutex_);
    waits_ = true;
    moved_.notify_all();
    moved_.wait(lock, [&] { return ahead_ > 0; });
    waits_ = false;
    --ahead_;
    lock.unlock();
    changed_();
}

void PlayedNetworkChanges::release(Watch*) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++released_;
}

} // namespace testsupport
