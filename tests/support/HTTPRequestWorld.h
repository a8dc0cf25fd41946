#pragma once

// Base of the tests around HTTP requests: a name service that knows the servers, a log, and the texts that
// go out and come back.

#include "gp/GPData.h"
#include "gp/GPHTTP.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/CapturedLog.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedNames.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <csignal>
#include <string>

namespace testsupport {

inline const std::string defaultAgent =
    "Mozilla/5.0 (Macintosh; Intel Mac OS X 10_7_3) AppleWebKit/534.53.11 (KHTML, like Gecko) "
    "Version/5.1.3 Safari/534.53.10";

inline std::string textOf(GPString* owned) {
    const auto text = Owned<GPString>::adopt(owned);
    return text ? text->cstr() : "(null)";
}

inline std::string bytesOf(GPData* owned) {
    const auto data = Owned<GPData>::adopt(owned);
    return data ? std::string(data->bytes(), static_cast<std::size_t>(data->length())) : "(null)";
}

inline std::string headerOf(GPHTTP& request, const char* name) {
    GPString* value = request.responseHeader(name);
    return value ? value->cstr() : "(null)";
}

class HTTPRequestWorld : public testing::Test {
protected:
    HTTPRequestWorld() {
        signal(SIGPIPE, SIG_IGN);
        for (const char* host : {"127.0.0.1", "server.test", "server.test?q=1", "server.test:8080"})
            names_.answer(host, AF_INET, {"127.0.0.1"});
        names_.install();
        ManualClock::installed().setEventWait(patienceMicroseconds, false);
    }

    // What the server gets for a GET of that path.
    static std::string get(const std::string& path, const std::string& headers = "") {
        return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: " + defaultAgent +
               "\r\nConnection: close\r\n" + headers + "\r\n";
    }

    CapturedLog log_;
    PlayedNames names_;
    const int closedPort_ = freePort();
};

} // namespace testsupport
