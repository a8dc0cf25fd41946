// What the packet path costs, beside copying one full-sized packet.

#include "config/Configuration.h"
#include "gp/GPString.h"
#include "packet/HijackPacket.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "platform/Clock.h"
#include "platform/HostPaths.h"
#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

using testsupport::ClientHelloBuilder;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;

namespace {

// The settings are in a folder that does not exist, so that nothing is written.
void withServer() {
    static const bool done = [] {
        platform::HostPaths::setRoot("/nonexistent");
        return Configuration::addServerName("localhost", false, true);
    }();
    benchmark::DoNotOptimize(done);
}

void CopyOfAPacket(benchmark::State& state) {
    char from[1500] = {1};
    char to[1500];
    for (auto _ : state) {
        std::memcpy(to, from, sizeof to);
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(CopyOfAPacket);

void outbound(benchmark::State& state, PacketBuffer packet) {
    withServer();
    sysctl_result result{};
    for (auto _ : state)
        benchmark::DoNotOptimize(tcpOutBoundCallback(packet.packet(), &result));
}

void inbound(benchmark::State& state, PacketBuffer packet) {
    withServer();
    sysctl_result result{};
    for (auto _ : state)
        benchmark::DoNotOptimize(tcpInBoundCallback(packet.packet(), &result));
}

void OutboundAcknowledgement(benchmark::State& state) { outbound(state, PacketBuilder::ipv4().build()); }
BENCHMARK(OutboundAcknowledgement);

void OutboundDataWithoutUrl(benchmark::State& state) {
    outbound(state, PacketBuilder::ipv4().payload(std::string(1400, 'x')).build());
}
BENCHMARK(OutboundDataWithoutUrl);

void OutboundDataIpv6(benchmark::State& state) {
    outbound(state, PacketBuilder::ipv6().payload(std::string(1400, 'x')).build());
}
BENCHMARK(OutboundDataIpv6);

void InboundData(benchmark::State& state) {
    inbound(state, PacketBuilder::ipv4().reversed().payload(std::string(1400, 'x')).build());
}
BENCHMARK(InboundData);

void OutboundLoopback(benchmark::State& state) {
    outbound(state, PacketBuilder::ipv4().to("127.0.0.1", 80).payload("GET / HTTP/1.1\r\n").build());
}
BENCHMARK(OutboundLoopback);

// The records of that many other connections, which are gone at the end of the scope.
class Records {
public:
    explicit Records(int count) : count_(count) {
        for (int i = 0; i < count; ++i) {
            const std::string from = "10." + std::to_string(i / 40000) + ".0.2";
            PacketBuffer other = PacketBuilder::ipv4()
                                     .from(from, 20000 + i % 40000)
                                     .payload(testsupport::getRequest())
                                     .build();
            HijackPacket::create(other.packet(), "http://www.example.org/", false);
        }
    }

    // A walk drops an expired record and passes over the one behind it, so there are as many walks as records.
    ~Records() {
        const PassingClock later;
        PacketBuffer any = PacketBuilder::ipv4().build();
        for (int i = 0; i < count_; ++i)
            HijackPacket::find(any.packet());
    }

private:
    // A clock an hour ahead.
    class PassingClock final : public platform::Clock {
    public:
        PassingClock() : real_(platform::clock()) { platform::clockService.install(*this); }
        ~PassingClock() { platform::clockService.install(real_); }
        PassingClock(const PassingClock&) = delete;
        PassingClock& operator=(const PassingClock&) = delete;

        std::int64_t microseconds() override { return real_.microseconds() + 3600LL * 1000000; }
        std::time_t seconds() override { return real_.seconds() + 3600; }
        void sleepMicroseconds(unsigned microseconds) override { real_.sleepMicroseconds(microseconds); }
        void sleepSeconds(unsigned seconds) override { real_.sleepSeconds(seconds); }
        std::int64_t eventWaitLimit(int seconds) override { return real_.eventWaitLimit(seconds); }

    private:
        platform::Clock& real_;
    };

    int count_;
};

// Data of a connection without a record while others have theirs.
void InboundDataAmongRecords(benchmark::State& state) {
    withServer();
    const Records records(static_cast<int>(state.range(0)));
    inbound(state, PacketBuilder::ipv4().reversed().payload(std::string(1400, 'x')).build());
}
BENCHMARK(InboundDataAmongRecords)->Arg(10)->Arg(100)->Arg(1000)->Arg(100000);

void UrlOfAGet(benchmark::State& state) {
    PacketBuffer packet =
        PacketBuilder::ipv4().payload(testsupport::getRequest("/a/path?with=query")).build();
    for (auto _ : state)
        TCPPacket::httpURL(packet.packet())->release();
}
BENCHMARK(UrlOfAGet);

void UrlOfAClientHello(benchmark::State& state) {
    PacketBuffer packet = PacketBuilder::ipv4()
                              .to("93.184.216.34", 443)
                              .payload(ClientHelloBuilder().serverName("www.example.org").build())
                              .build();
    for (auto _ : state)
        TCPPacket::httpsURL(packet.packet())->release();
}
BENCHMARK(UrlOfAClientHello);

void ReadOfASetting(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(Configuration::filteringDisabled());
}
BENCHMARK(ReadOfASetting);

} // namespace
