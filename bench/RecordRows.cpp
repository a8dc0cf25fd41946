#include "bench/DaemonState.h"
#include "bench/Groups.h"
#include "bench/Traffic.h"
#include "bench/Workers.h"

#include "packet/HijackPacket.h"
#include "packet/TCPPacket.h"
#include "support/PacketBuilder.h"

#include <malloc.h>

#include <limits>
#include <memory>
#include <vector>

using testsupport::PacketBuffer;

namespace bench {
namespace {

constexpr std::int64_t life = 120 * 1000000LL;
constexpr long batch = 50;

// What is done to a record in its life, in this order.
enum Step { createThem, resolveThem, expireThem, findThem };

// Keeps `count` records alive, whose times end one behind the other, and does a batch of each step to them.
class Population {
public:
    explicit Population(long count) : count_(count), slot_(life / count) {
        for (long i = 0; i < count; ++i) {
            create(i);
            HijackPacket::resolve(urlOf(i).c_str(), nullptr);
            clock_.advance(slot_);
        }
        next_ = count;
    }

    // The cost of one step, from `rounds` whole lives of a batch.
    Cost run(int which, long rounds) {
        Cost sum;
        for (long round = 0; round < rounds; ++round) {
            makeBatch();
            for (const int step : {createThem, resolveThem, findThem, expireThem}) {
                const Cost cost = costOf(batch, [this, step] { doStep(step); });
                if (step != which) continue;
                sum.wall += cost.wall / static_cast<double>(rounds);
                sum.processor += cost.processor / static_cast<double>(rounds);
            }
            next_ += batch;
        }
        return sum;
    }

private:
    static PacketBuffer hello(long connection) {
        return PacketBuffer(1, helloOf(connection).substr(TCPPacket::recordHeaderSize));
    }

    void create(long connection) {
        PacketBuffer buffer = hello(connection);
        HijackPacket::create(buffer.packet(), urlOf(connection).c_str(), true);
    }

    // So that the steps themselves build no packets.
    void makeBatch() {
        packets_.clear();
        urls_.clear();
        for (long i = 0; i < batch; ++i) {
            packets_.push_back(hello(next_ + i));
            urls_.push_back(urlOf(next_ + i));
        }
    }

    void doStep(int step) {
        for (std::size_t i = 0; i < static_cast<std::size_t>(batch); ++i) {
            if (step == createThem) {
                HijackPacket::create(packets_[i].packet(), urls_[i].c_str(), true);
            } else if (step == resolveThem) {
                HijackPacket::resolve(urls_[i].c_str(), nullptr);
            } else if (step == findThem) {
                keep(HijackPacket::find(packets_[i].packet()));
            } else {
                // The oldest record's time ends, and the next packet takes it out.
                clock_.advance(slot_);
                keep(HijackPacket::find(stranger_.packet()));
            }
        }
    }

    const long count_;
    const std::int64_t slot_;
    long next_ = 0;
    MovedClock& clock_ = MovedClock::installed();
    std::vector<PacketBuffer> packets_;
    std::vector<std::string> urls_;
    PacketBuffer stranger_ = testsupport::PacketBuilder::ipv4().build();
};

// A batch's packets come and go between the steps, which the daemon's one buffer does not: their memory stays, lest the
// next batch has the system clear fresh pages and the steps find an emptied cache.
void keepMemory() { mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max()); }

Worker::Work populationOf(long count, long rounds) {
    becomeDaemon();
    keepMemory();
    const auto population = std::make_shared<Population>(count);
    return [population, rounds](int which) { return population->run(which, rounds); };
}

// The packet that comes first after `count` records have run out at one moment: it takes every second one out. The cost of
// one of these.
Worker::Work burstOf(long count) {
    becomeDaemon();
    MovedClock::installed();
    return [count](int) {
        PacketBuffer stranger = testsupport::PacketBuilder::ipv4().build();
        for (long i = 0; i < count; ++i) {
            PacketBuffer hello(1, helloOf(i).substr(TCPPacket::recordHeaderSize));
            HijackPacket::create(hello.packet(), urlOf(i).c_str(), true);
            HijackPacket::resolve(urlOf(i).c_str(), nullptr);
        }
        MovedClock::installed().advance(2 * life);
        const Cost cost = costOf(count / 2, [&stranger] { keep(HijackPacket::find(stranger.packet())); });
        // Each further packet takes half of the rest.
        for (long left = count; left > 0; left /= 2)
            HijackPacket::find(stranger.packet());
        return cost;
    };
}

} // namespace

void recordRows(const Effort& effort) {
    const long rounds = effort.count(100);
    Worker few([rounds] { return populationOf(100, rounds); });
    Worker many([rounds] { return populationOf(100000, rounds); });
    const std::pair<const char*, Step> steps[] = {{"creating a record among 100,000", createThem},
                                                  {"resolving a record among 100,000", resolveThem},
                                                  {"finding a record among 100,000", findThem},
                                                  {"expiring a record among 100,000", expireThem}};
    for (const auto& step : steps) {
        const int which = step.second;
        const Comparison measured = inTurns([&many, which] { return many.run(which); },
                                            [&few, which] { return few.run(which); }, effort.rounds());
        row({step.first, "the same among 100"}, measured, atMost(2));
    }
    Worker burst([] { return burstOf(100000); });
    row({"taking a record out when 100,000 run out at one moment", "expiring a record among 100"},
        inTurns([&burst] { return burst.run(); }, [&few] { return few.run(expireThem); }, effort.rounds()));
}

} // namespace bench
