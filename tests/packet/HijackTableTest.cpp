// The table of records against the plain walk over a list: the same answers, the same records in the same order,
// the same lines in the log, the same references, over steps and times drawn at random.

#include "packet/HijackPacket.h"

#include "config/Configuration.h"
#include "support/PlainRecords.h"
#include "support/RecordWorld.h"
#include "support/Sanitizers.h"

#include <array>
#include <map>
#include <random>
#include <regex>

using testsupport::getRequest;
using testsupport::ManualClock;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;
using testsupport::PlainRecords;

namespace {

class HijackTable : public testsupport::RecordWorld {
protected:
    // Connections of which many are alike in something, and packets that the comparison reads in its own way: an
    // IPv4 source of 0, an IPv4 destination of 0, IPv6 addresses of zeros with the ports of others.
    static std::vector<PacketBuffer> packetsOfManyConnections() {
        std::vector<PacketBuffer> packets;
        const auto add = [&](const PacketBuilder& ends) {
            packets.push_back(PacketBuilder(ends).payload(getRequest()).build());
            packets.push_back(PacketBuilder(ends).reversed().payload("HTTP/1.1 200").build());
            packets.push_back(PacketBuilder(ends).build());
        };
        for (const int port : {50000, 50001, 80}) {
            add(PacketBuilder::ipv4().from("10.0.0.2", port));
            add(PacketBuilder::ipv4().from("10.0.0.3", port));
            add(PacketBuilder::ipv4().from("0.0.0.0", port));
            add(PacketBuilder::ipv4().from("10.0.0.2", port).to("0.0.0.0", 80));
            add(PacketBuilder::ipv6().from("2001:db8::2", port));
            add(PacketBuilder::ipv6().from("2001:db8::3", port));
            add(PacketBuilder::ipv6().from("::", port));
            add(PacketBuilder::ipv6().from("::", port).to("::", 80));
        }
        return packets;
    }

    // Connections and URLs enough for the indexes to grow, all of one client.
    void drawFromManyMore() {
        mostRecords_ = 600;
        urls_ = 300;
        for (int port = 1000; port < 1300; ++port)
            packets_.push_back(PacketBuilder::ipv4().from("10.0.0.2", port).payload(getRequest()).build());
    }

    // Plays `steps` of the seed on both. Few records live at a time when `timeRuns`, many otherwise.
    void compare(unsigned seed, int steps, bool timeRuns) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        random_.seed(seed);
        timeRuns_ = timeRuns;
        for (int at = 0; at < steps && !HasFailure(); ++at) {
            SCOPED_TRACE("step " + std::to_string(at));
            step();
            forgetRemoved();
        }
    }

    int draw(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

    PacketBuffer& drawPacket() {
        return packets_[static_cast<std::size_t>(draw(static_cast<int>(packets_.size())))];
    }

    std::string drawUrl() { return "http://" + std::to_string(draw(urls_)) + ".example/"; }

    void step() {
        const int action = draw(100);
        if (action < 20) {
            compareCreate();
        } else if (action < 60) {
            compareFind();
        } else if (action < 75) {
            compareResolve();
        } else if (action < 77) {
            compareRemove();
        } else {
            moveTime();
        }
    }

    void compareCreate() {
        PacketBuffer& packet = drawPacket();
        const ConnectionEnds ends(packet.packet());
        const std::string of = drawUrl();
        const bool https = draw(2) == 0;
        const bool made = HijackPacket::create(packet.packet(), of.c_str(), https);
        ASSERT_EQ(made, ends.hasPayload);
        if (made) plain_.create(ends, of, https, now());
    }

    void compareFind() {
        PacketBuffer& packet = drawPacket();
        HijackPacket* const found = HijackPacket::find(packet.packet());
        const int expected = plain_.find(ConnectionEnds(packet.packet()), now());
        ASSERT_EQ(found != nullptr, expected >= 0);
        if (found) compareRecord(found, expected);
    }

    // The same record each time, and all of it.
    void compareRecord(HijackPacket* found, int number) {
        const auto known = known_.emplace(number, found).first;
        ASSERT_EQ(known->second, found);
        for (const PlainRecords::Record& record : plain_.records()) {
            if (record.number != number) continue;
            EXPECT_EQ(found->URL(), record.url);
            EXPECT_EQ(found->isHttps(), record.https);
            EXPECT_EQ(found->isResolved(), record.resolved);
            EXPECT_EQ(found->getTimeout(), record.timeout);
            ASSERT_EQ(found->redirectURL() != nullptr, record.redirected);
            if (record.redirected) {
                EXPECT_EQ(found->redirectURL(), record.redirect);
            }
        }
        found->retain();
        EXPECT_EQ(found->retainonly(), 4);
        found->releaseonly();
        found->release();
    }

    void compareResolve() {
        const std::string of = drawUrl();
        const char* const redirect = draw(2) == 0 ? "http://block.example/" : nullptr;
        const int seconds = std::array{-1, 0, 1, 30, 200, 3000}[static_cast<std::size_t>(draw(6))];
        EXPECT_EQ(HijackPacket::resolve(of.c_str(), redirect, seconds),
                  plain_.resolve(of, redirect, seconds, now()));
    }

    void compareRemove() {
        if (known_.empty()) return;
        auto chosen = known_.begin();
        std::advance(chosen, draw(static_cast<int>(known_.size())));
        HijackPacket::remove(chosen->second);
        plain_.remove(chosen->first);
    }

    void moveTime() {
        if (plain_.records().size() > mostRecords_) advance(200000001);
        const int kind = draw(20);
        if (kind < 8)
            advance(draw(3));
        else if (kind < 16)
            advance(timeRuns_ ? draw(8000000) : draw(400000));
        else if (kind < 18)
            advance(timeRuns_ ? 30000000 : 1);
        else if (kind < 19)
            advance(-draw(40000000));
        else if (timeRuns_)
            advance(draw(2) == 0 ? 30000001 : 120000001);
    }

    void forgetRemoved() {
        for (const int number : plain_.takeRemoved())
            known_.erase(number);
    }

    static std::int64_t now() { return ManualClock::installed().microseconds(); }

    std::vector<PacketBuffer> packets_ = packetsOfManyConnections();
    PlainRecords plain_;
    std::map<int, HijackPacket*> known_; // the daemon's records by the plain ones' numbers
    std::mt19937 random_;
    int urls_ = 6;
    bool timeRuns_ = true;
    std::size_t mostRecords_ = 100;
};

} // namespace

TEST_F(HijackTable, AMillionStepsAnswerAsTheWalkOverTheListDoes) {
    // Fewer where each step takes many times as long.
    constexpr int half = testsupport::sanitized ? 25000 : 500000;
    compare(1, half, true);
    compare(2, half, false);
}

TEST_F(HijackTable, ManyConnectionsAndUrlsAnswerAsTheWalkOverTheListDoes) {
    drawFromManyMore();

    compare(5, 20000, false);
    compare(6, 20000, true);
}

TEST_F(HijackTable, TheLogIsThatOfTheWalkOverTheList) {
    Configuration::setLogLevel(64 | 128);
    plain_.keepLog(true);

    compare(3, 3000, true);
    compare(4, 1000, false);

    const std::regex address("0x[0-9a-f]+");
    std::vector<std::string> lines;
    for (const std::string& line : log.messages())
        lines.push_back(std::regex_replace(line, address, "*"));
    EXPECT_EQ(lines, plain_.log());
}
