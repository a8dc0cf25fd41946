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
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <memory>
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

// Asks through FilterQuery::send, with as many questions open as there are query threads.
class Questioner {
public:
    Questioner() {
        for (long i = 0; i < kinds; ++i) {
            packets_.push_back(
                std::make_unique<PacketBuffer>(1, helloOf(i).substr(TCPPacket::recordHeaderSize)));
            urls_.push_back(urlOf(i));
        }
    }

    // The cost of a question until its record is resolved; adds the time of each.
    Cost ask(long count, std::vector<double>& times) {
        const double processor = processorSeconds(getpid());
        const double wall = secondsNow();
        long sent = 0;
        double lastAnswer = wall;
        for (long answered = 0; answered < count;) {
            // By rule two threads can draw one number, and the second then waits for ever.
            if (secondsNow() - lastAnswer > secondsToLoss) answered += giveUp();
            for (Open& open : open_) {
                if (open.record && (*open.record)->isResolved()) {
                    lastAnswer = secondsNow();
                    times.push_back(lastAnswer - open.sentAt);
                    open.record.reset();
                    ++answered;
                }
                if (!open.record && sent < count) {
                    send(open);
                    ++sent;
                }
            }
            const timespec time = {0, 20000};
            nanosleep(&time, nullptr);
        }
        const auto operations = static_cast<double>(count);
        return {(secondsNow() - wall) / operations, (processorSeconds(getpid()) - processor) / operations};
    }

    long lost() const { return lost_; }

private:
    struct Open {
        std::optional<HijackPacket::Found> record;
        double sentAt = 0;
    };

    // Counts the questions that are open as lost, and tells how many they are.
    long giveUp() {
        long open = 0;
        for (Open& one : open_) {
            open += one.record.has_value();
            one.record.reset();
        }
        lost_ += open;
        return open;
    }

    // An eighth of a second passes between two of them, so that some thousand records live.
    void send(Open& open) {
        clock_.advance(125000);
        const auto kind = static_cast<std::size_t>(next_++ % kinds);
        char* const packet = packets_[kind]->packet();
        HijackPacket::create(packet, urls_[kind].c_str(), true);
        open.record.emplace(packet);
        if (!*open.record) throw std::runtime_error("a record is not found");
        open.sentAt = secondsNow();
        FilterQuery::send(urls_[kind].c_str(), true, nullptr);
    }

    MovedClock& clock_ = MovedClock::installed();
    std::vector<std::unique_ptr<PacketBuffer>> packets_;
    std::vector<std::string> urls_;
    std::vector<Open> open_{inFlight};
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

    // The raw frames have an agent of their own, in a process and a network of its own.
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
    std::vector<double> lates;
    const Comparison measured = inTurns([&] { return questioner.ask(count, ownTimes); },
                                        [&] {
                                            const Cost cost = raw.run(0);
                                            lates.push_back(raw.run(1).wall);
                                            return cost;
                                        },
                                        effort.rounds(20));
    row({"policy queries, 30 at a time, from FilterQuery::send to the resolved record",
         "raw frames, 30 in flight"},
        measured, atLeast(0.3));
    std::sort(lates.begin(), lates.end());
    row({"the 99th percentile of their times", "of the raw frames"}, "s", percentile99(ownTimes),
        lates[lates.size() / 2], atMost(6));
    const auto answered = static_cast<double>(ownTimes.size());
    row({"policy queries that were resolved", "those that were sent"}, "", answered,
        answered + static_cast<double>(questioner.lost()), atLeast(1));
    row({"query threads left after " + std::to_string(ownTimes.size()) + " queries", "those there are"}, "",
        static_cast<double>(slotsLeft(agent)), inFlight, atLeast(1));
}

} // namespace bench
