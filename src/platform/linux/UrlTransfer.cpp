#include "platform/linux/UrlTransfer.h"

#include "platform/Clock.h"
#include "platform/ClosedOnExec.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr int idleSeconds = 60;
constexpr long mostRedirects = 16;
constexpr int longestPoll = 1000; // milliseconds

std::int64_t monotonicMicroseconds() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

CURL* newHandle(const CurlLibrary* curl) {
    if (!curl) return nullptr;
    static const CURLcode ready = curl->globalInit(CURL_GLOBAL_DEFAULT);
    return ready == CURLE_OK ? curl->easyInit() : nullptr;
}

// Takes a URL apart; null for a text without a scheme, which would be taken for a host.
CURLU* newUrl(const CurlLibrary* curl, const char* text) {
    if (!curl) return nullptr;
    CURLU* url = curl->url();
    if (url && curl->urlSet(url, CURLUPART_URL, text, CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK) return url;
    curl->urlCleanup(url);
    return nullptr;
}

std::size_t writeToFile(char* bytes, std::size_t size, std::size_t count, void* file) {
    return std::fwrite(bytes, size, count, static_cast<std::FILE*>(file));
}

std::size_t dropBytes(char*, std::size_t size, std::size_t count, void*) { return size * count; }

// The connection's socket. The pair that the library wakes itself with is beyond reach, and of no use to anybody.
curl_socket_t openSocket(void*, curlsocktype, curl_sockaddr* peer) {
    return closedOnExecSocket(peer->family, peer->socktype, peer->protocol);
}

// A new file in the temporary directory, with its path in `path`; null when there can be none.
std::FILE* openTemporaryFile(std::string& path) {
    const char* directory = std::getenv("TMPDIR");
    path = std::string(directory && *directory ? directory : "/tmp") + "/fernhill-download-XXXXXX";
    const int descriptor = mkostemp(path.data(), O_CLOEXEC);
    if (descriptor < 0) return nullptr;
    std::FILE* file = fdopen(descriptor, "w");
    if (!file) close(descriptor);
    return file;
}

curl_off_t bytesMoved(const CurlLibrary* curl, CURL* handle) {
    curl_off_t received = 0;
    curl_off_t sent = 0;
    long headers = 0;
    curl->easyGetinfo(handle, CURLINFO_SIZE_DOWNLOAD_T, &received);
    curl->easyGetinfo(handle, CURLINFO_SIZE_UPLOAD_T, &sent);
    curl->easyGetinfo(handle, CURLINFO_HEADER_SIZE, &headers);
    return received + sent + headers;
}

} // namespace

