#pragma once

// What happens to a daemon: bursts of packets with the agent's answers in their time, and what comes between them.
// Every result is held against the plain rules; the first that differs ends the life with an exception that names it.

#include "life/PlainDaemon.h"
#include "life/Scene.h"
#include "life/Traffic.h"

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <vector>

namespace life {

struct Happenings {
    long records = 0;
    long questions = 0;
    long blocked = 0;
    long slow = 0;
    long logins = 0;
    long addressChanges = 0;
    long pushes = 0;
    long reconnects = 0;
    long jumps = 0;
    std::uint64_t results = 0; // of all packets, in one number
};

class Life {
public:
    // `now` is the scene's time, `calmThreads` how many threads the daemon has while nothing is under way. `plain` leaves
    // out what reads bytes of earlier packets: IPv6 and stray bytes.
    Life(Scene& scene, std::uint64_t seed, std::int64_t now, int calmThreads, bool plain);

    // Presents so many packets, a few milliseconds apart, and waits for all that is due.
    void burst(long packets);

    // Something that is no packet, drawn: a login, a change of addresses, a pushed setting, an agent that is
    // started again, a clock that is set.
    void happen();

    void pushBlockOnFailure(bool on);

    // Lets time pass, in microseconds. Never back.
    void pass(std::int64_t microseconds);

    // Presents bytes that nothing knows until no record is left.
    void forgetRecords();

    std::int64_t now() const { return now_; }
    const Happenings& happenings() const { return happenings_; }

    // The results of all packets, once they are kept.
    void keepAnswers() { keepsAnswers_ = true; }
    const std::vector<Answer>& answers() const { return answers_; }

private:
    struct Late {
        std::int64_t due;
        lab::PolicyAgent::SlowAnswer answer;
        std::string url;
    };

    std::string drawKind();
    bool open(const std::string& kind);
    void openForCertain(const std::string& kind);
    void present(lab::Direction direction, const Packet& packet);
    void note(const Answer& answer);
    void check(const Answer& expected, const Answer& answer, lab::Direction direction,
               const Packet& packet) const;
    void follow(const Question& question);
    void awaitEffect(const std::string& kind);
    void awaitQuestions(const std::string& url, long count);
    void takeSlow(const Question& question);
    void answerDue(std::int64_t time);
    void awaitAnswered(const std::string& url);
    void resolve(const std::string& url);
    void setClock(std::int64_t time);
    void logIn();
    void restartAgent();
    [[noreturn]] void fail(const std::string& what) const;

    Scene& scene_;
    Draw draw_;
    const int calmThreads_;
    const bool plain_;
    PlainDaemon model_;
    std::int64_t now_;
    long connectionsMade_; // which names their hosts
    long questionsDue_;
    bool blockOnFailure_ = false;
    std::deque<Connection> connections_;
    std::deque<Late> late_;
    std::set<std::string> retried_;
    Happenings happenings_;
    std::vector<Answer> answers_;
    bool keepsAnswers_ = false;
};

} // namespace life
