#pragma once

// Removing and moving files as NSFileManager does it, with its answers.

#include "platform/Service.h"

#include <string>

namespace platform {

// Error codes, NSFile…Error.
constexpr long fileNoSuchFileError = 4;
constexpr long fileWriteUnknownError = 512;
constexpr long fileWriteNoPermissionError = 513;
constexpr long fileWriteInvalidFileNameError = 514;
constexpr long fileWriteFileExistsError = 516;
constexpr long fileWriteOutOfSpaceError = 640;
constexpr long fileWriteVolumeReadOnlyError = 642;

struct FileResult {
    bool done = false;
    long code = 0;      // the error's code unless it was done
    std::string raised; // the text of an exception of string type that ended the operation; else empty
};

class FileManager {
public:
    // Removes a file, a link, or a folder with all that is in it. Any thread.
    virtual FileResult removeItem(const char* path) = 0;

    // Moves a file, to another volume if need be. Fails when something is at `to`. Any thread.
    virtual FileResult moveItem(const char* from, const char* to) = 0;

protected:
    ~FileManager() = default;
};

extern Service<FileManager> fileManagerService;

inline FileManager& fileManager() { return fileManagerService.get(); }

} // namespace platform
