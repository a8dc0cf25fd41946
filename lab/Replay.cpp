#include "lab/Replay.h"

#include "filter/FilterQuery.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <limits>

namespace lab {
namespace {

constexpr int tcp = 6;
constexpr std::int64_t second = 1000000;
constexpr int mostRetries = 8;

// With so many packets in a row unanswered a daemon hangs: each costs the whole of its time.
constexpr int mostUnanswered = 3;

// A connection without packets for that long is reported and forgotten.
constexpr std::int64_t idleLimit = 300 * second;
constexpr std::int64_t sweepPeriod = 10 * second;

} // namespace

Replay::Replay(ExtensionStandIn& extension, PolicyAgent& agent, DaemonRun& daemon, PlayedClock& clock,
               JsonReport& json, TableReport& table, std::FILE* asked)
    : extension_(extension), agent_(agent), daemon_(daemon), clock_(clock), json_(json), table_(table),
      asked_(asked) {}

bool Replay::play(const std::string& path, const CaptureFacts& facts) {
    Capture capture(path);
    std::int64_t shift = 0;
    bool first = true;
    start_ = now_;
    for (CapturedPacket packet; !isEnough() && capture.next(packet);) {
        // Captures are played one behind the other, and time never runs back between them.
        if (first && packet.time < now_) shift = now_ - packet.time;
        packet.time += shift;
        if (first) start_ = packet.time;
        first = false;
        playEventsUntil(packet.time);
        moveTime(packet.time);
        handle(std::move(packet), facts);
        packet = CapturedPacket{};
        table_.progress(capture.position(), facts.records);
    }
    playEventsUntil(std::numeric_limits<std::int64_t>::max());
    sweep(true);
    totals_.records += capture.position();
    totals_.playedMicroseconds += now_ - start_;
    return !daemonGone_;
}

std::string Replay::fault() const {
    if (hangs_)
        return fmt::format(
            "the daemon left {} packets in a row without an answer, so no more were presented; play it "
            "again and see, before it ends, what its threads wait in (gdb -p)",
            mostUnanswered);
    return daemonGone_ ? fmt::format("the daemon has ended ({})", daemon_.ending()) : "";
}

void Replay::moveTime(std::int64_t time) {
    now_ = std::max(now_, time);
    clock_.set(now_);
    if (now_ < nextSweep_) return;
    nextSweep_ = now_ + sweepPeriod;
    sweep(false);
}

void Replay::playEventsUntil(std::int64_t time) {
    while (!daemonGone_ && !isEnough() && !events_.empty() && events_.top().time <= time) {
        const Event event = events_.top();
        events_.pop();
        moveTime(event.time);
        if (event.held) {
            presentInOrder(event.held);
        } else {
            agent_.sendSlow(event.answer);
            settle();
        }
    }
}

void Replay::handle(CapturedPacket packet, const CaptureFacts& facts) {
    ++totals_.packets;
    const std::string& computer = facts.computers[packet.source.address.size() == 16 ? 1 : 0];
    const bool outbound = packet.source.address == computer;
    PlayedPacket played{std::move(packet), outbound, json_.reserve(), 0};
    if (played.packet.protocol != tcp || !played.packet.hasPorts) {
        const auto result = present(played);
        count(result);
        json_.fill(played, result);
        if (watch_) watch_->over(played, nullptr);
        return;
    }
    const ConnectionPointer connection = connectionOf(played.packet, outbound);
    connection->waiting.push_back(std::move(played));
    if (!connection->held) presentInOrder(connection);
}

Replay::ConnectionPointer Replay::connectionOf(const CapturedPacket& packet, bool outbound) {
    const Endpoint& local = outbound ? packet.source : packet.destination;
    const Endpoint& remote = outbound ? packet.destination : packet.source;
    ConnectionPointer& connection = connections_[std::minmax(local, remote)];
    const bool opens = packet.syn && !packet.ack;
    if (!connection || (opens && connection->over() && connection->waiting.empty())) {
        if (connection && !connection->reported) table_.row(*connection, start_);
        connection = std::make_shared<Connection>();
        connection->local = local;
        connection->remote = remote;
        connection->first = packet.time;
        ++totals_.connections;
    }
    connection->last = packet.time;
    ++connection->packets;
    (outbound ? connection->closedLocally : connection->closedRemotely) |= packet.fin;
    connection->reset |= packet.rst;
    return connection;
}

// Presents what waits until a packet is held or the connection has been redirected.
void Replay::presentInOrder(const ConnectionPointer& connection) {
    while (!daemonGone_ && !connection->waiting.empty()) {
        if (connection->redirected) {
            skipWaiting(*connection);
            break;
        }
        if (!presentFront(connection)) return;
    }
    reportIfOver(*connection);
}

// Presents the packet in front. False when it is held.
bool Replay::presentFront(const ConnectionPointer& connection) {
    const auto result = present(connection->waiting.front());
    if (result && result->result == resultHold) {
        if (result->urlSeen) {
            ++queries_;
            queriesStarted_.push_back(connection);
            settle();
        }
        if (connection->retries < mostRetries) {
            hold(connection);
            return false;
        }
        connection->gaveUp = true;
    }
    finish(connection, result);
    return true;
}

void Replay::hold(const ConnectionPointer& connection) {
    if (!connection->held) {
        connection->held = true;
        connection->heldSince = now_;
    }
    const std::int64_t pause = second << connection->retries;
    ++connection->retries;
    events_.push({now_ + pause, ++eventOrder_, connection, {}});
}

void Replay::finish(const ConnectionPointer& connection, const std::optional<sysctl_result>& result) {
    if (connection->held) {
        connection->heldTime += now_ - connection->heldSince;
        connection->heldSpans.emplace_back(connection->heldSince, now_);
    }
    connection->held = false;
    connection->retries = 0;
    if (result && result->result == resultRedirect) {
        connection->redirected = true;
        ++totals_.redirects[redirectUrlOf(*result)];
    }
    if (result && result->result == resultDrop) ++connection->dropped;
    count(result);
    json_.fill(connection->waiting.front(), result);
    if (watch_) watch_->over(connection->waiting.front(), connection.get());
    connection->waiting.pop_front();
}

void Replay::skipWaiting(Connection& connection) {
    for (; !connection.waiting.empty(); connection.waiting.pop_front()) {
        ++totals_.notPresented;
        json_.fill(connection.waiting.front(), {});
        if (watch_) watch_->over(connection.waiting.front(), &connection);
    }
}

std::optional<sysctl_result> Replay::present(PlayedPacket& played) {
    if (daemonGone_) {
        ++totals_.notPresented;
        return {};
    }
    const Direction direction = played.outbound ? Direction::out : Direction::in;
    ++played.presented;
    ++totals_.presented;
    auto result = extension_.present(direction, played.packet.bytes, answerPatience_);
    unanswered_ = result ? 0 : unanswered_ + 1;
    if (!result) {
        ++totals_.unanswered;
        hangs_ = unanswered_ == mostUnanswered && daemon_.running() && extension_.connected();
        daemonGone_ = hangs_ || !daemon_.running() || !extension_.connected();
    }
    if (watch_) watch_->presented(played, now_ - start_, result);
    return result;
}

// Waits until every question has arrived and every answer has been taken. At most FilterQuery::queryThreads questions
// are open at a time, the others wait inside the daemon.
void Replay::settle() {
    using std::chrono::steady_clock;
    const auto limit = steady_clock::now() + std::chrono::milliseconds(patience_);
    const long before = totals_.unsettled;
    bool quiet = settleOnce();
    while (!quiet && steady_clock::now() < limit)
        quiet = settleOnce();
    if (!quiet && totals_.unsettled == before) ++totals_.unsettled;
    noteQuestions();
    for (PolicyAgent::SlowAnswer& answer : agent_.takeSlow()) {
        if (slowAnswers_ == queries_) {
            ++totals_.unsettled; // more than the daemon can have asked
            continue;
        }
        ++slowAnswers_;
        const std::int64_t due = now_ + std::int64_t{answer.milliseconds} * 1000;
        events_.push({due, ++eventOrder_, nullptr, std::move(answer)});
    }
}

// False where more has come meanwhile.
bool Replay::settleOnce() {
    const PolicyAgent::Counters seen = awaitQuestions();
    if (seen.pushes > pushesTaken_ || seen.deferred) {
        pushesTaken_ = seen.pushes;
        if (!daemon_.waitForSettings(pushesTaken_, patience_)) ++totals_.unsettled;
        agent_.answerDeferred();
        return false;
    }
    if (!daemon_.waitForResolved(seen.answers - lostAnswers_, patience_)) {
        lostAnswers_ = seen.answers - daemon_.resolved();
        ++totals_.unsettled;
    }
    return agent_.counters().answers == seen.answers;
}

// Waits until every question that can be with the agent has come there, or a push has gone out.
PolicyAgent::Counters Replay::awaitQuestions() {
    PolicyAgent::Counters seen;
    long inside = 0; // questions that wait for one of the daemon's threads
    const bool arrived = agent_.waitUntil(
        [&](const PolicyAgent::Counters& counters) {
            seen = counters;
            if (counters.pushes > pushesTaken_) return true;
            inside = std::max(0L, queries_ - counters.answers - FilterQuery::queryThreads);
            const long come = counters.questions - counters.repeats + counters.deferred;
            return (counters.drops == 0 || counters.linked) && come >= queries_ - lostQuestions_ - inside &&
                   (counters.deferred || counters.repeats == counters.retriesSent);
        },
        patience_);
    if (arrived) return seen;
    ++totals_.unsettled;
    lostQuestions_ = queries_ - inside - (seen.questions - seen.repeats);
    noteQuestions();
    queriesStarted_.resize(std::min(queriesStarted_.size(), static_cast<std::size_t>(inside)));
    return seen;
}

// Tells which connection each question belongs to: queries start in the order in which they were made.
void Replay::noteQuestions() {
    for (Question& question : agent_.takeQuestions()) {
        ++totals_.asked;
        ++totals_.answers[question.decision.action];
        if (asked_) {
            std::fputs(question.url.c_str(), asked_);
            std::fputc('\n', asked_);
        }
        auto& retried = retried_[question.url];
        if (question.repeated && !retried.empty()) {
            const auto [connection, index] = retried.front();
            retried.pop_front();
            ++connection->queries[index].retries;
            connection->queries[index].decision = question.decision;
            if (question.decision.action == Action::retry) retried.push_back({connection, index});
        } else if (!queriesStarted_.empty()) {
            const ConnectionPointer connection = queriesStarted_.front();
            queriesStarted_.pop_front();
            connection->queries.push_back({question.url, question.decision, 0});
            if (question.decision.action == Action::retry)
                retried.push_back({connection, connection->queries.size() - 1});
        }
        if (retried.empty()) retried_.erase(question.url);
    }
}

void Replay::count(const std::optional<sysctl_result>& result) {
    if (!result) return;
    switch (result->result) {
        case resultPass:
            ++totals_.passed;
            break;
        case resultDrop:
            ++totals_.dropped;
            break;
        case resultRedirect:
            ++totals_.redirected;
            break;
        case resultHold:
            ++totals_.heldToTheEnd;
            break;
        default:
            break;
    }
}

void Replay::reportIfOver(Connection& connection) {
    if (connection.reported || !connection.over() || !connection.waiting.empty()) return;
    connection.reported = true;
    table_.row(connection, start_);
}

// Forgets connections without packets; at the end of a capture all of them.
void Replay::sweep(bool all) {
    for (auto entry = connections_.begin(); entry != connections_.end();) {
        Connection& connection = *entry->second;
        const bool idle = now_ - connection.last > idleLimit || (connection.reported && !all);
        const bool keep =
            !all && (!idle || !connection.waiting.empty() || now_ - connection.last < sweepPeriod);
        if (keep) {
            ++entry;
            continue;
        }
        skipWaiting(connection);
        if (!connection.reported) table_.row(connection, start_);
        entry = connections_.erase(entry);
    }
}

} // namespace lab
