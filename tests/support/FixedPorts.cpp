#include "support/FixedPorts.h"

#include "support/OwnNetwork.h"

#include <sys/file.h>

#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace testsupport {
namespace {

void takeMachineLock() {
    const std::string path = (std::filesystem::temp_directory_path() / "ostler-fixed-ports.lock").string();
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0 || flock(file, LOCK_EX) != 0) throw std::runtime_error("no lock at " + path);
}

} // namespace

void claimFixedPorts() {
    static const bool claimed = [] {
        if (!enterOwnNetwork()) takeMachineLock();
        return true;
    }();
    static_cast<void>(claimed);
}

} // namespace testsupport
