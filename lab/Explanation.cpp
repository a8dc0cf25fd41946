#include "lab/Explanation.h"

#include "lab/JsonReport.h"
#include "packet/PacketFilter.h"
#include "packet/PacketVerdicts.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

namespace lab {
namespace {

std::string yesOrNo(bool yes) { return yes ? "yes" : "no"; }

// The record's part of the story.
ToldStep toldRecord(const ObservedStep& step, bool outbound, const RecordOrigins& origins) {
    ToldStep told{"HijackPacket::find", "none", "no record of the connection speaks for this packet"};
    if (step.answer == noRecord) return told;
    const auto origin = origins.find(step.mark);
    std::string words = "of " + step.text;
    if (origin != origins.end())
        words += fmt::format(", made by packet {} at {:.3f} s", origin->second.packet,
                             static_cast<double>(origin->second.at) / 1e6);
    told.answer = fmt::format("0x{:x}", step.mark);
    switch (step.answer) {
        case openRecord:
            words +=
                outbound ? "; no answer yet: what is sent is held" : "; no answer yet: what comes is dropped";
            break;
        case allowedRecord:
            words += "; not blocked: its packets pass";
            break;
        case tlsRedirect:
            words += "; blocked TLS: any packet gets the redirect to " + step.more;
            break;
        default:
            words += "; blocked: a packet with room for it gets the redirect to " + step.more;
            break;
    }
    told.words = words;
    return told;
}

// A test that lets the packet go on when it says no.
ToldStep toldTest(const char* test, bool yes, const char* ifYes, const char* ifNo) {
    return {test, yesOrNo(yes), yes ? ifYes : ifNo};
}

ToldStep toldUrl(const char* test, const ObservedStep& step, const char* without) {
    return {test, step.answer ? step.text : "none", step.answer ? "a URL to ask about" : without};
}

ToldStep toldServer(const ObservedStep& step) {
    if (step.text.empty()) return {"Configuration::getCurrentServer", "none", "without a server it passes"};
    return {"Configuration::getCurrentServer", fmt::format("{}, kind {}", step.text, step.answer),
            step.answer ? "there is a server of a known kind" : "a server of no known kind"};
}

ToldStep told(const ObservedStep& step, bool outbound, const RecordOrigins& origins) {
    const bool yes = step.answer != 0;
    switch (step.call) {
        case Call::filteringDisabled:
            return toldTest("Configuration::filteringDisabled", yes, "filtering is off: it passes",
                            "filtering is on");
        case Call::currentServer:
            return toldServer(step);
        case Call::usable:
            return toldTest("TCPPacket::isUsablePacket", yes, "TCP, with its headers inside its length",
                            "not TCP, or headers beyond its length: it passes");
        case Call::remoteAddress:
            return {outbound ? "TCPPacket::dstIPAddress" : "TCPPacket::srcIPAddress",
                    fmt::format("{} port {}", step.text, step.answer), "the other end"};
        case Call::filterServer:
            return toldTest("FilterQuery::isFilteringIP", yes, "a filter server's address: it passes",
                            "no filter server's address");
        case Call::updateSource:
            return toldTest("FilterCheck::isUpdateBypass", yes, "an update source: it passes",
                            "no update source");
        case Call::filteringSuspended:
            return toldTest("FilterQuery::isFilteringDisabled", yes, "outbound filtering rests: it passes",
                            "outbound filtering is not suspended");
        case Call::blockedAddress:
            return toldTest("FilterQuery::isBlockedSSL", yes, "a blocked address: it is dropped",
                            "no blocked address");
        case Call::record:
            return toldRecord(step, outbound, origins);
        case Call::redirectFits:
            return toldTest("TCPPacket::redirectPacket", yes, "the redirect is shorter than the payload",
                            outbound ? "the redirect is too long for the payload: as if there were no record"
                                     : "the redirect is too long for the payload: it passes");
        case Call::redirectData:
            return {"setRedirectData", step.text, "the redirect goes into the result"};
        case Call::httpsUrl:
            return toldUrl("TCPPacket::httpsURL", step, "no TLS hello with a server name");
        case Call::httpUrl:
            return toldUrl("TCPPacket::httpURL", step, "no GET request with a Host line");
        case Call::newRecord:
            return toldTest("HijackPacket::create", yes, "a record for the connection",
                            "no record, since its length says that it has no payload");
        case Call::query:
            return {"FilterQuery::send", step.text,
                    "the agent is asked; until it answers the packet is held"};
        case Call::logLine:
            break;
    }
    return {"log", "", step.text};
}

// The other end is what is read first; further readings of ends are no test of the packet.
bool isRemoteEnd(const std::vector<ObservedStep>& steps, std::size_t place) {
    bool usable = false;
    for (std::size_t i = 0; i < place; ++i) {
        if (steps[i].call == Call::remoteAddress) return false;
        usable |= steps[i].call == Call::usable;
    }
    return usable;
}

// The place of the last test that the daemon made; none without a test.
std::optional<std::size_t> lastTest(const std::vector<ObservedStep>& steps) {
    for (std::size_t i = steps.size(); i-- > 0;) {
        const Call call = steps[i].call;
        if (call == Call::logLine || call == Call::redirectData) continue;
        if (call != Call::remoteAddress || isRemoteEnd(steps, i)) return i;
    }
    return {};
}

bool isLogged(const std::vector<ObservedStep>& steps, const char* part) {
    return std::any_of(steps.begin(), steps.end(), [&](const ObservedStep& step) {
        return step.call == Call::logLine && step.text.find(part) != std::string::npos;
    });
}

// What a test means that no other one came behind, where that is more than it means elsewhere.
void tellDecision(ToldStep& told, const ObservedStep& step, bool outbound) {
    told.decides = true;
    if (step.call == Call::remoteAddress) told.words = "this computer itself: it passes";
    if (step.call == Call::record && step.answer == noRecord && !outbound)
        told.words += ": inbound, it passes";
    if (step.call == Call::httpUrl && !step.answer) told.words += ": it passes";
    if (step.call == Call::httpUrl && step.answer) told.words = "a connectivity probe's host: it passes";
    if (step.call == Call::httpsUrl && step.answer) told.words = "a connectivity probe's host: it passes";
    if (step.call == Call::currentServer && outbound)
        told.words =
            step.text.empty() ? "without a server it passes" : "the URL is the server's own: it passes";
}

int verdictIf(bool condition, int verdict) { return condition ? verdict : verdictUndecided; }

int recordVerdict(std::int64_t state, bool outbound) {
    switch (state) {
        case noRecord:
            return verdictIf(!outbound, verdictPass);
        case openRecord:
            return outbound ? verdictHold : verdictDrop;
        case allowedRecord:
            return verdictPass;
        default:
            return verdictIf(state == tlsRedirect, verdictRedirect);
    }
}

} // namespace

std::vector<ToldStep> toldSteps(const Presentation& presentation, bool outbound,
                                const RecordOrigins& origins) {
    std::vector<ToldStep> steps;
    const std::vector<ObservedStep>& seen = presentation.seen.steps;
    const auto last = lastTest(seen);
    for (std::size_t i = 0; i < seen.size(); ++i) {
        if (seen[i].call == Call::remoteAddress && !isRemoteEnd(seen, i)) continue;
        steps.push_back(told(seen[i], outbound, origins));
        if (i == last) tellDecision(steps.back(), seen[i], outbound);
    }
    return steps;
}

int toldVerdict(const std::vector<ObservedStep>& steps, bool outbound) {
    const auto place = lastTest(steps);
    if (!place) return verdictUndecided;
    const ObservedStep& last = steps[*place];
    const bool yes = last.answer != 0;
    switch (last.call) {
        case Call::filteringDisabled:
        case Call::filterServer:
        case Call::updateSource:
        case Call::filteringSuspended:
            return verdictIf(yes, verdictPass);
        case Call::usable:
            return verdictIf(!yes, verdictPass);
        case Call::remoteAddress:
            return verdictPass;
        case Call::blockedAddress:
            return verdictIf(yes, verdictDrop);
        case Call::record:
            return recordVerdict(last.answer, outbound);
        case Call::redirectFits:
            return yes ? static_cast<int>(verdictRedirect) : verdictIf(!outbound, verdictPass);
        case Call::currentServer:
            return verdictIf(outbound ? isLogged(steps, "url passed through") : !yes, verdictPass);
        case Call::httpsUrl:
            return verdictIf(yes && isLogged(steps, "bypassing host"), verdictPass);
        case Call::httpUrl:
            return verdictIf(!yes || isLogged(steps, "bypassing host"), verdictPass);
        case Call::query:
            return verdictHold;
        default:
            return verdictUndecided;
    }
}

bool isTrue(const PacketStory& story) {
    for (const Presentation& presentation : story.presentations) {
        if (!presentation.result || presentation.seen.cut) return false;
        const int verdict = toldVerdict(presentation.seen.steps, story.played.outbound);
        if (verdict != presentation.seen.verdict || kernelResult(verdict) != presentation.result->result)
            return false;
    }
    return true;
}

std::string resultWord(int result) {
    switch (result) {
        case resultPass:
            return "passed";
        case resultDrop:
            return "dropped";
        case resultRedirect:
            return "redirected";
        case resultHold:
            return "held";
        default:
            return fmt::format("result {}", result);
    }
}

} // namespace lab

