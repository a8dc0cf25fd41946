#include "support/ScratchRoot.h"

#include "platform/HostPaths.h"

#include <filesystem>
#include <stdexcept>

namespace testsupport {

ScratchRoot::ScratchRoot() {
    if (!platform::HostPaths::setRoot(path().c_str())) throw std::runtime_error("root too long: " + path());
    std::filesystem::create_directories(platform::HostPaths::settingsDirectory());
}

std::string ScratchRoot::configurationFile() const { return platform::HostPaths::configurationFile(); }

} // namespace testsupport
