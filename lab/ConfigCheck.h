#pragma once

// `fernhill-lab check`: what the daemon makes of a configuration file, element by element, and what its next save
// would lose of it. The file is read by the daemon's own reader from a copy below a scratch root.

#include <string>
#include <vector>

namespace lab {

struct ConfigFinding {
    // `note` is something of the file that is no setting, or a setting that is not there.
    enum class Kind { taken, ignored, defaulted, note };

    int line = 0; // 0 for what is not in the file
    Kind kind = Kind::note;
    std::string element;
    std::string text;    // as it stands in the file
    std::string meaning; // what the daemon has afterwards, or why it has nothing of it
    bool lost = false;   // not in the file any more after the next save
};

// Reads the file as the daemon's start does. Loads this process's Configuration, so once for each process. Throws
// InputError for a file that cannot be read.
std::vector<ConfigFinding> checkConfiguration(const std::string& path);

struct CheckOptions {
    std::string file;
    std::string csv; // a file, "-" for standard output in place of the table
    bool json = false;
};

// Prints the findings: 0 when nothing is ignored or lost, else 1. Throws InputError.
int check(const CheckOptions& options);

} // namespace lab
