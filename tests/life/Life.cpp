#include "life/Life.h"

#include "packet/ConnectionEnds.h"
#include "packet/SysctlResult.h"
#include "support/PacketBuilder.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace life {
namespace {

using lab::Direction;

constexpr std::int64_t second = 1000000;
constexpr int patienceMilliseconds = 60000;
constexpr std::size_t mostConnections = 64;
constexpr std::int64_t longestLateness = 25 * second; // less than the shortest life of a record
constexpr long firstOfAMorning = 1000000000;          // hosts that the agent has not met before
constexpr char blockPage[] = "http://localhost:6543/block_screen.html/?id=error";
constexpr char redirect[] = "http://10.9.9.9/why";

// The kind of a page: what stands between its number and the end of its host.
std::string kindOf(const std::string& url) {
    const auto end = url.find(".example");
    const auto dot = end == std::string::npos || end == 0 ? end : url.rfind('.', end - 1);
    return dot == std::string::npos ? "" : url.substr(dot + 1, end - dot - 1);
}

std::string addressText(int family, const void* address) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(family, address, text, sizeof text);
}

// An inbound packet of a record's connection with a single byte.
Packet dataFor(const ConnectionEnds& ends) {
    const std::uint32_t source = htonl(ends.src), destination = htonl(ends.dst);
    const std::string bytes = (ends.ipv6 ? testsupport::PacketBuilder::ipv6()
                                               .from(addressText(AF_INET6, &ends.dstIpv6), ends.dstPort)
                                               .to(addressText(AF_INET6, &ends.srcIpv6), ends.srcPort)
                                         : testsupport::PacketBuilder::ipv4()
                                               .from(addressText(AF_INET, &destination), ends.dstPort)
                                               .to(addressText(AF_INET, &source), ends.srcPort))
                                  .payload("x")
                                  .bytes();
    return {bytes.begin(), bytes.end()};
}

} // namespace

Life::Life(Scene& scene, std::uint64_t seed, std::int64_t now, int calmThreads, bool plain)
    : scene_(scene), draw_(seed), calmThreads_(calmThreads), plain_(plain), now_(now),
      connectionsMade_(plain ? firstOfAMorning : 0), questionsDue_(scene.agent().counters().questions) {}

void Life::fail(const std::string& what) const {
    throw std::runtime_error(fmt::format("record {}, played time {} s: {}\n{}", happenings_.records,
                                         now_ / second, what,
                                         scene_.daemonRuns() ? "" : scene_.lastOutput()));
}

void Life::burst(long packets) {
    for (long i = 0; i < packets; ++i) {
        pass(draw_.below(10000));
        const std::int64_t choice = draw_.below(1000);
        if (connections_.empty() || choice < 10) {
            open(drawKind());
        } else if (choice < 20 && !plain_) {
            const Packet bytes = strayBytes(draw_);
            present(draw_.oneIn(2) ? Direction::in : Direction::out, bytes);
        } else {
            const auto& connection = connections_[static_cast<std::size_t>(
                draw_.below(static_cast<std::int64_t>(connections_.size())))];
            if (choice < 300)
                present(Direction::in, connection.dataIn);
            else if (choice < 500)
                present(Direction::in, connection.ackIn);
            else if (choice < 800)
                present(Direction::out, connection.ackOut);
            else
                present(Direction::out, connection.dataOut);
        }
    }
    while (!late_.empty())
        pass(second);
}

std::string Life::drawKind() {
    static const char* const kinds[] = {"allow", "allow", "allow",  "allow", "block",
                                        "block", "retry", "garble", "slow"};
    return kinds[draw_.below(std::size(kinds))];
}

// A new connection asks for its page. False where an open one has its ports, so that nothing is asked.
bool Life::open(const std::string& kind) {
    const Connection connection = makeConnection(draw_, ++connectionsMade_, kind, !plain_ && draw_.oneIn(5));
    connections_.push_back(connection);
    if (connections_.size() > mostConnections) connections_.pop_front();
    const long questions = happenings_.questions;
    present(Direction::out, connection.request);
    return happenings_.questions > questions;
}

void Life::openForCertain(const std::string& kind) {
    while (!open(kind)) {
    }
}

void Life::present(Direction direction, const Packet& packet) {
    ++happenings_.records;
    const auto expectation = model_.take(direction, packet, now_);
    const auto result = scene_.extension().present(direction, packet, patienceMilliseconds);
    if (!result) fail("the daemon gave no result");
    Answer answer{result->result, result->urlSeen, ""};
    answer.redirect.assign(result->redirectUrl, strnlen(result->redirectUrl, sizeof result->redirectUrl));
    note(answer);
    check(expectation.answer, answer, direction, packet);
    if (expectation.question) follow(*expectation.question);
}

void Life::note(const Answer& answer) {
    if (keepsAnswers_) answers_.push_back(answer);
    constexpr std::uint64_t factor = 0x100000001b3; // FNV-1a
    for (const char byte : textOf(answer))
        happenings_.results = (happenings_.results ^ static_cast<unsigned char>(byte)) * factor;
}

