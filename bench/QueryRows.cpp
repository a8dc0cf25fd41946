#include "bench/BareQueries.h"
#include "bench/DaemonState.h"
#include "bench/Groups.h"
#include "bench/QuickAgent.h"
#include "bench/Traffic.h"
#include "bench/Workers.h"

#include "filter/FilterQuery.h"
#include "lab/PrivateNetwork.h"
#include "packet/HijackPacket.h"
#include "packet/TCPPacket.h"
#include "support/PacketBuilder.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <vector>

using testsupport::PacketBuffer;

namespace bench {
namespace {

constexpr int inFlight = FilterQuery::queryThreads;
constexpr double secondsToLoss = 3;
constexpr long kinds = 4096; // connections that come again, long after their records have run out

double percentile99(std::vector<double>& times) {
    const std::size_t place = times.size() * 99 / 100;
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(place), times.end());
    return times[place];
}

// Keeps a question open on every slot until `count` are answered or lost. The cost of one until its answer is seen; adds
// the time of each that was answered.
template <class Questions>
Cost keepInFlight(Questions& questions, long count, std::vector<double>& times) {
    std::vector<std::optional<double>> sentAt(inFlight);
    const double processor = processorSeconds(getpid());
    const double wall = secondsNow();
    long sent = 0;
    long lostInTurn = 0;
    for (long ended = 0; ended < count;) {
        for (std::size_t slot = 0; slot < sentAt.size(); ++slot) {
            std::optional<double>& open = sentAt[slot];
            if (open && questions.isAnswered(slot)) {
                times.push_back(secondsNow() - *open);
                open.reset();
                lostInTurn = 0;
                ++ended;
            } else if (open && secondsNow() - *open > secondsToLoss) {
                questions.giveUp(slot);
                open.reset();
                ++ended;
                if (++lostInTurn > inFlight) throw std::runtime_error("no question is answered any more");
            }
            if (!open && sent < count) {
                open = secondsNow();
                questions.send(slot);
                ++sent;
            }
        }
        const timespec time = {0, 20000};
        nanosleep(&time, nullptr);
    }
    const auto operations = static_cast<double>(count);
    return {(secondsNow() - wall) / operations, (processorSeconds(getpid()) - processor) / operations};
}

// Asks through FilterQuery::send.
class Questioner {
public:
    Questioner() {
        for (long i = 0; i < kinds; ++i) {
            packets_.emplace_back(1, helloOf(i).substr(TCPPacket::recordHeaderSize));
            urls_.push_back(urlOf(i));
        }
    }

    // An eighth of a second passes between two of them, so that some thousand records live.
    void send(std::size_t slot) {
        clock_.advance(125000);
        const auto kind = static_cast<std::size_t>(next_++ % kinds);
        char* const packet = packets_[kind].packet();
        HijackPacket::create(packet, urls_[kind].c_str(), true);
        open_[slot].emplace(packet);
        if (!*open_[slot]) throw std::runtime_error("a record is not found");
        FilterQuery::send(urls_[kind].c_str(), true, nullptr);
    }

    bool isAnswered(std::size_t slot) {
        if (!(*open_[slot])->isResolved()) return false;
        open_[slot].reset();
        return true;
    }

    // A thread that drew a number together with another can wait for ever, by rule.
    void giveUp(std::size_t slot) {
        open_[slot].reset();
        ++lost_;
    }

    long lost() const { return lost_; }

private:
    MovedClock& clock_ = MovedClock::installed();
    std::vector<PacketBuffer> packets_;
    std::vector<std::string> urls_;
    std::vector<std::optional<HijackPacket::Found>> open_{inFlight};
    long next_ = 0;
    long lost_ = 0;
};

// How many questions come to an agent that does not answer: as many as the pool has threads left.
long slotsLeft(QuickAgent& agent) {
    agent.setSilent(true);
    const long before = agent.questions();
    for (int i = 0; i < 2 * inFlight; ++i)
        FilterQuery::send("http://www.example.org/slot", false, nullptr);
    long seen = -1;
    for (int quiet = 0; quiet < 20; ++quiet) {
        if (agent.questions() != seen) quiet = 0;
        seen = agent.questions();
        usleep(10000);
    }
    return seen - before;
}

} // namespace

void queryRows(const Effort& effort) {
    if (!lab::enterPrivateNetwork()) throw std::runtime_error("no network of its own");
    prctl(PR_SET_TIMERSLACK, 1);
    becomeDaemon();
    QuickAgent agent(false);
    Questioner questioner;
    std::vector<double> ownTimes;
    std::vector<double> rawTimes;
    const long count = effort.count(50000);

    // The raw frames have an agent of their own, in a process and a network of its own, and so have the bare queries.
    Worker raw([count] {
        if (!lab::enterPrivateNetwork()) throw std::runtime_error("no network of its own");
        static QuickAgent other(false);
        static RawClient client;
        return [count](int which) {
            static double late = 0;
            if (which == 1) return Cost{late, 0};
            std::vector<double> times;
            const double processor = processorSeconds(getpid());
            Cost cost = client.ask(count, inFlight, times);
            cost.processor = (processorSeconds(getpid()) - processor) / static_cast<double>(count);
            late = percentile99(times);
            return cost;
        };
    });
    Worker bare([count] {
        if (!lab::enterPrivateNetwork()) throw std::runtime_error("no network of its own");
        prctl(PR_SET_TIMERSLACK, 1);
        static QuickAgent other(false);
        static BareQueries queries;
        return [count](int) {
            std::vector<double> times;
            return keepInFlight(queries, count, times);
        };
    });
    std::vector<double> lates;
    const Comparison measured = inTurns([&] { return keepInFlight(questioner, count, ownTimes); },
                                        [&] {
                                            const Cost cost = raw.run(0);
                                            lates.push_back(raw.run(1).wall);
                                            return cost;
                                        },
                                        effort.rounds(20));
    row({"policy queries, 30 at a time, from FilterQuery::send to the resolved record",
         "raw frames, 30 in flight"},
        measured, atLeast(0.3));
    row({"the same", "a bare program that does no more than a thread, a send, a wait and a post for each"},
        inTurns([&] { return keepInFlight(questioner, count, ownTimes); }, [&bare] { return bare.run(); },
                effort.rounds()));
    std::sort(lates.begin(), lates.end());
    row({"the 99th percentile of their times", "of the raw frames"}, "s", percentile99(ownTimes),
        lates[lates.size() / 2], atMost(6));
    const auto answered = static_cast<double>(ownTimes.size());
    const long drawnTwice = agent.numbersDrawnTwice();
    row({"policy queries that were resolved", "those that were sent, but for " + std::to_string(drawnTwice) +
                                                  " that drew a number together with another"},
        "", answered, answered + static_cast<double>(questioner.lost() - drawnTwice), atLeast(1));
    const long left = slotsLeft(agent);
    row({"query threads left after " + std::to_string(ownTimes.size()) + " queries",
         "those there are, but for those that wait with such a number"},
        "", static_cast<double>(left),
        static_cast<double>(inFlight - std::min(questioner.lost(), drawnTwice)), atLeast(1));
}

} // namespace bench
