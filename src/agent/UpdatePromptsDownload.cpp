#include "agent/UpdatePrompts.h"

#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "platform/FileManager.h"
#include "platform/HostPaths.h"
#include "platform/UrlSession.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

using platform::FileResult;
using platform::UrlTaskResult;

std::atomic<std::uint8_t> runTask{1};

namespace {

// Whether it names one file inside of a folder. Anything else would have a whole folder removed.
bool isFileName(const std::string& name) {
    if (name.empty() || name == "." || name == "..") return false;
    return name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

// Puts a fetched file into the place of what the URL names.
FileResult takeOver(const std::string& location, const char* url) {
    const std::string name = platform::lastPathComponent(url);
    if (!isFileName(name)) return {false, platform::fileWriteInvalidFileNameError, {}};
    const std::string destination = platform::HostPaths::updateDirectory() + name;
    const FileResult removed = platform::fileManager().removeItem(destination.c_str());
    if (!removed.raised.empty()) return removed;
    return platform::fileManager().moveItem(location.c_str(), destination.c_str());
}

// The part that runs on the session's thread. Asks for the status alone: a transfer that broke
// off behind its status line fails at the move. True when the file is in its place.
bool finishDownload(const UrlTaskResult& result, const char* url) {
    if (result.statusCode < 200 || result.statusCode > 299) {
        const std::string& text = result.localizedDescription;
        logf("downloadFileFromUrl server error: %s", text.empty() ? "(null)" : text.c_str());
        return false;
    }
    const FileResult moved = takeOver(result.location, url);
    if (!moved.raised.empty())
        logf("downloadFileFromUrl server error: %s", moved.raised.c_str());
    else if (!moved.done)
        logf("downloadFileFromUrl server error: %ld", moved.code);
    return moved.done;
}

} // namespace

bool downloadFileFromUrl(const char* url) {
    // Shared, since another download's end can let the waiter go before its own completion has run.
    const auto failed = std::make_shared<std::atomic<bool>>(false);
    runTask = 1;
    platform::urlSession().downloadTask(url,
                                        [failed, address = std::string(url)](const UrlTaskResult& result) {
                                            if (!finishDownload(result, address.c_str())) *failed = true;
                                            runTask = 0;
                                        });
    while (runTask == 1)
        platform::urlSession().runMainLoop(1);
    if (Configuration::isLogLevel(1)) logf("downloadFileFromUrl downloaded file: %s", url);
    return !*failed;
}