// An answer that comes at once is waited for.
void Life::follow(const Question& question) {
    ++happenings_.questions;
    if (question.record < 0) fail("a question without a record");
    const std::string kind = kindOf(question.url);
    // The agent wants one more question for a page of that kind, but not when it comes again.
    const bool again = kind == "retry" && retried_.insert(question.url).second;
    awaitQuestions(question.url, again ? 2 : 1);
    if (kind == "block") ++happenings_.blocked;
    if (kind == "slow")
        takeSlow(question);
    else
        awaitAnswered(question.url);
    awaitEffect(kind);
}

// What the agent does behind its answer. Bytes that an earlier packet has left can ask for such a page again.
void Life::awaitEffect(const std::string& kind) {
    if (kind == "restart") {
        scene_.awaitLogon();
        ++happenings_.reconnects;
    }
    if (kind == "closing" || kind == "opening") {
        blockOnFailure_ = kind == "closing";
        scene_.awaitBlockOnFailure(blockOnFailure_);
        ++happenings_.pushes;
    }
}

void Life::check(const Answer& expected, const Answer& answer, Direction direction,
                 const Packet& packet) const {
    if (answer == expected) return;
    std::string digits;
    for (char byte : packet)
        digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    fail(fmt::format("{} and not {}, for the {} packet {}", textOf(answer), textOf(expected),
                     direction == Direction::in ? "inbound" : "outbound", digits));
}

void Life::awaitQuestions(const std::string& url, long count) {
    questionsDue_ += count;
    if (!scene_.agent().waitUntil([&](const auto& counters) { return counters.questions >= questionsDue_; },
                                  patienceMilliseconds))
        fail("a question did not reach the agent: " + url);
    scene_.agent().takeQuestions();
}

void Life::takeSlow(const Question& question) {
    const auto slow = scene_.agent().takeSlow();
    if (slow.size() != 1) fail(fmt::format("{} slow answers where one was due", slow.size()));
    ++happenings_.slow;
    late_.push_back({now_ + 1 + draw_.below(longestLateness), slow[0], question.url});
}

void Life::answerDue(std::int64_t time) {
    for (;;) {
        const auto next = std::min_element(late_.begin(), late_.end(),
                                           [](const Late& a, const Late& b) { return a.due < b.due; });
        if (next == late_.end() || next->due > time) return;
        const Late late = *next;
        late_.erase(next);
        setClock(late.due);
        scene_.agent().sendSlow(late.answer);
        awaitAnswered(late.url);
    }
}

// Until the thread that asked has ended, behind all that the answer changes; each late answer has one that waits. No
// packet may look for it before: each takes out records whose time is over, so that their number would change the year,
// an older record of the connection may speak for it, and one that comes between an answer and its redirect passes.
void Life::awaitAnswered(const std::string& url) {
    if (!scene_.waitForThreads(calmThreads_ + static_cast<int>(late_.size())))
        fail("an answer was not taken in: " + url);
    const auto* open = model_.openRecord(url);
    if (!open) fail("an open record has gone: " + url);
    const Packet data = dataFor(open->ends);
    resolve(url);
    present(Direction::in, data);
}

void Life::resolve(const std::string& url) {
    const std::string kind = kindOf(url);
    const bool page = kind == "garble" && blockOnFailure_;
    model_.resolve(url,
                   kind == "block" ? redirect
                   : page          ? blockPage
                                   : nullptr,
                   kind == "block" ? 30 : -1, now_);
}

void Life::setClock(std::int64_t time) {
    now_ = time;
    scene_.clock().set(time);
}

void Life::pass(std::int64_t microseconds) {
    const std::int64_t until = now_ + microseconds;
    answerDue(until);
    setClock(until);
}

void Life::happen() {
    switch (draw_.below(8)) {
        case 0:
            scene_.logOut();
            [[fallthrough]];
        case 1:
            logIn();
            break;
        case 2:
            scene_.changeAddresses();
            ++happenings_.addressChanges;
            break;
        case 3:
            pushBlockOnFailure(!blockOnFailure_);
            break;
        case 4:
            restartAgent();
            break;
        case 5:
            ++happenings_.jumps;
            setClock(now_ - draw_.below(3600) * second);
            break;
        case 6:
            ++happenings_.jumps;
            setClock(now_ + draw_.below(3600) * second);
            break;
        default:
            break;
    }
}

void Life::logIn() {
    scene_.logIn();
    ++happenings_.logins;
}

void Life::pushBlockOnFailure(bool on) { openForCertain(on ? "closing" : "opening"); }

// The agent goes with no question open, and is there again at once.
void Life::restartAgent() { openForCertain("restart"); }

void Life::forgetRecords() {
    pass(200 * second);
    const Packet stranger = makeConnection(draw_, 0, "allow", false).ackIn;
    while (model_.records() > 0)
        present(Direction::in, stranger);
}

} // namespace life
