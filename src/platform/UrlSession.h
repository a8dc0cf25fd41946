#pragma once

// Fetching and sending by URL in the background, with the words of NSURLSession. Unlike the system's own HTTP
// client a session follows redirects, checks certificates with their host names and gives up after a minute
// without a byte.

#include "platform/Service.h"

#include <functional>
#include <string>

namespace platform {

// How a task ended.
struct UrlTaskResult {
    std::string location;             // a download's temporary file; empty when nothing was fetched whole
    long statusCode = 0;              // 0 when there is no response
    std::string localizedDescription; // the error's text; empty when there is no error
};

class UrlSession {
public:
    // Called once for each task, on a thread of the session, or on the caller's when there can be no other.
    // What lies at `location` afterwards is deleted.
    using Completion = std::function<void(const UrlTaskResult&)>;

    // Fetches `url` into a temporary file. Returns at once, also for a text that is no URL, which ends as a
    // task without a response. Any thread.
    virtual void downloadTask(const char* url, Completion completion) = 0;

    // Sends `data` with that method through a session of its own; what comes back is not kept. As above.
    virtual void uploadTask(const char* url, const char* method, const std::string& data,
                            Completion completion) = 0;

    // Lets the session's events run until `seconds` from now; may come back earlier, as when a task has ended.
    // Any thread.
    virtual void runMainLoop(int seconds) = 0;

protected:
    ~UrlSession() = default;
};

extern Service<UrlSession> urlSessionService;

inline UrlSession& urlSession() { return urlSessionService.get(); }

// The last component of the URL's path, with its percent escapes undone; "/" or empty when the path names
// nothing or the text is no URL. Chosen at link time; any thread.
std::string lastPathComponent(const char* url);

} // namespace platform
