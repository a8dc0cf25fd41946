#pragma once

// A web server in a process of its own that answers every request with the same content: for tests whose own process is
// looked at or ends.

#include "support/LoopbackPeer.h"
#include "support/TestChild.h"

#include <string>

namespace testsupport {

class FileServer {
public:
    explicit FileServer(const std::string& content)
        : child_([&] {
              for (;;) {
                  Peer peer = listener_.accept();
                  peer.readUntil("\r\n\r\n");
                  peer.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(content.size()) +
                            "\r\n\r\n" + content);
              }
          }) {}

    std::string url(const std::string& name) const {
        return "http://127.0.0.1:" + std::to_string(listener_.port()) + "/" + name;
    }

private:
    LoopbackListener listener_;
    const EndlessChild child_;
};

} // namespace testsupport
