#pragma once

// A host and a home that the test names. Used by one thread.

#include "platform/HostName.h"

#include <optional>
#include <string>

namespace testsupport {

class PlayedHostName final : public platform::HostName {
public:
    // Puts this service in force for the rest of the process; it must live as long.
    void install() { platform::hostNameService.install(*this); }

    std::optional<std::string> currentHostName() override { return host; }
    std::string homeDirectory() override { return home; }

    std::optional<std::string> host = "mac01.local";
    std::string home = "/Users/alice";
};

} // namespace testsupport
