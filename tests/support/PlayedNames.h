#pragma once

// A name service of the test's own: it knows the names that the test tells it, and no others.

#include "platform/NameLookup.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

class PlayedNames final : public platform::NameLookup {
public:
    // Puts this service in force for the rest of the process.
    void install() { platform::nameLookupService.install(*this); }

    // Answers `name` in that family (AF_INET or AF_INET6) with the addresses, given in printed form.
    void answer(const std::string& name, int family, const std::vector<std::string>& addresses,
                const std::vector<std::string>& aliases = {});

    // Takes the name out of that family again.
    void forget(const std::string& name, int family);

    // From now on a look-up of the name blocks its thread, until it is answered again if ever. This object must then
    // outlive the test.
    void neverAnswer(const std::string& name);
    void answerAgain(const std::string& name);

    // The names asked for so far, in order.
    std::vector<std::string> asked() const;

    bool gethostbyname2(const char* name, int family, platform::HostEntry& entry) override;
    bool gethostbyname(const char* name, platform::HostEntry& entry) override;

private:
    mutable std::mutex mutex_;
    std::condition_variable answered_;
    std::set<std::string> unanswered_;
    std::map<std::pair<std::string, int>, platform::HostEntry> entries_;
    std::vector<std::string> asked_;
};

} // namespace testsupport
