#pragma once

// One transfer through libcurl, on the calling thread, to its end. An object serves one thread and one
// transfer.

#include "platform/UrlSession.h"
#include "platform/linux/CurlLibrary.h"

#include <cstdint>
#include <string>

namespace platform {

class UrlTransfer {
public:
    explicit UrlTransfer(const char* url);
    ~UrlTransfer();

    UrlTransfer(const UrlTransfer&) = delete;
    UrlTransfer& operator=(const UrlTransfer&) = delete;

    // Fetches the URL into a temporary file, whose path the result has and which the caller deletes.
    UrlTaskResult download();

    // Sends the data and reads the answer without keeping it.
    UrlTaskResult upload(const char* method, const std::string& data);

private:
    // Why nothing can be transferred; empty when it can.
    std::string obstacle() const;

    // Runs the transfer. The result's location is left empty.
    UrlTaskResult perform();
    CURLcode performOn(CURLM* multi);
    bool isIdleTooLong();

    std::string libraryError_; // why there is no library; empty with one
    const CurlLibrary* curl_;  // null without it; then there is no handle and no URL either
    CURL* handle_;
    CURLU* url_; // null for a text that is no URL with a scheme
    char errorText_[CURL_ERROR_SIZE] = {};
    curl_off_t movedBytes_ = -1;       // as of lastMove_
    std::int64_t lastMove_ = 0;        // microseconds
    std::int64_t longestIdleTime_ = 0; // microseconds
};

} // namespace platform
