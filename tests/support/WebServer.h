#pragma once

// A real web server (nginx) that serves a folder on ports of 127.0.0.1, with its files in a folder of its own.

#include "support/TemporaryFolder.h"
#include "support/TlsServer.h"

#include <string>

namespace testsupport {

class WebServer {
public:
    // Serves plain HTTP on `port`, and HTTPS with the certificate on `tlsPort` if that is not 0. `locations`
    // goes into the server's configuration as it is. Ready when the constructor returns.
    WebServer(int port, int tlsPort, const Certificate& certificate, const std::string& locations = "");
    ~WebServer();

    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Puts a file into the folder that is served.
    void put(const std::string& name, const std::string& content);

    // The requests so far: one line each, with method, target, status and agent.
    std::string accessLog() const;

private:
    TemporaryFolder folder_;
    int process_ = -1;
};

} // namespace testsupport
