#pragma once

// `fernhill-lab log`: the daemon's rotated log files as one, in the order of their times, with filters, what a line
// means where that is known, and what the log can tell of pages that hang.

#include <cstdint>
#include <string>
#include <vector>

namespace lab {

struct LogLine {
    std::string file;
    std::int64_t time = 0; // seconds, as the line tells them; for a line without them that of the line before
    long thread = 0;       // 0 for the rest of a message that has several lines
    std::string text;      // without thread and time
};

struct LogOptions {
    std::string folder;
    std::string containing; // a connection's or URL's text
    long request = -1;      // the number of one question to the agent
    std::string csv;        // a file, "-" for standard output in place of the lines
    bool sinceStart = false;
    bool explain = false;
    bool hangs = false;
    bool json = false;
};

// All lines of a folder's log files, by time; lines of one second in the order of their files. Throws InputError
// where the folder cannot be read or holds no log.
std::vector<LogLine> readLog(const std::string& folder);

// The lines from the newest start of the daemon on; all, where no start is in the log.
std::vector<LogLine> sinceNewestStart(std::vector<LogLine> lines);

// What a line means to who runs the machine; empty for a line that needs no words.
std::string meaningOf(const std::string& text);

// What the log can tell of pages that hang, a sentence each; never empty.
std::vector<std::string> explainHangs(const std::vector<LogLine>& lines);

// Prints what the options ask for: 0, or 1 when no line is left to show. Throws InputError.
int showLog(const LogOptions& options);

} // namespace lab
