#pragma once

// The connections of a replay as rows, in the order of their beginning: a choice of them for a screen, all of them as
// comma-separated values.

#include "lab/Connection.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lab {

struct ConnectionRow {
    // Of the connection, with what it was held for in it. No packets wait in it any more.
    Connection connection;

    // Microseconds since the capture's first packet.
    std::int64_t at = 0;
};

// What a reader tells rows apart by: verdict and answer, without numbers.
std::string kindOf(const Connection& connection);

// At most `most` rows in the order of time: the first of each kind, as many as there is room for, then others with a
// question, evenly from all of the time. More kinds than room: those that are seldom first.
std::vector<ConnectionRow> chosenRows(std::vector<ConnectionRow> rows, std::size_t most);

// The columns of a connection in comma-separated values, and its fields.
extern const char connectionColumns[];
std::string connectionFields(const Connection& connection, std::int64_t at);

// Writes all rows, with a heading, to a file or, for "-", to standard output. Throws InputError when it cannot be written.
void writeCsv(const std::string& path, const std::vector<ConnectionRow>& rows);

} // namespace lab
