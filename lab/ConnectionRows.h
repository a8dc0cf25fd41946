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

// A text as one field of comma-separated values: quoted, since a URL may hold commas, quotes and line ends.
std::string csvField(const std::string& text);

// Writes all rows, with a heading, as RFC 4180 has it. Throws InputError when the file cannot be written.
void writeCsv(const std::string& path, const std::vector<ConnectionRow>& rows);

} // namespace lab
