#pragma once

// The report of a replay or a live run for people: what is played, a row for each connection as it ends, and a
// summary.

#include "lab/Connection.h"
#include "lab/ConnectionRows.h"
#include "lab/ProgressBar.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

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
    long asked = 0;  // questions to the agent, repetitions included
    long untold = 0; // of a live run's, those that no row has
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
    // Writes to `out`; null writes nothing. The progress bar goes to standard error when that is a terminal. With a
    // number of rows the table is at most so long: a choice, in the order of time, behind each capture.
    explicit TableReport(std::FILE* out, std::size_t mostRows = 0, bool keepsRows = false);

    // The heading of one capture; in front of the first, how to read the table.
    void begin(const std::string& capture, const CaptureFacts& facts, const PolicyFacts& policy);
    // The heading of a live run.
    void beginLive(const PolicyFacts& policy);
    void row(const Connection& connection, std::int64_t start);

    // The end of a capture: prints its choice of rows, if there is one.
    void end();

    // Every row so far, in the order of time; none unless rows are kept.
    std::vector<ConnectionRow> rows() const;

    void progress(long position, long records);

    // Shows progress although nothing is written.
    void showProgress() { silent_ = false; }

    // `root` is the scratch folder when it is kept, else empty.
    void summary(const Totals& totals, double realSeconds, const std::string& root);
    void liveSummary(const Totals& totals, const std::string& root);

private:
    void printColumns();
    void printRow(const Connection& connection, std::int64_t at);
    void printAnswers(const Totals& totals);

    std::FILE* out_;
    std::size_t mostRows_;
    bool keepsRows_;
    bool silent_;
    bool colours_;
    std::size_t lineWidth_;
    std::size_t urlWidth_;
    ProgressBar bar_;
    std::vector<ConnectionRow> rows_; // of all captures
    std::size_t captureRows_ = 0;     // where those of this capture begin
    bool explained_ = false;
};

// What the agent said about a connection's last URL, and what became of the connection, each in a few words.
std::string answerText(const Connection& connection);
std::string verdictText(const Connection& connection);

// What the agent said to one question.
std::string answerTextOf(const Query& query);

} // namespace lab
