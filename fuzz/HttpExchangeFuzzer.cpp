// A whole HTTP exchange over the loopback of a network of its own: the URL is taken apart, the request goes out, the
// answer comes in. What is known of each is held against a second reading.
//
// A byte for the method, the URL, a header's name and its value, then the answer.

#include "fuzz/FuzzInput.h"
#include "fuzz/PrivateLoopback.h"
#include "fuzz/Require.h"
#include "gp/GPDate.h"
#include "gp/GPHTTP.h"
#include "gp/GPLog.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/NameLookup.h"
#include "support/PlainWalks.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace {

using fuzzing::require;

// On a busy machine the server's thread may have to wait for its turn.
constexpr int patienceSeconds = 60;

// Every name is this machine, and each is kept.
class Names final : public platform::NameLookup {
public:
    bool gethostbyname2(const char* name, int family, platform::HostEntry& entry) override {
        asked = name;
        if (family != AF_INET) return false;
        entry.officialName = name;
        entry.addresses.assign(1, std::string("\x7f\0\0\1", 4));
        return true;
    }
    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }

    std::string asked;
};

// Holds the fuzzer's alarm back, which rings each half minute: a wait of a request that it interrupts is over, by rule,
// and the answer lost.
class AlarmHeldBack {
public:
    AlarmHeldBack() {
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm, &before_);
    }
    ~AlarmHeldBack() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    AlarmHeldBack(const AlarmHeldBack&) = delete;
    AlarmHeldBack& operator=(const AlarmHeldBack&) = delete;

private:
    sigset_t before_{};
};

// An exchange that takes so much processor time is a find, though the fuzzer's alarm is held back. Waiting takes none,
// and nothing interrupts it.
class ProcessorTimeLimit {
public:
    ProcessorTimeLimit() {
        std::signal(SIGPROF, [](int) { std::abort(); });
        set(seconds);
    }
    ~ProcessorTimeLimit() { set(0); }
    ProcessorTimeLimit(const ProcessorTimeLimit&) = delete;
    ProcessorTimeLimit& operator=(const ProcessorTimeLimit&) = delete;

private:
    static void set(time_t left) {
        const itimerval timer{{0, 0}, {left, 0}};
        setitimer(ITIMER_PROF, &timer, nullptr);
    }

    static constexpr time_t seconds = 20;
};

// Answers each connection with the bytes at hand and closes it.
class Server {
public:
    Server() : listener_(fuzzing::listenOnLoopback(port)) {
        const AlarmHeldBack inItsThread;
        std::thread([this] { serve(); }).detach();
    }

    void prepare(const std::string& answer) {
        const std::lock_guard<std::mutex> lock(mutex_);
        answer_ = answer;
        request_.clear();
        served_ = false;
    }

    // What came; waited for, since the other side has had its answer.
    std::string request() {
        std::unique_lock<std::mutex> lock(mutex_);
        require(done_.wait_for(lock, std::chrono::seconds(patienceSeconds), [this] { return served_; }));
        return request_;
    }

    static constexpr int port = 8000;

private:
    void serve() {
        for (;;) {
            const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) continue;
            const std::string request = receive(connection);
            std::string answer;
            {
                const std::lock_guard<std::mutex> lock(mutex_);
                answer = answer_;
            }
            for (std::size_t sent = 0; sent < answer.size();) {
                const ssize_t step =
                    send(connection, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
                if (step <= 0) break;
                sent += static_cast<std::size_t>(step);
            }
            // A close in front of bytes that nobody has read would take the answer back.
            shutdown(connection, SHUT_WR);
            char rest[4096];
            while (recv(connection, rest, sizeof rest, 0) > 0) {
            }
            close(connection);
            const std::lock_guard<std::mutex> lock(mutex_);
            request_ = request;
            served_ = true;
            done_.notify_all();
        }
    }

    // The header block, with which the body comes, since both are written at once; or all until the end.
    static std::string receive(int connection) {
        std::string request;
        char piece[65536];
        while (request.find("\r\n\r\n") == std::string::npos) {
            const ssize_t got = recv(connection, piece, sizeof piece, 0);
            if (got <= 0) break;
            request.append(piece, static_cast<std::size_t>(got));
        }
        return request;
    }

    const int listener_;
    std::mutex mutex_;
    std::condition_variable done_;
    std::string answer_;
    std::string request_;
    bool served_ = false;
};

struct World {
    World() {
        // A folder that cannot be: nothing is logged.
        setLogDirectory("/dev/null");
        std::signal(SIGPIPE, SIG_IGN);
        require(fuzzing::enterPrivateLoopback());
        platform::nameLookupService.install(names);
    }

    Names names;
};

struct Parts {
    std::string host;
    std::string path = "/";
    int port = 80;
};

