#include "bench/DaemonState.h"
#include "bench/Groups.h"
#include "bench/Traffic.h"
#include "bench/Workers.h"

#include "packet/HijackPacket.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "support/PacketBuilder.h"

#include <nlohmann/json.hpp>

#include <cstdio>

using testsupport::PacketBuffer;

namespace bench {
namespace {

PacketBuffer bufferOf(const std::string& record) {
    return PacketBuffer(1, record.substr(TCPPacket::recordHeaderSize));
}

// A worker whose work is the callback for a packet without a record, among that many records that live.
Worker::Work packetsAmong(long records, long packets) {
    becomeDaemon();
    for (long i = 0; i < records; ++i) {
        PacketBuffer hello = bufferOf(helloOf(i));
        HijackPacket::create(hello.packet(), urlOf(i).c_str(), true);
        HijackPacket::resolve(urlOf(i).c_str(), nullptr);
    }
    return [packets](int) {
        PacketBuffer data = bufferOf(dataRecords(600).front());
        return costOf(packets, [&data, packets] {
            sysctl_result result{};
            for (long i = 0; i < packets; ++i)
                keep(tcpOutBoundCallback(data.packet(), &result));
        });
    };
}

} // namespace

void recordCurve(const Effort& effort) {
    const long packets = effort.count(50000);
    Worker none([packets] { return packetsAmong(0, packets); });
    nlohmann::ordered_json points = nlohmann::ordered_json::array();
    for (const long records : {100L, 300L, 1000L, 3000L, 10000L, 30000L, 100000L}) {
        Worker some([records, packets] { return packetsAmong(records, packets); });
        const Comparison measured =
            inTurns([&some] { return some.run(); }, [&none] { return none.run(); }, effort.rounds());
        points.push_back({records, measured.own.processor, measured.ratio.processor});
    }
    const nlohmann::ordered_json line = {{"curve", "records"}, {"points", points}};
    std::puts(line.dump().c_str());
    std::fflush(stdout);
}

} // namespace bench
