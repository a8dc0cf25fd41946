#pragma once

// The vendor's check-in service, played by a real web server on port 443 of a network of the test's own. Its
// certificate is the only root of the default store, and the name service knows its host.

#include "support/PlayedNames.h"
#include "support/TlsServer.h"
#include "support/WebServer.h"

#include <optional>
#include <string>
#include <vector>

namespace testsupport {

class CheckinService {
public:
    // Made before the test starts a thread. Nothing answers until `start`, or one of its kin. The names must
    // outlive every thread that looks one up.
    explicit CheckinService(PlayedNames& names);

    // Answers every check-in with this body from now on.
    void reply(const std::string& body);

    // Starts a server with these lines in its configuration in place of the reply's file.
    void start(const std::string& locations = "");

    // Answers every check-in with that status and body.
    void replyWithStatus(int status, const std::string& body);

    // Shakes hands and takes the check-in, but never answers.
    void takeAndNeverAnswer();

    // Puts a file on the server.
    void put(const std::string& name, const std::string& content) { server_->put(name, content); }

    // The targets of the requests so far whose path begins with that text.
    std::vector<std::string> requests(const std::string& path = "/1/checkin") const;

private:
    Certificate certificate_;
    std::optional<LoopbackListener> silence_;
    std::optional<WebServer> server_;
};

} // namespace testsupport
