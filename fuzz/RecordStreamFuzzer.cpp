// Both callbacks over thousands of connections' records, with time that moves both ways, held against a list of records
// that is walked for every packet. The questions go to nobody; the input answers them.
//
// The input is a list of steps: a byte that says what comes, then what it needs.

#include "config/Configuration.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/Require.h"
#include "gp/GPLog.h"
#include "lab/OfflineNames.h"
#include "lab/PlayedClock.h"
#include "lab/RootFolder.h"
#include "life/PlainDaemon.h"
#include "packet/HijackPacket.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "platform/HostPaths.h"
#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace {

using fuzzing::FuzzInput;
using fuzzing::require;
using lab::Direction;
using Packet = std::vector<char>;

constexpr std::int64_t second = 1000000;
constexpr std::int64_t firstTime = 1794635810 * second;

// The question that the daemon has asked since this was last emptied.
std::string& asked() {
    static auto* const url = new std::string;
    return *url;
}

// The world that all inputs share: the daemon's state lives as long as the process.
class World {
public:
    World() : root_("") {
        // A folder that cannot be: nothing is logged.
        setLogDirectory("/dev/null");
        platform::HostPaths::setRoot(root_.path().c_str());
        platform::clockService.install(clock_);
        platform::nameLookupService.install(lab::offlineNames());
        clock_.set(firstTime);
        Configuration::loadConfig();
        Configuration::addServerName("filter.invalid", false, true);
    }

    void setTime(std::int64_t time) { clock_.set(time); }

private:
    lab::RootFolder root_;
    lab::PlayedClock clock_;
};

World& world() {
    static World& world = *new World;
    return world;
}

// A connection's packets of each kind, told apart by the bits of `kind`: the family, TLS or not, the direction, with
// or without its payload, and addresses that have rules of their own.
enum Kind { ipv6 = 1, tls = 2, inbound = 4, bare = 8, zeroSource = 16, zeroDestination = 32, kinds = 64 };

testsupport::PacketBuilder endsOf(int kind) {
    auto ends = kind & ipv6 ? testsupport::PacketBuilder::ipv6() : testsupport::PacketBuilder::ipv4();
    const char* const zero = kind & ipv6 ? "::" : "0.0.0.0";
    if (kind & zeroSource) ends.from(zero, 50000);
    if (kind & zeroDestination) ends.to(zero, 80);
    return ends;
}

Packet packetOfKind(int kind) {
    auto made = endsOf(kind);
    if (!(kind & bare)) {
        const std::string hello = testsupport::ClientHelloBuilder().serverName("0.example").build();
        made.payload(kind & tls ? hello
                                : "GET /0 HTTP/1.1\r\nHost: www.example\r\nAccept: everything\r\n\r\n");
    }
    if (kind & inbound) made.reversed();
    const std::string bytes = made.bytes();
    return {bytes.begin(), bytes.end()};
}

// The packet of that kind on the connection of that number.
Packet packetOf(int kind, int number, int page) {
    static const auto* const all = [] {
        auto* const made = new std::array<Packet, kinds>;
        for (int i = 0; i < kinds; ++i)
            (*made)[static_cast<std::size_t>(i)] = packetOfKind(i);
        return made;
    }();
    Packet packet = (*all)[static_cast<std::size_t>(kind)];
    const std::size_t port = (kind & ipv6 ? 40 : 20) + (kind & inbound ? 2 : 0);
    packet[port] = static_cast<char>(number >> 8);
    packet[port + 1] = static_cast<char>(number);
    const std::string mark = kind & tls ? "0.example" : "/0 HTTP";
    const auto place = std::search(packet.begin(), packet.end(), mark.begin(), mark.end());
    if (place != packet.end()) *(place + (kind & tls ? 0 : 1)) = static_cast<char>('a' + page % 26);
    return packet;
}

// The daemon and the plain one beside each other, over one input.
class Comparison {
public:
    void run(FuzzInput& input) {
        while (!input.empty() && work_ < mostWork)
            step(input);
        endRecords();
    }

private:
    // Records that the plain walks of one input may pass, and packets.
    static constexpr long mostWork = 3000000;
    static constexpr long workOfPacket = 200;

    void step(FuzzInput& input) {
        switch (input.byte() % 8) {
            case 0:
                return moveTime(input);
            case 1:
                return burst(input);
            case 2:
                return resolve(input);
            case 3:
                return remove(input);
            case 4:
                return damaged(input);
            default:
                return single(input);
        }
    }

    void moveTime(FuzzInput& input) {
        constexpr std::int64_t units[] = {1, 1000, second, 10 * second};
        const int kind = input.byte();
        const std::int64_t length = (input.byte() + (kind & 8 ? 0 : 256 * input.byte())) * units[kind % 4];
        now_ = std::clamp(now_ + (kind & 4 ? -length : length), second, std::int64_t{1} << 60);
        latest_ = std::max(latest_, now_);
        world().setTime(now_);
    }

