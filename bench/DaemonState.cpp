#include "bench/DaemonState.h"

#include "config/Configuration.h"
#include "config/FilterCheck.h"
#include "config/FilterIPAddresses.h"
#include "gp/GPLog.h"
#include "platform/HostPaths.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace bench {
namespace {

void makeRoot() {
    const std::string root = scratchFolder() + "/" + std::to_string(getpid());
    for (const char* folder : {"/Library/Logs", "/Library/Preferences"})
        std::filesystem::create_directories(root + folder);
    platform::HostPaths::setRoot(root.c_str());
    std::filesystem::create_directories(platform::HostPaths::logDirectory());
}

} // namespace

const std::string& scratchFolder() {
    static const auto* const folder = [] {
        char path[] = "/tmp/fernhill-bench-XXXXXX";
        if (!mkdtemp(path)) throw std::runtime_error("no folder in /tmp");
        return new std::string(path);
    }();
    return *folder;
}

void removeScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(scratchFolder(), ignored);
}

void becomeDaemon() {
    makeRoot();
    setLogName("fernhill");
    setLogDirectory(platform::HostPaths::logDirectory());
    Configuration::loadConfig();
    FilterCheck::setServerToLocalhost();
    FilterIPAddresses::startIPAddressManager();
    for (int tries = 0; tries < 5000; ++tries) {
        if (FilterIPAddresses* snapshot = FilterIPAddresses::getCurrentIPAddresses()) {
            const bool missing = snapshot->isMissingIPs();
            snapshot->release();
            if (!missing) return;
        }
        usleep(1000);
    }
    throw std::runtime_error("the address of localhost is not found");
}

MovedClock& MovedClock::installed() {
    static auto* clock = [] {
        auto* made = new MovedClock;
        platform::clockService.install(*made);
        return made;
    }();
    return *clock;
}

std::int64_t MovedClock::microseconds() {
    return real_.microseconds() + offset_.load(std::memory_order_relaxed);
}

std::time_t MovedClock::seconds() { return static_cast<std::time_t>(microseconds() / 1000000); }

void MovedClock::sleepMicroseconds(unsigned microseconds) { real_.sleepMicroseconds(microseconds); }

void MovedClock::sleepSeconds(unsigned seconds) { real_.sleepSeconds(seconds); }

std::int64_t MovedClock::eventWaitLimit(int seconds) { return real_.eventWaitLimit(seconds); }

} // namespace bench
