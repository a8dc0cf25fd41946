#include "lab/divert/Diverter.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "lab/JsonReport.h"
#include "lab/divert/LabNetwork.h"
#include "packet/TCPPacket.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

namespace lab {
namespace {

constexpr int answerMilliseconds = 10000;

std::int64_t microseconds() {
    using namespace std::chrono;
    return duration_cast<std::chrono::microseconds>(system_clock::now().time_since_epoch()).count();
}

// The URL in the packet itself. Over IPv6 the daemon can find one behind its end, in what its buffer holds.
std::string urlIn(const CapturedPacket& packet) {
    // The daemon's reader marks the end that the length field says, which can lie far behind the packet.
    constexpr std::size_t slack = 70000;
    std::vector<char> copy = packet.bytes;
    copy.resize(copy.size() + slack);
    auto url = Owned<GPString>::adopt(TCPPacket::httpsURL(copy.data()));
    if (!url) url = Owned<GPString>::adopt(TCPPacket::httpURL(copy.data()));
    return url ? url->cstr() : "(not in the packet)";
}

} // namespace

Diverter::Diverter(ExtensionStandIn& extension, PolicyAgent& agent, TableReport& table, CsvFile& csv,
                   std::FILE* json, bool deciding)
    : extension_(extension), agent_(agent), table_(table), csv_(csv), json_(json), deciding_(deciding),
      start_(microseconds()), queues_{PacketQueue(inboundQueue), PacketQueue(outboundQueue)},
      wakeUp_(eventfd(0, EFD_CLOEXEC)),
      connections_([this](const LiveConnection& connection) { row(connection); }) {}

Diverter::~Diverter() {
    stop();
    close(wakeUp_);
}

void Diverter::start() {
    threads_[0] = std::thread(&Diverter::serve, this, Direction::in);
    threads_[1] = std::thread(&Diverter::serve, this, Direction::out);
}

void Diverter::stop() {
    const std::uint64_t one = 1;
    if (write(wakeUp_, &one, sizeof one) != sizeof one) return;
    for (std::thread& thread : threads_) {
        if (thread.joinable()) thread.join();
    }
}

void Diverter::serve(Direction direction) {
    PacketQueue& queue = queues_[direction == Direction::in ? 0 : 1];
    for (std::vector<QueuedPacket> packets; queue.await(packets, wakeUp_);) {
        for (const QueuedPacket& packet : packets) {
            if (packet.mark == ownMark || !deciding_ || passes(direction, packet))
                queue.accept(packet.id);
            else
                queue.drop(packet.id);
        }
    }
}

bool Diverter::passes(Direction direction, const QueuedPacket& queued) {
    CapturedPacket packet;
    if (!dissect(queued.bytes.data(), queued.bytes.size(), packet)) return true;
    packet.time = microseconds();
    const bool outbound = direction == Direction::out;
    const auto segment = tcpSegmentOf(packet);
    LiveConnectionPointer connection;
    if (segment) {
        connection = noteUnlessRedirected(packet, *segment, outbound);
        if (!connection) return false;
    }
    const auto result = present(direction, packet);
    if (!result) return true;
    std::lock_guard<std::mutex> lock(mutex_);
    if (segment) return apply(*result, packet, *segment, connection, outbound);
    ++(result->result == resultPass ? totals_.passed : totals_.dropped);
    return result->result == resultPass;
}

LiveConnectionPointer Diverter::noteUnlessRedirected(const CapturedPacket& packet, const TcpSegment& segment,
                                                     bool outbound) {
    std::lock_guard<std::mutex> lock(mutex_);
    LiveConnectionPointer connection = connections_.note(packet, segment, outbound);
    if (!connection->facts.redirected) return connection;
    ++totals_.notPresented;
    if (outbound) answerInServersPlace(*connection, packet, segment);
    return nullptr;
}

// Nothing when the daemon has not answered; such a packet goes on.
std::optional<sysctl_result> Diverter::present(Direction direction, const CapturedPacket& packet) {
    const auto result = extension_.present(direction, packet.bytes, answerMilliseconds);
    std::lock_guard<std::mutex> lock(mutex_);
    ++totals_.presented;
    if (!result) ++totals_.unanswered;
    return result;
}

bool Diverter::apply(const sysctl_result& result, const CapturedPacket& packet, const TcpSegment& segment,
                     const LiveConnectionPointer& connection, bool outbound) {
    Connection& facts = connection->facts;
    switch (result.result) {
        case resultPass:
            ++totals_.passed;
            LiveConnections::passed(*connection, segment, outbound);
            if (outbound && segment.payload > 0) endHold(facts, packet.time);
            connections_.endIfOver(*connection);
            return true;
        case resultHold:
            ++totals_.heldToTheEnd;
            hold(result, packet, connection);
            break;
        case resultRedirect:
            ++totals_.redirected;
            redirect(result, *connection, packet.time);
            break;
        default:
            ++totals_.dropped;
            ++facts.dropped;
            break;
    }
    connections_.endIfOver(*connection);
    return false;
}

void Diverter::hold(const sysctl_result& result, const CapturedPacket& packet,
                    const LiveConnectionPointer& connection) {
    Connection& facts = connection->facts;
    if (!facts.held) facts.heldSince = packet.time;
    facts.held = true;
    if (result.urlSeen) connections_.asked(connection, urlIn(packet));
}

void Diverter::endHold(Connection& facts, std::int64_t now) {
    if (facts.held) facts.heldTime += now - facts.heldSince;
    facts.held = false;
}

void Diverter::redirect(const sysctl_result& result, LiveConnection& connection, std::int64_t now) {
    Connection& facts = connection.facts;
    endHold(facts, now);
    facts.redirected = true;
    connection.redirect = redirectUrlOf(result);
    ++totals_.redirects[connection.redirect];
    connection.answerStart = connection.clientGot;
    unsigned flags = rstFlag | ackFlag;
    if (!result.redirectIsHttps) {
        connection.answer = fmt::format("HTTP/1.1 302 Found\r\nLocation: {}\r\nConnection: close\r\n\r\n",
                                        connection.redirect);
        flags = pshFlag | finFlag | ackFlag;
    }
    sender_.send(facts.local, tcpPacket(facts.remote, facts.local, connection.answerStart,
                                        connection.clientEnd, flags, connection.answer));
    sender_.send(facts.remote, tcpPacket(facts.local, facts.remote, connection.serverGot,
                                         connection.answerStart, rstFlag | ackFlag, {}));
}

// The client has not seen its end yet, or has more to say. The server knows nothing of the answer, so that the lab
// repeats it and takes the end of the client's side.
void Diverter::answerInServersPlace(LiveConnection& connection, const CapturedPacket& packet,
                                    const TcpSegment& segment) {
    if (packet.rst) return;
    const Connection& facts = connection.facts;
    if (connection.answer.empty()) {
        sender_.send(facts.local, tcpPacket(facts.remote, facts.local, segment.acknowledged,
                                            connection.clientEnd, rstFlag | ackFlag, {}));
        return;
    }
    const auto answerEnd = connection.answerStart + static_cast<std::uint32_t>(connection.answer.size()) + 1;
    if (isBehind(answerEnd, segment.acknowledged)) {
        if (segment.payload == 0) return;
        sender_.send(facts.local,
                     tcpPacket(facts.remote, facts.local, connection.answerStart, connection.clientEnd,
                               pshFlag | finFlag | ackFlag, connection.answer));
    } else if (packet.fin) {
        sender_.send(facts.local,
                     tcpPacket(facts.remote, facts.local, answerEnd, connection.clientEnd, ackFlag, {}));
    }
}

void Diverter::takeQuestions() {
    for (const Question& question : agent_.takeQuestions()) {
        ++totals_.asked;
        ++totals_.answers[question.decision.action];
        connections_.take(question);
    }
}

void Diverter::row(const LiveConnection& connection) {
    takeQuestions();
    const Connection& facts = connection.facts;
    table_.row(facts, start_);
    csv_.row(connectionFields(facts, facts.first - start_));
    if (!json_) return;
    nlohmann::ordered_json object;
    object["local"] = facts.local.text();
    object["remote"] = facts.remote.text();
    object["url"] = facts.queries.empty() ? "" : facts.queries.back().url;
    object["questions"] = facts.queries.size();
    object["answer"] = answerText(facts);
    object["held"] = static_cast<double>(facts.heldTime) / 1e6;
    object["verdict"] = verdictText(facts);
    object["redirect"] = connection.redirect;
    fmt::print(json_, "{}\n", object.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
}

void Diverter::report() {
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.sweep(microseconds(), false);
}

void Diverter::finish() {
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.sweep(microseconds(), true);
    takeQuestions();
    totals_.connections = connections_.count();
    totals_.untold = agent_.counters().untold;
}

Totals Diverter::totals() {
    std::lock_guard<std::mutex> lock(mutex_);
    return totals_;
}

std::size_t Diverter::heldConnections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_.held();
}

} // namespace lab
