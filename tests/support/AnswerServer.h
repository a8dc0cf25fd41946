#pragma once

// A server that answers each request with bytes that the test chose, over real loopback sockets.

#include "support/LoopbackPeer.h"

#include <string>
#include <thread>
#include <vector>

namespace testsupport {

class AnswerServer {
public:
    // Serves as many connections as there are answers, one after the other: reads a request with its body,
    // sends the answer and closes. A stalling server keeps the connections open instead, until the end of
    // the scope. `port` 0 picks a free one.
    enum class Afterwards { closes, stalls };
    explicit AnswerServer(std::vector<std::string> answers, Afterwards afterwards = Afterwards::closes,
                          int port = 0);
    ~AnswerServer();

    AnswerServer(const AnswerServer&) = delete;
    AnswerServer& operator=(const AnswerServer&) = delete;

    int port() const { return listener_.port(); }

    // "http://127.0.0.1:PORT" with the path behind it.
    std::string url(const std::string& path) const;

    // Waits until every answer has gone out. All requests, in order.
    const std::vector<std::string>& requests();

    // The only request.
    const std::string& request() { return requests().at(0); }

private:
    void serve();

    LoopbackListener listener_;
    std::vector<std::string> answers_;
    Afterwards afterwards_;
    std::vector<std::string> requests_;
    std::vector<Peer> kept_;
    std::thread thread_;
};

} // namespace testsupport
