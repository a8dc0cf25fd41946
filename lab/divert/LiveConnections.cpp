#include "lab/divert/LiveConnections.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace lab {
namespace {

constexpr std::int64_t second = 1000000;

// A connection without packets is forgotten after that long, one that is over rather sooner.
constexpr std::int64_t idleLimit = 300 * second;
constexpr std::int64_t overLimit = 10 * second;

// Of questions that no packet's result has spoken of yet.
constexpr std::size_t mostEarly = 1000;

void moveUp(std::uint32_t& number, std::uint32_t to) {
    if (isBehind(to, number)) number = to;
}

} // namespace

LiveConnectionPointer LiveConnections::note(const CapturedPacket& packet, const TcpSegment& segment,
                                            bool outbound) {
    const Endpoint& local = outbound ? packet.source : packet.destination;
    const Endpoint& remote = outbound ? packet.destination : packet.source;
    LiveConnectionPointer& connection = connections_[std::minmax(local, remote)];
    const bool opens = packet.syn && !packet.ack;
    if (!connection || (opens && connection->facts.over())) {
        if (connection) end(*connection);
        connection = std::make_shared<LiveConnection>();
        connection->facts.local = local;
        connection->facts.remote = remote;
        connection->facts.first = packet.time;
        ++count_;
    }
    Connection& facts = connection->facts;
    facts.last = packet.time;
    ++facts.packets;
    (outbound ? facts.closedLocally : facts.closedRemotely) |= packet.fin;
    facts.reset |= packet.rst;
    if (!connection->begun) {
        connection->begun = true;
        connection->clientEnd = connection->serverGot = outbound ? segment.sequence : segment.acknowledged;
        connection->clientGot = outbound ? segment.acknowledged : segment.sequence;
    }
    if (outbound) moveUp(connection->clientEnd, segment.end());
    // The handshake's first answer says where the server's numbers begin; it can come again.
    if (!outbound && packet.syn && !connection->greeted) {
        connection->greeted = true;
        connection->clientGot = segment.sequence;
    }
    if (packet.ack) moveUp(outbound ? connection->clientGot : connection->serverGot, segment.acknowledged);
    return connection;
}

void LiveConnections::passed(LiveConnection& connection, const TcpSegment& segment, bool outbound) {
    std::uint32_t& got = outbound ? connection.serverGot : connection.clientGot;
    if (!isBehind(segment.sequence, got)) moveUp(got, segment.end());
}

void LiveConnections::asked(const LiveConnectionPointer& connection, const std::string& url) {
    connection->facts.queries.push_back({url, {}, 0, false});
    unanswered_[url].push_back({connection, connection->facts.queries.size() - 1});
    for (auto question = early_.begin(); question != early_.end();)
        question = question->url == url && give(*question) ? early_.erase(question) : std::next(question);
}

void LiveConnections::take(const Question& question) {
    if (give(question)) return;
    early_.push_back(question);
    if (early_.size() > mostEarly) early_.pop_front();
}

bool LiveConnections::give(const Question& question) {
    auto& from = question.repeated ? retried_ : unanswered_;
    const auto entry = from.find(question.url);
    if (entry == from.end()) return false;
    const Place place = entry->second.front();
    entry->second.pop_front();
    if (entry->second.empty()) from.erase(entry);
    Query& query = place.first->facts.queries[place.second];
    if (question.repeated) ++query.retries;
    query.decision = question.decision;
    query.answered = true;
    if (question.decision.action == Action::retry) retried_[question.url].push_back(place);
    return true;
}

// What is held can still go on when both sides have closed: its sender repeats it.
void LiveConnections::endIfOver(LiveConnection& connection) {
    const Connection& facts = connection.facts;
    if (facts.over() && (facts.reset || !facts.held)) end(connection);
}

void LiveConnections::end(LiveConnection& connection) {
    Connection& facts = connection.facts;
    if (facts.reported) return;
    facts.reported = true;
    if (facts.held) {
        facts.heldTime += facts.last - facts.heldSince;
        facts.gaveUp = true;
    }
    ended_(connection);
}

void LiveConnections::sweep(std::int64_t now, bool all) {
    std::vector<LiveConnectionPointer> gone;
    for (auto entry = connections_.begin(); entry != connections_.end();) {
        const Connection& facts = entry->second->facts;
        const std::int64_t idle = now - facts.last;
        if (!all && idle < (facts.reported ? overLimit : idleLimit)) {
            ++entry;
            continue;
        }
        gone.push_back(entry->second);
        entry = connections_.erase(entry);
    }
    std::sort(gone.begin(), gone.end(),
              [](const auto& a, const auto& b) { return a->facts.first < b->facts.first; });
    for (const LiveConnectionPointer& connection : gone)
        end(*connection);
}

std::size_t LiveConnections::held() const {
    return static_cast<std::size_t>(
        std::count_if(connections_.begin(), connections_.end(),
                      [](const auto& entry) { return entry.second->facts.held; }));
}

} // namespace lab
