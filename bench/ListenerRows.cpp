#include "bench/DaemonState.h"
#include "bench/Groups.h"
#include "bench/Traffic.h"
#include "bench/Workers.h"

#include "packet/HijackPacket.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "support/PacketBuilder.h"

#include <unistd.h>

#include <thread>

namespace bench {
namespace {

constexpr long recordsOfARound = 20000;
constexpr int lifeSeconds = 120;

void listenOutbound(int socket) {
    becomeDaemon();
    serveListener(socket, false);
}

Side answering(Answerer& answerer, const Records& records, const Effort& effort) {
    const long count = effort.count(recordsOfARound);
    return [&answerer, &records, count] { return answerer.answer(records, count, resultPass); };
}

void against(Answerer& echo, Answerer& listener, const std::string& what, const Records& records,
             const Effort& effort) {
    const Comparison measured =
        inTurns(answering(listener, records, effort), answering(echo, records, effort), effort.rounds(21));
    row({"verdict loop, " + what, "the bare echo of the same records"}, measured, atLeast(0.97),
        atMost(1.06));
}

// Opens a connection that the agent allows at once, and whose record then lives to its end.
void openAllowed(long connection) {
    const std::string record = helloOf(connection);
    testsupport::PacketBuffer buffer(1, record.substr(TCPPacket::recordHeaderSize));
    const std::string url = urlOf(connection);
    HijackPacket::create(buffer.packet(), url.c_str(), true);
    HijackPacket::resolve(url.c_str(), nullptr);
}

// Records that begin evenly over a whole life until now, and then as many new ones as run out.
void keepAlive(long count) {
    constexpr std::int64_t life = lifeSeconds * 1000000LL;
    MovedClock& clock = MovedClock::installed();
    for (long i = 0; i < count; ++i) {
        clock.setOffset(-life + life * i / count);
        openAllowed(i);
    }
    clock.setOffset(0);
    platform::clockService.install(platform::clockService.backend());
    std::thread([count] {
        const double start = secondsNow();
        for (long made = 0;; usleep(1000)) {
            const auto due =
                static_cast<long>((secondsNow() - start) * static_cast<double>(count) / lifeSeconds);
            for (; made < due; ++made)
                openAllowed(count + made);
        }
    }).detach();
}

} // namespace

void listenerRows(const Effort& effort) {
    const Records mixOut = recordedMix(false);
    const Records mixIn = recordedMix(true);
    Answerer echo(serveEcho);
    Answerer outbound(listenOutbound);
    against(echo, outbound, "acknowledgements, IPv4", dataRecords(0), effort);
    against(echo, outbound, "acknowledgements, IPv6", dataRecords(0, true), effort);
    for (const std::size_t bytes : {60u, 600u, 1460u}) {
        const std::string data = "data of " + std::to_string(bytes) + " bytes, ";
        against(echo, outbound, data + "IPv4", dataRecords(bytes), effort);
        against(echo, outbound, data + "IPv6", dataRecords(bytes, true), effort);
    }

    // The listeners of the mix know its requests as allowed: what a request itself costs is another row.
    Answerer mixedOut([&mixOut](int socket) {
        becomeDaemon();
        allowRequests(mixOut);
        serveListener(socket, false);
    });
    against(echo, mixedOut, "mix of a capture going out, requests allowed before", mixOut, effort);
    Answerer mixedIn([&mixOut](int socket) {
        becomeDaemon();
        allowRequests(mixOut);
        serveListener(socket, true);
    });
    against(echo, mixedIn, "mix of a capture coming in, requests allowed before", mixIn, effort);
}

void liveRecordRows(const Effort& effort) {
    const Records data = dataRecords(600);
    Answerer none(listenOutbound);
    for (const long count : {1000L, 100000L}) {
        Answerer many([count](int socket) {
            becomeDaemon();
            keepAlive(count);
            serveListener(socket, false);
        });
        const Comparison measured =
            inTurns(answering(many, data, effort), answering(none, data, effort), effort.rounds(21));
        row({"verdict loop among " + std::to_string(count) + " live records", "the same among none"},
            measured, atLeast(0.95));
    }
}

} // namespace bench
