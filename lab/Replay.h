#pragma once

// Plays captures through the daemon: presents each packet at its time, holds a connection's later packets
// behind a held one, presents a held packet again after 1, 2, 4 ... seconds, and reports every packet's final
// result. The agent has had its chance to answer before the time moves on, so that a replay gives the same
// results at any speed.

#include "lab/DaemonRun.h"
#include "lab/ExtensionStandIn.h"
#include "lab/JsonReport.h"
#include "lab/PolicyAgent.h"
#include "lab/TableReport.h"

#include <map>
#include <memory>
#include <queue>
#include <string>
#include <vector>

namespace lab {

// Is told what a replay does with each packet, in the order of doing it.
class ReplayWatch {
public:
    virtual ~ReplayWatch() = default;

    // A packet was presented, `at` microseconds behind the capture's first one; no result when none came.
    virtual void presented(const PlayedPacket& played, std::int64_t at,
                           const std::optional<sysctl_result>& result) = 0;

    // A packet will not be presented any more, or never was. Null for what is no connection's.
    virtual void over(const PlayedPacket& played, const Connection* connection) = 0;

    // Whether the replay may end here.
    virtual bool enough() const = 0;
};

// Over stand-ins and a daemon that run already.
class Replay {
public:
    Replay(ExtensionStandIn& extension, PolicyAgent& agent, DaemonRun& daemon, PlayedClock& clock,
           JsonReport& json, TableReport& table, std::FILE* asked);

    // Before playing; the watch outlives this.
    void setWatch(ReplayWatch* watch) { watch_ = watch; }

    // Before playing: the real milliseconds for each step of a query's way to the agent and back, and for all of them
    // where a program keeps asking; and those for a packet's answer.
    void setPatience(int milliseconds, int forAnswer) {
        patience_ = milliseconds;
        answerPatience_ = forAnswer;
    }

    // Plays one capture to its end, the last held packet included. Once the daemon has gone, or hangs, the packets that
    // are left are only reported; the answer is then false.
    bool play(const std::string& path, const CaptureFacts& facts);

    // Why packets were only reported, once the daemon has been stopped; empty where all were presented.
    std::string fault() const;

    const Totals& totals() const { return totals_; }

private:
    using ConnectionPointer = std::shared_ptr<Connection>;

    // Something that is due at a played time: a held packet's next presentation, or a slow answer.
    struct Event {
        std::int64_t time;
        long order;
        ConnectionPointer held;
        PolicyAgent::SlowAnswer answer;
        bool operator>(const Event& other) const {
            return time != other.time ? time > other.time : order > other.order;
        }
    };

    void moveTime(std::int64_t time);
    void playEventsUntil(std::int64_t time);
    void handle(CapturedPacket packet, const CaptureFacts& facts);
    ConnectionPointer connectionOf(const CapturedPacket& packet, bool outbound);
    void presentInOrder(const ConnectionPointer& connection);
    bool presentFront(const ConnectionPointer& connection);
    void finish(const ConnectionPointer& connection, const std::optional<sysctl_result>& result);
    void skipWaiting(Connection& connection);
    bool isEnough() const { return watch_ && watch_->enough(); }
    std::optional<sysctl_result> present(PlayedPacket& played);
    void hold(const ConnectionPointer& connection);
    void settle();
    bool settleOnce();
    PolicyAgent::Counters awaitQuestions();
    void noteQuestions();
    void count(const std::optional<sysctl_result>& result);
    void reportIfOver(Connection& connection);
    void sweep(bool all);

    ExtensionStandIn& extension_;
    PolicyAgent& agent_;
    DaemonRun& daemon_;
    PlayedClock& clock_;
    JsonReport& json_;
    TableReport& table_;
    std::FILE* asked_;
    ReplayWatch* watch_ = nullptr;
    int patience_ = 30000;
    int answerPatience_ = 30000;

    std::int64_t now_ = 0;
    std::int64_t start_ = 0;
    std::int64_t nextSweep_ = 0;
    long eventOrder_ = 0;
    std::priority_queue<Event, std::vector<Event>, std::greater<Event>> events_;
    std::map<ConnectionKey, ConnectionPointer> connections_;
    std::deque<ConnectionPointer> queriesStarted_; // queries whose question has not arrived
    std::map<std::string, std::deque<std::pair<ConnectionPointer, std::size_t>>> retried_;
    long queries_ = 0;
    long pushesTaken_ = 0;
    long lostQuestions_ = 0;
    long lostAnswers_ = 0;
    long slowAnswers_ = 0; // that have been, or are, due at a played time
    int unanswered_ = 0;   // packets since the last answer
    bool hangs_ = false;
    bool daemonGone_ = false; // or hangs
    Totals totals_;
};

} // namespace lab
