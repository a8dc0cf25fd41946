#pragma once

// `fernhill-lab compare`: plays captures under two policies and says what the second one changes.

#include "lab/ConnectionRows.h"
#include "lab/TableReport.h"

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace lab {

struct CompareOptions {
    std::vector<std::string> captures;
    std::vector<std::string> policies; // two
    std::string csv;
    std::size_t rows = 40; // of the table, at most
    bool json = false;
    bool blockOnFailure = false;
};

// What became of a connection under one policy; empty texts where it was none.
struct Outcome {
    std::string verdict;   // with the redirect's address
    std::string answer;    // of the agent to the last question
    std::int64_t held = 0; // microseconds
};

// A connection that ends differently.
struct Difference {
    std::string capture;
    std::int64_t at = 0; // microseconds since the capture's first packet
    std::string local;
    std::string remote;
    std::string url; // the last one asked about
    Outcome before;
    Outcome after;
};

struct Comparison {
    long connections = 0; // under the first policy
    std::vector<Difference> differences;
    std::map<std::pair<std::string, std::string>, long>
        changes; // of verdicts: from, to, how many connections
    std::map<std::string, std::pair<std::string, std::string>>
        urls; // whose answers differ, last answers of each
};

// Adds one capture's rows under both policies. Connections are the same by their ends and the time of their first packet.
void compareRows(Comparison& comparison, const std::string& capture, const std::vector<ConnectionRow>& before,
                 const std::vector<ConnectionRow>& after);

// Throws InputError where packets of a capture have had no answer under that policy.
void requireAnswers(const std::string& capture, const std::string& policy, const Totals& totals);

// Prints the differences: 0 without one, else 1. Throws InputError, also where a daemon fails.
int compare(const CompareOptions& options);

} // namespace lab
