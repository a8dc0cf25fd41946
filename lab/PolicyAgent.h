#pragma once

// The stand-in agent: TCP 127.0.0.1:3456 with the agent's frames, and the block page on port 6543. A thread of
// its own serves both; a policy decides the answers. The counters say what has happened on the link, so that
// a replay can wait until every question has had its chance. Nobody waits for a program that takes no answers: it is
// read no more until it does; nor is one whose questions nobody has taken yet, beyond what there is room for. In a live
// run such questions are answered and left out.

#include "agent/OstComm.h"
#include "lab/AgentFrame.h"
#include "lab/Policy.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace lab {

// One question about a URL, as the agent saw it, which has its decision as long as it lives: the words of a rule are not
// kept for each question.
struct Question {
    std::string url;
    const Decision& decision;
    bool repeated = false; // asked again after a host-lookup error
};

class PolicyAgent {
public:
    static constexpr int linkPort = OstComm::agentPort;
    static constexpr int pagePort = 6543;

    // With `ownTime` questions are answered at once and a slow answer leaves after real time. Otherwise a slow
    // answer leaves by sendSlow, and the questions behind a push wait for answerDeferred.
    PolicyAgent(Policy policy, bool ownTime);
    ~PolicyAgent();

    PolicyAgent(const PolicyAgent&) = delete;
    PolicyAgent& operator=(const PolicyAgent&) = delete;

    // What a test sends in place of the policy's answer: any bytes, and whether the link is closed behind them, once
    // they have been taken.
    struct Conduct {
        std::string bytes;
        bool closes = false;
    };
    using ConductOf = std::function<std::optional<Conduct>(std::uint32_t sequence, const std::string& url)>;

    // Before start: a test's own conduct, asked for each question; nothing leaves it to the policy.
    void setConduct(ConductOf conduct) { conduct_ = std::move(conduct); }

    // Before start: under which number a question is taken and answered, for a test; its own unless told.
    using NumberOf = std::function<std::uint32_t(std::uint32_t sequence)>;
    void setNumbers(NumberOf numberOf) { numberOf_ = std::move(numberOf); }

    // Binds both ports. Throws InputError when one is taken.
    void listen();

    // Starts serving; `listen` comes first.
    void start();

    // Ends the thread and closes the sockets.
    void stop();

    // Descriptors that a forked child has no use for.
    std::vector<int> descriptors() const;

    struct Counters {
        long questions = 0;   // policy frames received
        long repeats = 0;     // of these, asked again after a host-lookup error
        long retriesSent = 0; // host-lookup errors sent
        long answers = 0;     // answers that end a question, links closed instead of an answer included
        long logons = 0;      // logon frames received
        long drops = 0;       // of these, links closed instead of an answer
        long pushes = 0;      // configuration frames sent
        long deferred = 0;    // questions that wait, not counted above
        long untold = 0;      // of the questions, those left out of what takeQuestions hands over
        bool linked = false;  // a logon has come on the link that is open
    };
    Counters counters();

    // The questions since the last call, in the order of asking.
    std::vector<Question> takeQuestions();

    // Slow answers that wait, oldest first: the URL and its delay. Hands them over: the caller plays the time
    // and then calls sendSlow with the ticket. An answer of a link that has been closed is not sent.
    struct SlowAnswer {
        std::uint32_t sequence;
        std::string url;
        long milliseconds;
        long link; // which link it belongs to
    };
    std::vector<SlowAnswer> takeSlow();
    void sendSlow(const SlowAnswer& answer);

    // Answers the questions that wait since a push, and the later ones at once.
    void answerDeferred();

    // Blocks until `done` holds for the counters, looked at after each event; false after that many real
    // milliseconds.
    template <class Condition>
    bool waitUntil(Condition done, int milliseconds) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                 [&] { return done(counters_); });
    }

private:
    using TimedAnswer = std::pair<std::int64_t, SlowAnswer>; // with the real milliseconds at which it leaves

    void serve();
    int acceptAt(int listener);
    void acceptLink();
    void readLink(int link);
    void handleFrame(const AgentFrame& frame);
    void answer(std::uint32_t sequence, const std::string& url);
    bool answeredByConduct(std::uint32_t sequence, const std::string& url);
    void keep(Question question);
    void keepSlow(SlowAnswer answer);
    bool isFull() const;
    void sendBytes(const std::string& bytes);
    void sendUnsent();
    void wake() const;
    void sendFrame(std::uint32_t type, std::uint32_t sequence, const std::string& body);
    void sendDueSlow();
    void countKept();
    void closeLink();
    void closeRetired();
    void acceptPage();
    void servePage(int page);
    void closePage(int page);

    Policy policy_;
    const bool ownTime_;
    ConductOf conduct_;
    NumberOf numberOf_;

    std::mutex mutex_; // guards all below but the descriptors that only the thread touches
    std::condition_variable changed_;
    Counters counters_;
    std::vector<Question> questions_;
    std::map<std::string, int> repeatsDue_;
    std::deque<SlowAnswer> slow_;
    std::deque<TimedAnswer> timedSlow_;
    bool deferring_ = false;
    std::vector<std::pair<std::uint32_t, std::string>> deferred_;
    std::size_t kept_ = 0;      // bytes of the questions that wait to be taken or answered
    std::size_t keptTimed_ = 0; // and of the slow answers that leave by themselves
    std::uint32_t nextSequence_ = 0x80000000;
    int link_ = -1;
    std::string unsent_;          // what the link has had no room for
    bool closesWhenSent_ = false; // nothing more is read or sent then
    bool stopping_ = false;
    std::vector<int> retired_; // links that have ended, for the serving thread to close
    long links_ = 0;           // how many there have been

    int linkListener_ = -1;
    int pageListener_ = -1;
    int wakeUp_ = -1;
    std::int64_t acceptsAt_ = 0; // real milliseconds; no connection is accepted before
    std::vector<int> pages_;     // connections at which nothing has been asked, oldest first
    AgentFrameReader received_;
    std::thread thread_;
};

} // namespace lab
