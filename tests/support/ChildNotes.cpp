#include "support/ChildNotes.h"

#include <fstream>
#include <sstream>

namespace testsupport {

void ChildNotes::add(const std::string& line) const {
    std::ofstream(folder_.file("notes"), std::ios::app) << line + "\n";
}

std::set<std::string> ChildNotes::seen() const {
    std::set<std::string> lines;
    std::istringstream text(readAll(folder_.file("notes")));
    for (std::string line; std::getline(text, line);)
        lines.insert(line);
    return lines;
}

} // namespace testsupport
