#include "life/PlainDaemon.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "packet/ConnectionEnds.h"
#include "packet/SysctlResult.h"

#include <algorithm>

namespace life {
namespace {

constexpr unsigned loopback = 0x7f000001;

bool isFarLoopback(const ConnectionEnds& ends, lab::Direction direction) {
    return !ends.ipv6 && (direction == lab::Direction::in ? ends.src : ends.dst) == loopback;
}

} // namespace

std::string textOf(const Answer& answer) {
    return "result " + std::to_string(answer.result) + ", URL seen " + std::to_string(answer.urlSeen) +
           ", redirect '" + answer.redirect + "'";
}

PlainDaemon::Expectation PlainDaemon::take(lab::Direction direction, const std::vector<char>& packet,
                                           std::int64_t now) {
    std::vector<char>& buffer = buffers_[direction == lab::Direction::in ? 0 : 1];
    std::copy(packet.begin(), packet.end(), buffer.begin());
    char* start = buffer.data();
    if (!TCPPacket::isUsablePacket(start)) return {};
    const ConnectionEnds ends(start);
    if (isFarLoopback(ends, direction)) return {};

    const int number = records_.find(ends, now);
    if (number >= 0) {
        if (const auto answer = answerOfRecord(direction, start, number)) return {*answer, number, {}};
    }
    if (direction == lab::Direction::in) return {{}, number, {}};
    Expectation expectation = takeUrl(start, now);
    expectation.record = number;
    return expectation;
}

// Nothing for a redirect that does not fit.
std::optional<Answer> PlainDaemon::answerOfRecord(lab::Direction direction, char* packet, int number) const {
    const testsupport::PlainRecords::Record& met = record(number);
    if (!met.resolved) return Answer{direction == lab::Direction::in ? resultDrop : resultHold, 0, ""};
    if (!met.redirected) return Answer{resultPass, 1, ""};
    if (met.https || TCPPacket::redirectPacket(packet, met.redirect.c_str()))
        return Answer{resultRedirect, 0, met.redirect};
    return {};
}

PlainDaemon::Expectation PlainDaemon::takeUrl(char* packet, std::int64_t now) {
    auto url = Owned<GPString>::adopt(TCPPacket::httpsURL(packet));
    const bool https = static_cast<bool>(url);
    if (!https) url = Owned<GPString>::adopt(TCPPacket::httpURL(packet));
    if (!url) return {};
    int number = -1;
    if (TCPPacket::payloadSize(packet) >= 1) {
        records_.create(ConnectionEnds(packet), url->cstr(), https, now);
        number = created_++;
    }
    return {{resultHold, 1, ""}, -1, Question{url->cstr(), number}};
}

void PlainDaemon::resolve(const std::string& url, const char* redirect, int seconds, std::int64_t now) {
    records_.resolve(url, redirect, seconds, now);
}

// That of a number which has just been found.
const testsupport::PlainRecords::Record& PlainDaemon::record(int number) const {
    const auto& all = records_.records();
    return *std::find_if(all.begin(), all.end(), [=](const auto& one) { return one.number == number; });
}

const testsupport::PlainRecords::Record* PlainDaemon::openRecord(const std::string& url) const {
    const auto& all = records_.records();
    const auto at = std::find_if(all.begin(), all.end(),
                                 [&](const auto& one) { return !one.resolved && one.url == url; });
    return at == all.end() ? nullptr : &*at;
}

} // namespace life