UrlTransfer::UrlTransfer(const char* url)
    : curl_(loadedFunctions<CurlLibrary>(libraryError_)), handle_(newHandle(curl_)),
      url_(newUrl(curl_, url)) {
    if (!handle_) return;
    curl_->easySetopt(handle_, CURLOPT_CURLU, url_);
    curl_->easySetopt(handle_, CURLOPT_ERRORBUFFER, errorText_);
    curl_->easySetopt(handle_, CURLOPT_NOSIGNAL, 1L);
    curl_->easySetopt(handle_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_->easySetopt(handle_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_->easySetopt(handle_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_->easySetopt(handle_, CURLOPT_MAXREDIRS, mostRedirects);
    curl_->easySetopt(handle_, CURLOPT_OPENSOCKETFUNCTION, openSocket);
    // An empty text keeps the environment's proxies out.
    curl_->easySetopt(handle_, CURLOPT_PROXY, "");
}

UrlTransfer::~UrlTransfer() {
    if (handle_) curl_->easyCleanup(handle_);
    if (url_) curl_->urlCleanup(url_);
}

std::string UrlTransfer::obstacle() const {
    if (!curl_) return libraryError_;
    if (!url_) return "unsupported URL";
    return handle_ ? "" : "no transfer can be made";
}

UrlTaskResult UrlTransfer::download() {
    if (!obstacle().empty()) return {{}, 0, obstacle()};
    std::string path;
    std::FILE* file = openTemporaryFile(path);
    if (!file) return {{}, 0, "no temporary file"};
    curl_->easySetopt(handle_, CURLOPT_WRITEFUNCTION, writeToFile);
    curl_->easySetopt(handle_, CURLOPT_WRITEDATA, file);
    UrlTaskResult result = perform();
    if (std::fclose(file) != 0 && result.localizedDescription.empty())
        result.localizedDescription = "the temporary file could not be written";
    if (result.localizedDescription.empty())
        result.location = path;
    else
        unlink(path.c_str());
    return result;
}

UrlTaskResult UrlTransfer::upload(const char* method, const std::string& data) {
    if (!obstacle().empty()) return {{}, 0, obstacle()};
    curl_->easySetopt(handle_, CURLOPT_POSTFIELDS, data.data());
    curl_->easySetopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(data.size()));
    // Named as a custom method, a POST would stay one behind a redirect.
    if (std::strcmp(method, "POST") != 0) curl_->easySetopt(handle_, CURLOPT_CUSTOMREQUEST, method);
    curl_->easySetopt(handle_, CURLOPT_WRITEFUNCTION, dropBytes);
    return perform();
}

UrlTaskResult UrlTransfer::perform() {
    UrlTaskResult result;
    CURLM* multi = curl_->multiInit();
    if (!multi) {
        result.localizedDescription = "no transfer can be made";
        return result;
    }
    curl_->multiAddHandle(multi, handle_);
    const CURLcode ended = performOn(multi);
    curl_->easyGetinfo(handle_, CURLINFO_RESPONSE_CODE, &result.statusCode);
    curl_->multiRemoveHandle(multi, handle_);
    curl_->multiCleanup(multi);
    if (ended != CURLE_OK)
        result.localizedDescription = errorText_[0] ? errorText_ : curl_->easyStrerror(ended);
    return result;
}

CURLcode UrlTransfer::performOn(CURLM* multi) {
    longestIdleTime_ = clock().eventWaitLimit(idleSeconds);
    const int poll =
        static_cast<int>(longestIdleTime_ / 1000 < longestPoll ? longestIdleTime_ / 1000 : longestPoll);
    for (;;) {
        int running = 0;
        if (curl_->multiPerform(multi, &running) != CURLM_OK) return CURLE_FAILED_INIT;
        int left = 0;
        if (const CURLMsg* message = curl_->multiInfoRead(multi, &left)) return message->data.result;
        if (running == 0) return CURLE_FAILED_INIT;
        if (isIdleTooLong()) return CURLE_OPERATION_TIMEDOUT;
        curl_->multiPoll(multi, nullptr, 0, poll, nullptr);
    }
}

bool UrlTransfer::isIdleTooLong() {
    const curl_off_t moved = bytesMoved(curl_, handle_);
    const std::int64_t now = monotonicMicroseconds();
    if (moved != movedBytes_) {
        movedBytes_ = moved;
        lastMove_ = now;
    }
    return now - lastMove_ >= longestIdleTime_;
}

std::string lastPathComponent(const char* url) {
    std::string error;
    const CurlLibrary* curl = loadedFunctions<CurlLibrary>(error);
    CURLU* parts = newUrl(curl, url);
    if (!parts) return {};
    char* text = nullptr;
    if (curl->urlGet(parts, CURLUPART_PATH, &text, 0) != CURLUE_OK) text = nullptr;
    std::string path = text ? text : "";
    curl->free(text);
    curl->urlCleanup(parts);

    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    if (path == "/") return path;
    path.erase(0, path.rfind('/') + 1);
    int length = 0;
    char* decoded = curl->easyUnescape(nullptr, path.data(), static_cast<int>(path.size()), &length);
    if (!decoded) return {};
    path.assign(decoded, static_cast<std::size_t>(length));
    curl->free(decoded);
    return path;
}

} // namespace platform
