#include "support/ArchitecturePage.h"

#include <fstream>
#include <sstream>

namespace testsupport {
namespace {

std::string trimmed(const std::string& cell) {
    const std::size_t first = cell.find_first_not_of(' ');
    return first == std::string::npos ? "" : cell.substr(first, cell.find_last_not_of(' ') - first + 1);
}

} // namespace

std::vector<std::vector<std::string>> architectureTable(const std::string& heading) {
    std::ifstream page(std::string(OSTLER_TEST_DATA) + "/../docs/architecture.md");
    std::string line;
    while (std::getline(page, line) && line != "## " + heading) {
    }
    std::vector<std::vector<std::string>> rows;
    while (std::getline(page, line) && line.rfind("## ", 0) != 0) {
        if (line.empty() || line[0] != '|') continue;
        std::istringstream row(line.substr(1));
        std::vector<std::string> cells;
        for (std::string cell; std::getline(row, cell, '|');)
            cells.push_back(trimmed(cell));
        rows.push_back(cells);
    }
    return rows;
}

std::vector<std::string> quotedWords(const std::string& cell) {
    std::vector<std::string> words;
    std::istringstream pieces(cell);
    std::string piece;
    for (bool quoted = false; std::getline(pieces, piece, '`'); quoted = !quoted)
        if (quoted) words.push_back(piece);
    return words;
}

} // namespace testsupport
