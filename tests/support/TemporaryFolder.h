#pragma once

// A folder of the test's own, removed with all that is in it at the end of the scope.

#include <string>
#include <sys/types.h>

namespace testsupport {

class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }

    // The path of `name` inside the folder.
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// The whole content of a file; empty when it cannot be read.
std::string readAll(const std::string& path);

// Writes a file anew, with the folders above it.
void writeAll(const std::string& path, const std::string& content);

// The volume that the path lies on; 0 for one that cannot be looked at.
dev_t volumeOf(const std::string& path);

} // namespace testsupport
