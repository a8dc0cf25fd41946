#include "support/PlayedNames.h"

#include <arpa/inet.h>
#include <stdexcept>

namespace testsupport {

void PlayedNames::answer(const std::string& name, int family, const std::vector<std::string>& addresses,
                         const std::vector<std::string>& aliases) {
    platform::HostEntry entry;
    entry.officialName = "official." + name;
    entry.aliases = aliases;
    for (const std::string& address : addresses) {
        char bytes[16];
        if (inet_pton(family, address.c_str(), bytes) != 1) throw std::invalid_argument(address);
        entry.addresses.emplace_back(bytes, family == AF_INET ? 4 : 16);
    }
    std::lock_guard lock(mutex_);
    entries_[{name, family}] = entry;
}

void PlayedNames::forget(const std::string& name, int family) {
    std::lock_guard lock(mutex_);
    entries_.erase({name, family});
}

void PlayedNames::neverAnswer(const std::string& name) {
    std::lock_guard lock(mutex_);
    unanswered_.insert(name);
}

void PlayedNames::answerAgain(const std::string& name) {
    std::lock_guard lock(mutex_);
    unanswered_.erase(name);
    answered_.notify_all();
}

std::vector<std::string> PlayedNames::asked() const {
    std::lock_guard lock(mutex_);
    return asked_;
}

bool PlayedNames::gethostbyname2(const char* name, int family, platform::HostEntry& entry) {
    std::unique_lock lock(mutex_);
    asked_.emplace_back(name);
    while (unanswered_.count(name) != 0)
        answered_.wait(lock);
    const auto known = entries_.find({name, family});
    if (known == entries_.end()) return false;
    entry = known->second;
    return true;
}

bool PlayedNames::gethostbyname(const char* name, platform::HostEntry& entry) {
    return gethostbyname2(name, AF_INET, entry);
}

} // namespace testsupport
