#pragma once

// The report of a replay for people: what is played, a row for each connection as it ends, and a summary.

#include "lab/Connection.h"

#include <cstdio>
#include <map>
#include <string>

namespace lab {

// Numbers of a whole replay.
struct Totals {
    long records = 0;    // records of the captures
    long packets = 0;    // IP packets of them
    long presented = 0;  // packet records sent to the daemon, repetitions included
    long unanswered = 0; // of these, without an answer
    long passed = 0;     // final results
    long dropped = 0;
    long redirected = 0;
    long heldToTheEnd = 0;
    long notPresented = 0; // behind a redirect, or after the daemon's end
    long connections = 0;
    long asked = 0; // questions to the agent, repetitions included
    std::map<Action, long> answers;
    std::map<std::string, long> redirects; // connections by their redirect URL
    long unsettled = 0;                    // waits for the agent link that ran out
    std::int64_t playedMicroseconds = 0;
};

// What the heading says of the agent.
struct PolicyFacts {
    std::string path;
    std::size_t rules = 0;
    bool blockOnFailure = false;
};

class TableReport {
public:
    // Writes to `out`; null writes nothing. The progress bar goes to standard error when that is a terminal.
    explicit TableReport(std::FILE* out);

    // The heading of one capture; in front of the first, how to read the table.
    void begin(const std::string& capture, const CaptureFacts& facts, const PolicyFacts& policy);
    void row(const Connection& connection, std::int64_t start);
    void progress(long position, long records);
    // `root` is the scratch folder when it is kept, else empty.
    void summary(const Totals& totals, double realSeconds, const std::string& root);

private:
    void clearProgress();
    void printAnswers(const Totals& totals);

    std::FILE* out_;
    bool terminal_;
    int percent_ = -1;
    bool explained_ = false;
};

// What the agent said about a connection's last URL, and what became of the connection, each in a few words.
std::string answerText(const Connection& connection);
std::string verdictText(const Connection& connection);

} // namespace lab