    // Requests of many connections, one behind the other.
    void burst(FuzzInput& input) {
        const int kind = input.byte() % kinds;
        const int first = input.byte() << 8 | input.byte();
        const int count = 16 * input.byte();
        for (int i = 0; i < count && work_ < mostWork; ++i)
            present(packetOf(kind, (first + i) & 0xffff, i), kind & inbound ? Direction::in : Direction::out);
    }

    void single(FuzzInput& input) {
        const Direction direction = take(input);
        present(packet_, direction);
    }

    // A byte of the headers is another one.
    void damaged(FuzzInput& input) {
        const Direction direction = take(input);
        const bool isIpv6 = packet_.at(0) >> 4 == 6;
        const std::size_t at = input.byte() % (isIpv6 ? 60 : 40);
        const char value = static_cast<char>(input.byte());
        // A loopback address beyond IPv4's passes by a rule that the plain daemon does not know.
        if (!isIpv6 || at < 8 || at >= 40) packet_[at] = value;
        present(packet_, direction);
    }

    Direction take(FuzzInput& input) {
        const int kind = input.byte();
        const int number = input.byte() << 8 | input.byte();
        packet_ = packetOf(kind % kinds, number, input.byte());
        const bool in = (kind & inbound) != 0;
        // The other listener's packet in this one's place.
        return in != ((kind & 128) != 0) ? Direction::in : Direction::out;
    }

    void present(const Packet& packet, Direction direction) {
        work_ += workOfPacket + static_cast<long>(plain_.records());
        const auto expected = plain_.take(direction, packet, now_);
        std::vector<char>& buffer = buffers_[direction == Direction::in ? 0 : 1];
        std::copy(packet.begin(), packet.end(), buffer.begin());
        sysctl_result result{};
        asked().clear();
        const int verdict = direction == Direction::in ? tcpInBoundCallback(buffer.data(), &result)
                                                       : tcpOutBoundCallback(buffer.data(), &result);
        require(verdict == verdictOf(expected.answer.result));
        require(result.urlSeen == expected.answer.urlSeen);
        require(std::string(result.redirectUrl, strnlen(result.redirectUrl, sizeof result.redirectUrl)) ==
                expected.answer.redirect);
        require(asked() == (expected.question ? expected.question->url : ""));
        if (expected.question) urls_.push_back(expected.question->url);
        met_ = expected.record;
        lastPacket_ = packet;
    }

    static int verdictOf(std::int32_t result) {
        switch (result) {
            case resultPass:
                return verdictPass;
            case resultDrop:
                return verdictDrop;
            case resultRedirect:
                return verdictRedirect;
            default:
                return verdictHold;
        }
    }

    void resolve(FuzzInput& input) {
        const std::size_t chosen = static_cast<std::size_t>(input.byte()) << 8 | input.byte();
        const int how = input.byte();
        if (urls_.empty()) return;
        const std::string& url = urls_[chosen % urls_.size()];
        constexpr int lives[] = {-1, 0, 1, 30, 120, 600, 3000, 1000000};
        const char* const redirect = how & 8 ? "http://10.9.9.9/" : nullptr;
        const bool open = plain_.openRecord(url) != nullptr;
        require(HijackPacket::resolve(url.c_str(), redirect, lives[how % 8]) == open);
        plain_.resolve(url, redirect, lives[how % 8], now_);
    }

    // The record that the last packet met goes.
    void remove(FuzzInput&) {
        if (met_ < 0) return;
        const auto again = plain_.take(Direction::in, lastPacket_, now_);
        Packet buffer = lastPacket_;
        buffer.resize(TCPPacket::packetRoom);
        HijackPacket* const record = HijackPacket::find(buffer.data());
        require((record != nullptr) == (again.record >= 0));
        if (record) HijackPacket::remove(record);
        plain_.remove(again.record);
        met_ = -1;
    }

    // No record of this input lives on in the next one.
    void endRecords() {
        now_ = latest_ + 5000 * second;
        world().setTime(now_);
        const Packet stranger = packetOf(bare, 1, 0);
        while (plain_.records() > 0)
            present(stranger, Direction::in);
        world().setTime(firstTime);
    }

    life::PlainDaemon plain_;
    std::vector<char> buffers_[2] = {std::vector<char>(TCPPacket::packetRoom),
                                     std::vector<char>(TCPPacket::packetRoom)};
    std::vector<std::string> urls_; // all that have been asked about
    Packet packet_;
    Packet lastPacket_;
    int met_ = -1; // the number of the record that the last packet met
    std::int64_t now_ = firstTime;
    std::int64_t latest_ = firstTime;
    long work_ = 0;
};

} // namespace

// In place of FilterQuery::send.
extern "C" void __wrap__ZN11FilterQuery4sendEPKcbPv(const char* url, bool, void*) { asked() = url; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    world();
    FuzzInput input(data, size);
    Comparison().run(input);
    return 0;
}
