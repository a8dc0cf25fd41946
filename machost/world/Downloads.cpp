#include "machost/world/Downloads.h"

#include "machost/world/World.h"

#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace machost::world {
namespace {

constexpr long idleSeconds = 60;
constexpr long mostRedirects = 16;

constexpr std::int64_t errorUnknown = -1;

struct Problem {
    CURLcode code;
    std::int64_t number;
    const char* text;
};

// NSURLError.h and the texts that the Mac shows for its numbers.
constexpr Problem problems[] = {
    {CURLE_URL_MALFORMAT, -1000, "bad URL"},
    {CURLE_OPERATION_TIMEDOUT, -1001, "The request timed out."},
    {CURLE_UNSUPPORTED_PROTOCOL, -1002, "unsupported URL"},
    {CURLE_COULDNT_RESOLVE_HOST, -1003, "A server with the specified hostname could not be found."},
    {CURLE_COULDNT_CONNECT, -1004, "Could not connect to the server."},
    {CURLE_GOT_NOTHING, -1005, "The network connection was lost."},
    {CURLE_PARTIAL_FILE, -1005, "The network connection was lost."},
    {CURLE_RECV_ERROR, -1005, "The network connection was lost."},
    {CURLE_SEND_ERROR, -1005, "The network connection was lost."},
    {CURLE_TOO_MANY_REDIRECTS, -1007, "too many HTTP redirects"},
    {CURLE_SSL_CONNECT_ERROR, -1200,
     "An SSL error has occurred and a secure connection to the server cannot be made."},
    {CURLE_PEER_FAILED_VERIFICATION, -1202,
     "The certificate for this server is invalid. You might be connecting to a server that is pretending to "
     "be "
     "another, which could put your confidential information at risk."},
    {CURLE_WRITE_ERROR, -3003, "The file could not be written."},
};

struct Cleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using Handle = std::unique_ptr<CURL, Cleanup>;
using File = std::unique_ptr<std::FILE, Cleanup>;

Handle newHandle() {
    static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
    return Handle(ready == CURLE_OK ? curl_easy_init() : nullptr);
}

std::size_t dropBytes(char*, std::size_t size, std::size_t count, void*) { return size * count; }

File openTemporary(std::string& path) {
    const char* folder = std::getenv("TMPDIR");
    path = std::string(folder && *folder ? folder : "/tmp") + "/CFNetworkDownload_XXXXXX";
    const int descriptor = mkostemp(path.data(), O_CLOEXEC);
    return File(descriptor < 0 ? nullptr : fdopen(descriptor, "w"));
}

void setUp(CURL* handle, const Transfer& asked) {
    curl_easy_setopt(handle, CURLOPT_URL, asked.url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, mostRedirects);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, idleSeconds);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, idleSeconds);
    curl_easy_setopt(handle, CURLOPT_PROXY, ""); // none from the environment
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, dropBytes);
    if (asked.method == "GET") return;
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, asked.data.data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(asked.data.size()));
    if (asked.method != "POST") curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, asked.method.c_str());
}

void fillProblem(Transferred& result, CURLcode code) {
    result.error = errorUnknown;
    result.problem = "unknown error";
    for (const Problem& problem : problems)
        if (problem.code == code) {
            result.error = problem.number;
            result.problem = problem.text;
        }
}

Transferred perform(CURL* handle) {
    Transferred result;
    const CURLcode code = curl_easy_perform(handle);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &result.status);
    if (code != CURLE_OK) fillProblem(result, code);
    return result;
}

// By this machine's own client.
void transferReally(const Transfer& asked, const std::function<void(const Transferred&)>& take) {
    const Handle handle = newHandle();
    std::string path;
    File file = asked.method == "GET" ? openTemporary(path) : nullptr;
    if (!handle || (asked.method == "GET" && !file)) return take({0, {}, errorUnknown, "unknown error"});
    setUp(handle.get(), asked);
    if (file) {
        curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, nullptr);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, file.get());
    }
    Transferred result = perform(handle.get());
    file.reset();
    if (result.error == 0) result.file = path;
    take(result);
    if (!path.empty()) unlink(path.c_str());
}

Transferred playedResult(const Answer& answer) {
    Transferred result;
    if (answer.kind == Answer::no || answer.words.size() < 3) return {0, {}, errorUnknown, "unknown error"};
    result.status = numberIn(answer.words[0], 0);
    result.file = answer.words[1];
    result.problem = answer.words[2];
    if (!result.problem.empty()) result.error = errorUnknown;
    return result;
}

} // namespace

void transfer(const Transfer& asked, const std::function<void(const Transferred&)>& take) {
    Line line({"url", asked.method, asked.url, asked.data});
    const Answer answer = Answer::of(line.next());
    if (answer.kind == Answer::real) return transferReally(asked, take);
    take(playedResult(answer));
    line.hangUp(); // whoever plays it takes the file away then
}

} // namespace machost::world
