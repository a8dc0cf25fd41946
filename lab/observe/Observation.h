#pragma once

// What the daemon does with one packet, seen from inside: the tests that its own code calls, in their order, with what
// they answer, and the lines that it logs meanwhile. The lab's program has a step in front of each of these calls
// (ObservedCalls.cpp); it writes into memory that the lab shares with the daemon's process, and nothing where there is
// no such memory.

#include <cstdint>
#include <string>
#include <vector>

namespace lab {

// The calls that decide about a packet, as the daemon's code has them.
enum class Call : std::int32_t {
    filteringDisabled,  // answer: whether the configuration disables filtering
    currentServer,      // answer: the kind of the current filter server, 0 without one; text: its name
    usable,             // answer: whether the packet can be worked on
    remoteAddress,      // answer: the port; text: the address of the end that the test is about
    filterServer,       // answer: whether that is a filter server's address
    updateSource,       // answer: whether that is an update source's address
    filteringSuspended, // answer: whether outbound filtering is suspended
    blockedAddress,     // answer: whether an end is in the table of blocked addresses
    record,             // answer: a RecordState; text: the record's URL; more: its redirect
    redirectFits,       // answer: whether the redirect is shorter than the payload; text: the redirect
    redirectData,       // text: the redirect that goes into the result
    httpsUrl,           // answer: whether there is one; text: the URL
    httpUrl,            // the same
    newRecord,          // answer: whether one was made; text: its URL
    query,              // text: the URL that goes to the agent
    logLine,            // text: the line
};

enum RecordState : std::int64_t { noRecord, openRecord, allowedRecord, plainRedirect, tlsRedirect };

struct ObservedStep {
    Call call = Call::logLine;
    std::int64_t answer = 0;
    std::string text;
    std::string more;
    std::uint64_t mark = 0; // of the record, as the daemon's log has it
};

// One exchange with the agent, as the query thread had it.
struct ObservedQuestion {
    std::int64_t asked = 0; // the daemon's clock, in microseconds
    std::int64_t replied = 0;
    std::string url;
    std::string reply;
    bool hasReply = false;
};

// What was seen of one packet record, from the call of the direction's verdict to its return.
struct ObservedPacket {
    std::vector<ObservedStep> steps;
    std::int64_t verdict = 0;
    std::vector<char>
        memory;       // from the packet's first byte on, as it was before; what lies behind it included
    bool cut = false; // there was more than there is room for
};

// The lab's side. To be made before the daemon is forked; one at a time.
class Observation {
public:
    Observation();
    ~Observation();

    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

    // Whether this program observes: only the lab's own does.
    static bool possible();

    // What has been seen of the packet that was presented last in a direction, once its result is there; on request with
    // the memory.
    ObservedPacket packet(bool outbound, bool withMemory) const;

    // The exchanges with the agent so far, in the order of the replies.
    std::vector<ObservedQuestion> questions() const;
};

// The daemon's side. All of these do nothing without an Observation.
bool observing();
void observeBegin(bool outbound, const char* packet);
void observeStep(const ObservedStep& step); // of the packet that the calling thread has begun, if it has
void observeEnd(std::int64_t verdict);
void observeQuestion(const ObservedQuestion& question);

// Set by the program that has the steps in it, before main.
void declareObserved();

} // namespace lab
