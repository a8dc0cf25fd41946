#pragma once

// The TCP connections of a live run: what the report shows of each, how far both ends have come, and which question
// to the agent belongs to which.

#include "lab/Connection.h"
#include "lab/PolicyAgent.h"
#include "lab/divert/TcpSegment.h"

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace lab {

struct LiveConnection {
    Connection facts;
    std::string redirect;

    // Sequence numbers: behind what the client has sent, behind what of it has gone on to the server, and behind what
    // has come to the client.
    bool begun = false;
    bool greeted = false; // the server has answered
    std::uint32_t clientEnd = 0;
    std::uint32_t serverGot = 0;
    std::uint32_t clientGot = 0;

    std::string answer; // what the lab has said in the server's place
    std::uint32_t answerStart = 0;
};

using LiveConnectionPointer = std::shared_ptr<LiveConnection>;

// Not for several threads at once.
class LiveConnections {
public:
    // `ended` is called once for each connection, when it is over or forgotten.
    explicit LiveConnections(std::function<void(const LiveConnection&)> ended) : ended_(std::move(ended)) {}

    // The connection of a packet, which has been noted there.
    LiveConnectionPointer note(const CapturedPacket& packet, const TcpSegment& segment, bool outbound);

    // The packet has gone on.
    static void passed(LiveConnection& connection, const TcpSegment& segment, bool outbound);

    // A question about the URL belongs to the connection.
    void asked(const LiveConnectionPointer& connection, const std::string& url);

    // What the agent has decided. It may be asked before the packet's result has said so: such a question waits for that.
    void take(const Question& question);

    void endIfOver(LiveConnection& connection);

    // Forgets connections that are over or silent; with `all` every one.
    void sweep(std::int64_t now, bool all);

    std::size_t held() const;
    long count() const { return count_; }

private:
    using Place = std::pair<LiveConnectionPointer, std::size_t>;

    bool give(const Question& question);
    void end(LiveConnection& connection);

    const std::function<void(const LiveConnection&)> ended_;
    std::map<ConnectionKey, LiveConnectionPointer> connections_;
    std::map<std::string, std::deque<Place>> unanswered_; // by URL
    std::map<std::string, std::deque<Place>> retried_;
    std::list<Question> early_;
    long count_ = 0;
};

} // namespace lab
