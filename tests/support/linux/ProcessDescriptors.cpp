#include "support/ProcessDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <sstream>
#include <system_error>

namespace testsupport {

DescriptorList readDescriptors(const std::string& output) {
    const std::string arrow = " -> ";
    DescriptorList list;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t at = line.find(arrow);
        if (at == std::string::npos) continue;
        const std::string target = line.substr(at + arrow.size());
        if (target.rfind("/proc/", 0) == 0) continue;
        list[std::stoi(line.substr(line.rfind(' ', at - 1) + 1))] = target;
    }
    return list;
}

DescriptorList descriptorsOf(pid_t process) {
    namespace fs = std::filesystem;
    DescriptorList list;
    std::error_code gone;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd", gone)) {
        const std::string target = fs::read_symlink(entry.path(), gone);
        if (!gone) list[std::stoi(entry.path().filename())] = target;
    }
    return list;
}

DescriptorList handedDown() {
    DescriptorList list = descriptorsOf(getpid());
    for (auto entry = list.begin(); entry != list.end();) {
        const int flags = fcntl(entry->first, F_GETFD);
        entry = flags < 0 || (flags & FD_CLOEXEC) != 0 ? list.erase(entry) : std::next(entry);
    }
    return list;
}

void closeInheritedDescriptors() { closefrom(3); }

} // namespace testsupport
