#pragma once

// The numbers that questions come under, and which of them share one. The daemon draws numbers without a lock, so two
// questions can have the same: then both answers may go to one of them, and the other waits for ever.

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace lab {

// Any thread may call any operation.
class DrawnNumbers {
public:
    // Notes the number that a question came under.
    void note(std::uint32_t number, long question) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto [first, fresh] = firstOf_.emplace(number, question);
        if (!fresh) shared_.insert({first->second, question});
    }

    // The questions since the last call whose number another had too, in their order.
    std::vector<long> takeShared() {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::vector<long> shared(shared_.begin(), shared_.end());
        firstOf_.clear();
        shared_.clear();
        return shared;
    }

private:
    std::mutex mutex_;
    std::map<std::uint32_t, long> firstOf_;
    std::set<long> shared_;
};

} // namespace lab
