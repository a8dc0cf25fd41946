#pragma once

// How a packet got its verdict, from what was seen of it inside the daemon: each test in words, and the one that
// decided. The words claim nothing of their own: a verdict is told from the calls and their answers, and has to be the
// one that the daemon gave.

#include "lab/Connection.h"
#include "lab/ReadBytes.h"
#include "lab/observe/Observation.h"
#include "packet/SysctlResult.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace lab {

// One test as a reader sees it.
struct ToldStep {
    std::string test;     // the daemon's operation, or "log"
    std::string answer;   // what it said
    std::string words;    // what that means for the packet
    bool decides = false; // it was the last one
};

// One presentation of a packet to the daemon.
struct Presentation {
    std::int64_t at = 0; // microseconds since the capture's first packet
    ObservedPacket seen;
    std::optional<sysctl_result> result;
};

// Where a record of the daemon's list came from: the packet that asked.
struct RecordOrigin {
    long packet = 0;
    std::int64_t at = 0;
};

// The records' marks, as the packets that made them had them.
using RecordOrigins = std::map<std::uint64_t, RecordOrigin>;

// A question to the agent; microseconds since the capture's first packet.
struct ToldQuestion {
    std::string url;
    std::int64_t asked = 0;
    std::int64_t replied = -1; // -1: not yet, when the packet had its verdict
    std::string reply;
    std::string rule; // of the policy; empty where none matched
};

// All that is known of one packet.
struct PacketStory {
    PlayedPacket played; // as it was last presented
    std::vector<Presentation> presentations;
    RecordOrigins origins;           // of the records that it met
    std::vector<ToldQuestion> agent; // about the URLs that it met
};

// The tests of a presentation in words, in their order.
std::vector<ToldStep> toldSteps(const Presentation& presentation, bool outbound,
                                const RecordOrigins& origins);

// The verdict that follows from the tests, the last of which decided; verdictUndecided where none follows.
int toldVerdict(const std::vector<ObservedStep>& steps, bool outbound);

// Whether what is told of every presentation is what the daemon did.
bool isTrue(const PacketStory& story);

// "passed", "held" ... for a kernel result.
std::string resultWord(int kernelResult);

// The bytes that the daemon's readers went by at the first presentation; none for a packet that was not presented.
std::vector<ReadBytes> readIn(const PacketStory& story);

nlohmann::ordered_json explanationJson(const PacketStory& story, bool withBytes);

} // namespace lab
