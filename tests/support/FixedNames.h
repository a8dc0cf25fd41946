#pragma once

// A name service that answers every name with the same addresses, of whatever sizes they are.

#include "platform/NameLookup.h"

#include <string>
#include <utility>
#include <vector>

namespace testsupport {

class FixedNames final : public platform::NameLookup {
public:
    explicit FixedNames(std::vector<std::string> addresses) : addresses_(std::move(addresses)) {}

    // Puts this service in force for the rest of the process; it must live as long as it is asked.
    void install() { platform::nameLookupService.install(*this); }

    bool gethostbyname2(const char* name, int, platform::HostEntry& entry) override {
        entry = {name, {}, addresses_};
        return true;
    }
    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, 0, entry);
    }

private:
    const std::vector<std::string> addresses_;
};

} // namespace testsupport