// A URL character by character.
Parts plainParts(const std::string& url) {
    Parts parts;
    std::size_t at = 0;
    const std::size_t colon = url.find(':');
    if (colon != 0 && colon != std::string::npos && url.compare(colon, 2, ":/") == 0) {
        const std::string scheme = url.substr(0, colon);
        static const struct {
            const char* name;
            int port;
        } known[] = {{"https", 443}, {"ftp", 22}, {"smtp", 25}, {"imap", 142}, {"pop", 110}, {"ssh", 22}};
        for (const auto& one : known)
            if (scheme == one.name) parts.port = one.port;
        for (int skipped = 0; skipped < 3 && colon + at < url.size(); ++skipped)
            ++at;
        at += colon;
    }
    for (; at < url.size() && (url[at] != '/' || parts.host.empty()); ++at) {
        // Without a host in front of its first slash all is host.
        if (url[at] == '/') {
            parts.host = url.substr(at);
            return parts;
        }
        parts.host += url[at];
    }
    if (at == url.size()) return parts;
    parts.path = url.substr(at);
    const std::size_t behindHost = parts.host.find(':');
    if (behindHost == std::string::npos) return parts;
    const std::string number = parts.host.substr(behindHost + 1);
    parts.port = std::atoi(number.c_str());
    if (parts.port == 0 && number[0] != '0') parts.port = -1;
    parts.host.resize(behindHost);
    return parts;
}

void compare(GPMap& found, GPMap& expected) {
    require(found.count() == expected.count());
    for (const char* name = expected.firstKey(); name; name = expected.nextKey()) {
        auto* const value = static_cast<GPString*>(found.objectForKey(name));
        require(value && value->isEqual(static_cast<GPString*>(expected.objectForKey(name))));
    }
}

// A date that has a year of four digits is the same again from its own text.
void readDates(GPMap& headers) {
    for (const char* name = headers.firstKey(); name; name = headers.nextKey()) {
        const char* const value = static_cast<GPString*>(headers.objectForKey(name))->cstr();
        const auto date = Owned<GPDate>::adopt(GPDate::dateFromString(value));
        if (!date) continue;
        const int year = date->year() + 1900;
        const auto text = Owned<GPString>::adopt(date->ISOString(true));
        if (year < 1000 || year > 9999) continue;
        const auto again = Owned<GPDate>::adopt(GPDate::dateFromString(text->cstr()));
        require(again && again->toRawTime() == date->toRawTime());
    }
}

void readAnswer(const std::string& answer) {
    int code = 0;
    const auto headers = Owned<GPMap>::adopt(new GPMap);
    const bool whole = GPHTTP::parseAnswer(answer, code, *headers);
    require(whole == (answer.find("\r\n\r\n") != std::string::npos));
    // The plain walk looks through the rest for every line.
    if (answer.size() > 8192) return;
    const auto expected = Owned<GPMap>::adopt(new GPMap);
    testsupport::plain::readHeaders(answer, *expected);
    compare(*headers, *expected);
    readDates(*headers);
}

void checkRequest(const std::string& request, const std::string& verb, const Parts& parts) {
    const std::string head =
        verb + " " + parts.path + " HTTP/1.1\r\nHost: " + parts.host + "\r\nUser-Agent: ";
    require(request.compare(0, head.size(), head) == 0);
}

void exchange(GPHTTP& request, Server& server, const Parts& parts, const std::string& verb,
              const std::string& answer) {
    const AlarmHeldBack meanwhile;
    const ProcessorTimeLimit limit;
    server.prepare(answer);
    request.setPort(Server::port);
    request.setTimeout(patienceSeconds);
    request.startSync();
    require(request.IPAddress() && std::string(request.IPAddress()) == "127.0.0.1");
    checkRequest(server.request(), verb, parts);
    require(request.responseLength() == static_cast<int>(answer.size()));
    int code = 0;
    const auto headers = Owned<GPMap>::adopt(new GPMap);
    if (!answer.empty()) GPHTTP::parseAnswer(answer, code, *headers);
    require(request.responseCode() == code);
    const auto body = Owned<GPString>::adopt(request.responseString());
    require(static_cast<bool>(body) == !answer.empty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static World& world = *new World;
    static Server& server = *new Server;
    fuzzing::FuzzInput input(data, size);
    const std::uint8_t method = input.byte() % 3;
    const std::string url = input.run().c_str();
    const std::string name = input.run().c_str();
    const std::string value = input.run().c_str();
    const std::string answer = input.rest();

    const Parts parts = plainParts(url);
    GPHTTP request(url.c_str());
    require(request.port() == parts.port);
    constexpr GPHTTPMethod methods[] = {GPHTTPMethodGet, GPHTTPMethodHead, GPHTTPMethodPost};
    constexpr const char* verbs[] = {"GET", "HEAD", "POST"};
    request.setHTTPMethod(methods[method]);
    if (!name.empty()) request.addHeader(name.c_str(), value.c_str());
    if (method == 2) request.addPostValue(name.c_str(), value.c_str());

    readAnswer(answer);
    world.names.asked.clear();
    exchange(request, server, parts, verbs[method], answer);
    require(world.names.asked == parts.host);
    return 0;
}
