#pragma once

// The tables of docs/architecture.md, which tests hold against the code.

#include <string>
#include <vector>

namespace testsupport {

// The rows of the tables under the heading, each as its trimmed cells, heads and rules included.
std::vector<std::vector<std::string>> architectureTable(const std::string& heading);

// The words in backquotes, in their order.
std::vector<std::string> quotedWords(const std::string& cell);

} // namespace testsupport
