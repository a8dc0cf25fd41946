#include "support/PlainRecords.h"

#include <cstring>
#include <utility>

namespace testsupport {

namespace {

bool same(const in6_addr& a, const in6_addr& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

} // namespace

void PlainRecords::create(const ConnectionEnds& ends, const std::string& url, bool https, std::int64_t now) {
    records_.push_back({created_++, url, https, ends, now, https ? 120000000 : 30000000, false, false, ""});
    note("-++ added * to hijackpackets; (" + url + ") count=" + std::to_string(records_.size()));
}

bool PlainRecords::matches(const Record& record, const ConnectionEnds& ends) {
    const ConnectionEnds& own = record.ends;
    const bool ports = ends.srcPort == own.srcPort && ends.dstPort == own.dstPort;
    const bool portsSwapped = ends.srcPort == own.dstPort && ends.dstPort == own.srcPort;
    if (ends.ipv6) {
        return (ports && same(ends.srcIpv6, own.srcIpv6) && same(ends.dstIpv6, own.dstIpv6)) ||
               (portsSwapped && same(ends.srcIpv6, own.dstIpv6) && same(ends.dstIpv6, own.srcIpv6));
    }
    if (ends.src == 0) return false;
    return (ports && ends.src == own.src && ends.dst == own.dst) ||
           (portsSwapped && ends.src == own.dst && ends.dst == own.src);
}

int PlainRecords::find(const ConnectionEnds& ends, std::int64_t now) {
    auto at = records_.begin();
    while (at != records_.end()) {
        if (now - at->start > at->timeout) {
            note("--- removed * object from hijackpackets; (" + at->url +
                 ") count=" + std::to_string(records_.size()));
            removed_.push_back(at->number);
            at = records_.erase(at);
        } else if (matches(*at, ends) && (at->https || ends.hasPayload)) {
            return at->number;
        }
        if (at != records_.end()) ++at;
    }
    return -1;
}

bool PlainRecords::resolve(const std::string& url, const char* redirect, int timeoutSeconds,
                           std::int64_t now) {
    const std::string ends = "target='" + url + "' redirect='" + (redirect ? redirect : "null") + "'";
    for (Record& record : records_) {
        if (record.url != url || record.resolved) continue;
        record.resolved = true;
        record.redirected = redirect != nullptr;
        if (redirect) record.redirect = redirect;
        if (timeoutSeconds > 0) {
            record.timeout = static_cast<int>(timeoutSeconds * 1000000LL);
            record.start = now;
        }
        note("Hijack-resolve:true: " + ends + " (timeout=" + std::to_string(timeoutSeconds) + ")");
        return true;
    }
    note("Hijack-resolve:false: " + ends);
    return false;
}

void PlainRecords::remove(int number) {
    for (auto at = records_.begin(); at != records_.end(); ++at) {
        if (at->number != number) continue;
        records_.erase(at);
        removed_.push_back(number);
        note("--- removed * from hijackpackets; count=" + std::to_string(records_.size()));
        return;
    }
}

std::vector<int> PlainRecords::takeRemoved() { return std::exchange(removed_, {}); }

void PlainRecords::note(const std::string& line) {
    if (keepsLog_) log_.push_back(line);
}

} // namespace testsupport