namespace lab {
namespace {

using nlohmann::ordered_json;

// Text of unknown encoding: each byte becomes the character of that number.
ordered_json presentationJson(const Presentation& presentation, bool outbound, const RecordOrigins& origins) {
    ordered_json tests = ordered_json::array();
    for (const ToldStep& step : toldSteps(presentation, outbound, origins))
        tests.push_back({{"test", latin1(step.test)},
                         {"answer", latin1(step.answer)},
                         {"words", latin1(step.words)},
                         {"decides", step.decides}});
    ordered_json row = {{"at", static_cast<double>(presentation.at) / 1e6},
                        {"verdict", presentation.seen.verdict},
                        {"result", nullptr},
                        {"told", toldVerdict(presentation.seen.steps, outbound)},
                        {"tests", tests}};
    if (presentation.result) row["result"] = presentation.result->result;
    return row;
}

} // namespace

ordered_json explanationJson(const PacketStory& story, bool withBytes) {
    ordered_json row = {{"packet", story.played.packet.number},
                        {"dir", story.played.outbound ? "out" : "in"},
                        {"src", story.played.packet.source.text()},
                        {"dst", story.played.packet.destination.text()},
                        {"size", story.played.packet.bytes.size()},
                        {"result", nullptr},
                        {"explained", isTrue(story)}};
    row["presentations"] = ordered_json::array();
    for (const Presentation& presentation : story.presentations) {
        row["presentations"].push_back(presentationJson(presentation, story.played.outbound, story.origins));
        row["result"] = row["presentations"].back()["result"];
    }
    row["agent"] = ordered_json::array();
    for (const ToldQuestion& question : story.agent)
        row["agent"].push_back(
            {{"url", latin1(question.url)},
             {"asked", static_cast<double>(question.asked) / 1e6},
             {"replied", question.replied < 0 ? ordered_json(nullptr)
                                              : ordered_json(static_cast<double>(question.replied) / 1e6)},
             {"reply", latin1(question.reply)},
             {"rule", latin1(question.rule)}});
    if (!withBytes || story.presentations.empty()) return row;
    row["read"] = ordered_json::array();
    for (const ReadBytes& read : readIn(story))
        row["read"].push_back(
            {{"what", read.what}, {"answer", latin1(read.answer)}, {"offsets", rangesOf(read.offsets)}});
    return row;
}

std::vector<ReadBytes> readIn(const PacketStory& story) {
    const std::vector<char>& memory = story.presentations.front().seen.memory;
    if (memory.empty()) return {};
    return bytesReadIn(memory, story.played.packet.bytes.size());
}

} // namespace lab
