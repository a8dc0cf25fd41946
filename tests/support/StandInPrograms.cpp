#include "support/StandInPrograms.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace testsupport {

StandInPrograms::StandInPrograms() {
    const char* path = std::getenv("PATH");
    setenv("PATH", (folder_.path() + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
}

void StandInPrograms::add(const std::string& name, const std::string& commands) {
    addAt(folder_.file(name), commands);
}

void StandInPrograms::addAt(const std::string& path, const std::string& commands,
                            const std::string& recordedAs) {
    const std::string name =
        recordedAs.empty() ? std::filesystem::path(path).filename().string() : recordedAs;
    writeAll(path,
             "#!/bin/sh\necho \"" + name + " $*\" >> '" + folder_.file("calls") + "'\n" + commands + "\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

std::vector<std::string> StandInPrograms::calls() const {
    std::istringstream text(readAll(folder_.file("calls")));
    std::vector<std::string> result;
    for (std::string line; std::getline(text, line);)
        result.push_back(line);
    return result;
}

} // namespace testsupport
