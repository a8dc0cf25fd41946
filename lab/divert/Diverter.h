#pragma once

// The kernel extension of a live run: takes the packets that the kernel has diverted, shows them to the daemon as
// records, and applies its results.
//
//   0 pass       the packet goes on
//   1 drop       it is gone
//   3 hold       it does not go on: its sender's TCP repeats it, and it is shown again. The kernel must not keep it
//                meanwhile, since Linux repeats no segment that still lies in a queue of its own
//   2 redirect   plain: the client has the 302 in the server's place; TLS: the client's connection is reset. Either way
//                the server's side is reset, and the connection's later packets are not shown

#include "lab/CsvFile.h"
#include "lab/ExtensionStandIn.h"
#include "lab/PolicyAgent.h"
#include "lab/TableReport.h"
#include "lab/divert/LiveConnections.h"
#include "lab/divert/PacketQueue.h"
#include "lab/divert/SegmentSender.h"

#include <mutex>
#include <thread>

namespace lab {

class Diverter {
public:
    // Over stand-ins and a daemon that run already. With `deciding` false every packet passes and the daemon sees
    // none. A row for each connection goes to the table, to `csv`, and as an object to `json` unless that is null.
    // Throws UnavailableError.
    Diverter(ExtensionStandIn& extension, PolicyAgent& agent, TableReport& table, CsvFile& csv,
             std::FILE* json, bool deciding);
    ~Diverter();

    Diverter(const Diverter&) = delete;
    Diverter& operator=(const Diverter&) = delete;

    // Starts a thread for each direction.
    void start();

    // Ends them; the packets that come later are dropped by the kernel.
    void stop();

    // Reports the connections that are over. Now and then, from any thread.
    void report();

    // Reports all that are left. After stop.
    void finish();

    // Any thread.
    Totals totals();
    std::size_t heldConnections();

private:
    void serve(Direction direction);
    bool passes(Direction direction, const QueuedPacket& queued);
    LiveConnectionPointer noteUnlessRedirected(const CapturedPacket& packet, const TcpSegment& segment,
                                               bool outbound);
    std::optional<sysctl_result> present(Direction direction, const CapturedPacket& packet);
    bool apply(const sysctl_result& result, const CapturedPacket& packet, const TcpSegment& segment,
               const LiveConnectionPointer& connection, bool outbound);
    void hold(const sysctl_result& result, const CapturedPacket& packet,
              const LiveConnectionPointer& connection);
    static void endHold(Connection& facts, std::int64_t now);
    void redirect(const sysctl_result& result, LiveConnection& connection, std::int64_t now);
    void answerInServersPlace(LiveConnection& connection, const CapturedPacket& packet,
                              const TcpSegment& segment);
    void takeQuestions();
    void row(const LiveConnection& connection);

    ExtensionStandIn& extension_;
    PolicyAgent& agent_;
    TableReport& table_;
    CsvFile& csv_;
    std::FILE* json_;
    const bool deciding_;
    const std::int64_t start_;

    SegmentSender sender_;
    PacketQueue queues_[2];
    std::thread threads_[2];
    int wakeUp_ = -1;

    std::mutex mutex_; // guards all below
    LiveConnections connections_;
    Totals totals_;
};

} // namespace lab
